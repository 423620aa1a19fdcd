#include "hdr/pyramid.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

#include "hdr/bayer_filter.h"
#include "imgcore/border_filter.h"
#include "imgcore/row_stripes.h"
#include "imgcore/saturate.h"

namespace {

// 5x5 binomial (1 4 6 4 1 outer product, sum 256) of the up-sampling filter.
const int kBinomial5x5[25] = {1, 4,  6,  4,  1,   //
                              4, 16, 24, 16, 4,   //
                              6, 24, 36, 24, 6,   //
                              4, 16, 24, 16, 4,   //
                              1, 4,  6,  4,  1};

template <typename T>
T* rowAt(T* base, std::ptrdiff_t strideBytes, int row) {
    using Byte = typename std::conditional<std::is_const<T>::value, const char, char>::type;
    return reinterpret_cast<T*>(reinterpret_cast<Byte*>(base) + row * strideBytes);
}

// Zero insertion keeps 4 * sample in a 16-bit image, so the product wraps.
inline short timesFour(short v) { return static_cast<short>(4 * static_cast<int>(v)); }

template <typename T>
void downSample(T* src, T* dst, int height, int width, int outHeight, int outWidth,
                void (*lowPass)(T*, T*, int, int)) {
    if (outHeight < 1 || outWidth < 1 || height < 1 || width < 1) return;
    std::unique_ptr<T[]> smooth(new T[static_cast<std::size_t>(width) * height]);
    lowPass(src, smooth.get(), width, height);
    // Output quad (r, c) is the top-left quad of the 2x2 block of quads at (2r, 2c).
    for (int r = 0; r < outHeight; r += 2) {
        for (int dr = 0; dr < 2 && r + dr < outHeight && 2 * r + dr < height; ++dr) {
            const T* in = smooth.get() + static_cast<std::size_t>(2 * r + dr) * width;
            T* out = dst + static_cast<std::size_t>(r + dr) * outWidth;
            for (int c = 0; c < outWidth; c += 2)
                for (int dc = 0; dc < 2 && c + dc < outWidth && 2 * c + dc < width; ++dc) out[c + dc] = in[2 * c + dc];
        }
    }
}

template <typename T>
void buildGaussianPyramid(std::vector<T*>* pyramid, int width, int height, int levelCount, bool mask,
                          void (*downSampler)(T*, T*, int, int, int, int, int)) {
    int h = height;
    int w = width;
    for (int i = 0; i + 1 < levelCount; ++i) {
        const int hn = halvedLevelSide(h);
        const int wn = halvedLevelSide(w);
        T* next = (*pyramid)[i + 1];
        downSampler((*pyramid)[i], next, h, w, hn, wn, i + 1);
        if (mask) {
            const std::size_t n = static_cast<std::size_t>(hn > 0 ? hn : 0) * static_cast<std::size_t>(wn > 0 ? wn : 0);
            for (std::size_t k = 0; k < n; ++k)
                if (next[k] != 0) next[k] = 255;
        }
        h = hn;
        w = wn;
    }
}

// ---- separable up-sampling ----
//
// The zero-inserted image Z (H2 x W2) has data only in rows and columns congruent
// to 0 or 1 mod 4: virtual quad row I holds source quad row I (the repeated rows
// H2-2, H2-1 are virtual quad row h/2, a copy of source quad row h/2 - 1), and the
// same for columns. The border move of the filter (4 samples) keeps that pattern,
// and for H2, W2 >= 4 it is the same as clamping the virtual quad index to the
// valid range. The binomial kernel is an outer product, and every sum is an exact
// integer, so the 5x5 filter splits into a horizontal pass per data row and a
// vertical pass per output row, each skipping the zero taps:
//   output phase 0 (index 4J):   v[J-1] + 6 v[J] + v[J+1]
//   output phase 1 (index 4J+1): the same on the odd sites
//   output phase 2 (index 4J+2): 4 v[J] + 4 v[J+1]
//   output phase 3 (index 4J+3): the same on the odd sites
// with v[] the virtual quads' samples of the matching site, clamped at both ends.

class SeparableUpSampler {
public:
    SeparableUpSampler(const short* src, int height, int width, std::ptrdiff_t srcStride, int extraRows,
                       int extraCols)
        : src_(src),
          height_(height),
          width_(width),
          srcStride_(srcStride),
          quadRows_(height / 2 + (extraRows != 0 ? 1 : 0)),
          quadCols_(width / 2 + (extraCols != 0 ? 1 : 0)),
          rowLen_(4 * quadCols_),
          evenSites_(quadCols_ + 2),
          oddSites_(quadCols_ + 2),
          ring_(static_cast<std::size_t>(kSlots) * 2 * rowLen_) {
        for (int s = 0; s < kSlots; ++s) slotQuad_[s] = -1;
    }

    void run(short* dst, std::ptrdiff_t dstStride, int outRows, int outCols) {
        for (int I = 0; I < quadRows_; ++I) {
            const int* prev[2];
            const int* cur[2];
            const int* next[2];
            filteredQuadRow(I - 1, prev);
            filteredQuadRow(I, cur);
            filteredQuadRow(I + 1, next);
            for (int phase = 0; phase < 4; ++phase) {
                const int y = 4 * I + phase;
                if (y >= outRows) break;
                const int site = phase & 1;
                short* out = rowAt(dst, dstStride, y);
                if (phase < 2)
                    verticalCentre(prev[site], cur[site], next[site], out, outCols);
                else
                    verticalBetween(cur[site], next[site], out, outCols);
            }
        }
    }

private:
    static constexpr int kSlots = 3;

    static void verticalCentre(const int* a, const int* b, const int* c, short* out, int n) {
        for (int x = 0; x < n; ++x) out[x] = static_cast<short>((a[x] + 6 * b[x] + c[x]) / 256);
    }
    static void verticalBetween(const int* b, const int* c, short* out, int n) {
        for (int x = 0; x < n; ++x) out[x] = static_cast<short>((4 * b[x] + 4 * c[x]) / 256);
    }

    int sourceRow(int quad, int site) const {
        return quad < height_ / 2 ? 2 * quad + site : height_ - 2 + site;  // repeated last quad row
    }

    // Horizontally filtered even and odd rows of virtual quad row `quad` (clamped).
    void filteredQuadRow(int quad, const int* rows[2]) {
        if (quad < 0) quad = 0;
        if (quad >= quadRows_) quad = quadRows_ - 1;
        const int slot = quad % kSlots;
        int* base = &ring_[static_cast<std::size_t>(slot) * 2 * rowLen_];
        if (slotQuad_[slot] != quad) {
            horizontal(rowAt(src_, srcStride_, sourceRow(quad, 0)), base);
            horizontal(rowAt(src_, srcStride_, sourceRow(quad, 1)), base + rowLen_);
            slotQuad_[slot] = quad;
        }
        rows[0] = base;
        rows[1] = base + rowLen_;
    }

    void horizontal(const short* in, int* out) {
        short* a = evenSites_.data();
        short* b = oddSites_.data();
        const int dataQuads = width_ / 2;
        for (int j = 0; j < dataQuads; ++j) {
            a[j + 1] = timesFour(in[2 * j]);
            b[j + 1] = timesFour(in[2 * j + 1]);
        }
        if (quadCols_ > dataQuads) {  // repeated last quad column
            a[quadCols_] = timesFour(in[width_ - 2]);
            b[quadCols_] = timesFour(in[width_ - 1]);
        }
        a[0] = a[1];
        b[0] = b[1];
        a[quadCols_ + 1] = a[quadCols_];
        b[quadCols_ + 1] = b[quadCols_];
        for (int J = 0; J < quadCols_; ++J) {
            out[4 * J + 0] = a[J] + 6 * a[J + 1] + a[J + 2];
            out[4 * J + 1] = b[J] + 6 * b[J + 1] + b[J + 2];
            out[4 * J + 2] = 4 * a[J + 1] + 4 * a[J + 2];
            out[4 * J + 3] = 4 * b[J + 1] + 4 * b[J + 2];
        }
    }

    const short* src_;
    int height_;
    int width_;
    std::ptrdiff_t srcStride_;
    int quadRows_;
    int quadCols_;
    int rowLen_;
    std::vector<short> evenSites_;
    std::vector<short> oddSites_;
    std::vector<int> ring_;
    int slotQuad_[kSlots];
};

bool isRegularUpSample(const short* src, const short* dst, int height, int width, std::ptrdiff_t srcStride,
                       std::ptrdiff_t dstStride, int extraRows, int extraCols) {
    if (height < 2 || width < 2 || height % 2 != 0 || width % 2 != 0) return false;
    if ((extraRows != 0 && extraRows != 2) || (extraCols != 0 && extraCols != 2)) return false;
    if (srcStride < 1 || dstStride < 1) return false;
    const int outRows = 2 * height + extraRows;
    const int outCols = 2 * width + extraCols;
    const auto s0 = reinterpret_cast<std::uintptr_t>(src);
    const auto s1 = s0 + static_cast<std::uintptr_t>((height - 1) * srcStride + 2 * width);
    const auto d0 = reinterpret_cast<std::uintptr_t>(dst);
    const auto d1 = d0 + static_cast<std::uintptr_t>((outRows - 1) * dstStride + 2 * outCols);
    return s1 <= d0 || d1 <= s0;
}

}  // namespace

void imageDownSample_short(short* src, short* dst, int height, int width, int outHeight, int outWidth, int) {
    downSample<short>(src, dst, height, width, outHeight, outWidth, lowPassFilteringForBayer_short);
}

void imageDownSample_ushort(unsigned short* src, unsigned short* dst, int height, int width, int outHeight,
                            int outWidth, int) {
    downSample<unsigned short>(src, dst, height, width, outHeight, outWidth, lowPassFilteringForBayer_ushort);
}

void gaussianPyramid(unsigned short*, std::vector<unsigned short*>* pyramid, int width, int height, int levelCount,
                     int) {
    buildGaussianPyramid<unsigned short>(pyramid, width, height, levelCount, false, imageDownSample_ushort);
}

void gaussianPyramid_tmp(unsigned short*, std::vector<unsigned short*>* pyramid, int width, int height,
                         int levelCount) {
    buildGaussianPyramid<unsigned short>(pyramid, width, height, levelCount, true, imageDownSample_ushort);
}

void imageUpSampleReference(const short* src, short* dst, int height, int width, int srcStrideBytes,
                            int dstStrideBytes, const int* remainder) {
    const int outRows = 2 * height + remainder[0];
    const int outCols = 2 * width + remainder[1];
    if (outRows < 1 || outCols < 1) return;
    const std::ptrdiff_t srcStride = srcStrideBytes != 0 ? srcStrideBytes : 2 * static_cast<std::ptrdiff_t>(width);
    std::vector<short> scratch(static_cast<std::size_t>(outRows) * outCols, 0);
    auto at = [&](int y, int x) -> short& { return scratch[static_cast<std::size_t>(y) * outCols + x]; };

    // Zero insertion: source quad (r, c) goes to (2r, 2c), times 4.
    for (int r = 0; r + 1 < height; r += 2) {
        for (int dr = 0; dr < 2 && 2 * r + dr < outRows; ++dr) {
            const short* in = rowAt(src, srcStride, r + dr);
            for (int c = 0; c + 1 < width; c += 2)
                for (int dc = 0; dc < 2 && 2 * c + dc < outCols; ++dc) at(2 * r + dr, 2 * c + dc) = timesFour(in[c + dc]);
            // Remainder columns repeat the source's last two columns on the same rows.
            if (remainder[1] != 0 && width >= 2 && outCols >= 2)
                for (int k = 0; k < 2; ++k) at(2 * r + dr, outCols - 2 + k) = timesFour(in[width - 2 + k]);
        }
    }
    // Remainder rows repeat rows H2-6 and H2-5.
    if (remainder[0] != 0 && outRows >= 6)
        for (int k = 0; k < 2; ++k)
            std::memcpy(&at(outRows - 2 + k, 0), &at(outRows - 6 + k, 0), sizeof(short) * outCols);

    zel::cpp::imgproc::multiChannelFilterBorderCopy_v00<short, int>(scratch.data(), dst, outCols, outRows,
                                                                     2 * outCols, dstStrideBytes, kBinomial5x5, 2,
                                                                     2, 2, false);
}

void imageUpSample(short* src, short* dst, int height, int width, int srcStrideBytes, int dstStrideBytes,
                   int* remainder, int) {
    const int extraRows = remainder[0];
    const int extraCols = remainder[1];
    const std::ptrdiff_t srcStride = srcStrideBytes != 0 ? srcStrideBytes : 2 * static_cast<std::ptrdiff_t>(width);
    const std::ptrdiff_t dstStride =
        dstStrideBytes != 0 ? dstStrideBytes : 2 * static_cast<std::ptrdiff_t>(2 * width + extraCols);
    if (!isRegularUpSample(src, dst, height, width, srcStride, dstStride, extraRows, extraCols)) {
        imageUpSampleReference(src, dst, height, width, srcStrideBytes, dstStrideBytes, remainder);
        return;
    }
    SeparableUpSampler sampler(src, height, width, srcStride, extraRows, extraCols);
    sampler.run(dst, dstStride, 2 * height + extraRows, 2 * width + extraCols);
}

void applyDetailGains(short* image, int height, int width, int level, float gain0, float gain1, int gainMaxLevel) {
    auto scaled = [](short v, float gain) { return static_cast<short>(truncToInt(static_cast<float>(v) * gain)); };
    if (level == 0) {
        const std::size_t n = static_cast<std::size_t>(height) * width;
        for (std::size_t k = 0; k < n; ++k) image[k] = scaled(image[k], gain0);
        return;
    }
    if (level != 1 && level > gainMaxLevel) return;
    const float strongGain = gain1 * 0.9f;
    for (int r = 0; r + 1 < height; r += 2) {
        short* top = image + static_cast<std::size_t>(r) * width;
        short* bottom = top + width;
        for (int c = 0; c + 1 < width; c += 2) {
            short m = top[c];
            if (top[c + 1] < m) m = top[c + 1];
            if (bottom[c] < m) m = bottom[c];
            if (bottom[c + 1] < m) m = bottom[c + 1];
            float gain;
            if (level == 1) {
                if (m <= -31)
                    gain = strongGain;
                else if (m <= -21)
                    gain = gain1;
                else
                    continue;
            } else {
                if (m >= -20) continue;
                gain = gain1;
            }
            top[c] = scaled(top[c], gain);
            top[c + 1] = scaled(top[c + 1], gain);
            bottom[c] = scaled(bottom[c], gain);
            bottom[c + 1] = scaled(bottom[c + 1], gain);
        }
    }
}

void laplacianPyramid(short*, std::vector<short*>* pyramid, short* shallowResidual, int width, int height,
                      int levelCount, int shallowLevelCount, float gain0, float gain1, int gainMaxLevel) {
    int h = height;
    int w = width;
    for (int i = 0; i + 1 < levelCount; ++i) {
        const int hn = halvedLevelSide(h);
        const int wn = halvedLevelSide(w);
        short* level = (*pyramid)[i];
        short* next = (*pyramid)[i + 1];
        imageDownSample_short(level, next, h, w, hn, wn, i + 1);
        if (i == shallowLevelCount - 2 && hn > 0 && wn > 0)
            std::memcpy(shallowResidual, next, sizeof(short) * static_cast<std::size_t>(hn) * wn);

        const std::size_t n = static_cast<std::size_t>(h) * w;
        std::unique_ptr<short[]> up(new short[n]());
        int remainder[2] = {h - 2 * hn, w - 2 * wn};
        imageUpSample(next, up.get(), hn, wn, 2 * wn, 2 * w, remainder, i);
        for (std::size_t k = 0; k < n; ++k) level[k] = static_cast<short>(level[k] - up[k]);

        applyDetailGains(level, h, w, i, gain0, gain1, gainMaxLevel);
        h = hn;
        w = wn;
    }
}

void reconstructCalculation(short* a, short* b, short* out, int rowStart, int rowEnd, int colStart, int colEnd,
                            int stride, int) {
    for (int r = rowStart; r < rowEnd; ++r) {
        const std::size_t base = static_cast<std::size_t>(r) * stride;
        for (int c = colStart; c < colEnd; ++c) out[base + c] = static_cast<short>(a[base + c] + b[base + c]);
    }
}

void reconstructLaplacianPyramid(std::vector<short*>* pyramid, std::vector<int*>* levelSizes, int levelCount,
                                 int whiteLevel) {
    for (int i = levelCount - 2; i >= 0; --i) {
        const int h = (*levelSizes)[i][0];
        const int w = (*levelSizes)[i][1];
        const int hn = (*levelSizes)[i + 1][0];
        const int wn = (*levelSizes)[i + 1][1];
        short* level = (*pyramid)[i];

        const std::size_t n = static_cast<std::size_t>(h) * w;
        std::unique_ptr<short[]> up(new short[n]());
        int remainder[2] = {h - 2 * hn, w - 2 * wn};
        imageUpSample((*pyramid)[i + 1], up.get(), hn, wn, 2 * wn, 2 * w, remainder, i + 1);
        short* upSampled = up.get();
        runOnFourStripes(h, [&](int rowStart, int rowEnd) {
            reconstructCalculation(level, upSampled, level, rowStart, rowEnd, 0, w, w, whiteLevel);
        });

        if (i == 0) {
            // Twice the white level on purpose: the tone stages compress the overshoot.
            const long long upper = 2LL * whiteLevel;
            for (std::size_t k = 0; k < n; ++k) {
                long long v = level[k];
                if (v < 0) v = 0;
                if (v > upper) v = upper;
                level[k] = static_cast<short>(v);
            }
        }
    }
}

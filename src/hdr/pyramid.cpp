#include "hdr/pyramid.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

#include "hdr/bayer_filter.h"
#include "hdr/pyramid_rows.h"
#include "imgcore/border_filter.h"
#include "imgcore/fast_paths.h"
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

}  // namespace

namespace pyramid_rows {

namespace {

// Source index that the Bayer low-pass reads for position s in [-4, n + 4) of a side
// of n >= 4 samples: its border extension repeats the sample four positions inward
// (same Bayer site), and for n >= 4 that sample lies inside the image.
inline int foldLowPass(int s, int n) { return s < 0 ? s + 4 : (s >= n ? s - 4 : s); }

}  // namespace

bool keptQuadDownSampleApplies(int height, int width, int outHeight, int outWidth) {
    return height >= 4 && width >= 4 && outHeight >= 1 && outWidth >= 1 && 2 * outHeight <= height &&
           2 * outWidth <= width;
}

// The binomial low-pass is an outer product, so at a kept sample it is a vertical
// 5-tap sum per column followed by a horizontal 5-tap sum of those, in 32-bit
// integers. Every partial sum of the sparse-tap definition is an integer of
// magnitude at most 256 * 65535 < 2^24, so its single-precision accumulation is
// exact and equals this integer sum; the float quotient by 256 is exact too, and
// its truncation toward zero is the integer division.
template <typename T>
KEP_KERNEL_BODY void downSampleKeptRowsBody(const T* src, T* dst, int height, int width, int outWidth, int rowStart,
                                            int rowEnd) {
    if (rowEnd <= rowStart) return;
    std::vector<int> column(static_cast<std::size_t>(width) + 8);
    int* v = column.data() + 4;  // v[-4 .. width + 4)
    const int pairs = outWidth / 2;
    for (int o = rowStart; o < rowEnd; ++o) {
        const int y = 2 * o - (o & 1);
        const T* r0 = src + static_cast<std::ptrdiff_t>(foldLowPass(y - 4, height)) * width;
        const T* r1 = src + static_cast<std::ptrdiff_t>(foldLowPass(y - 2, height)) * width;
        const T* r2 = src + static_cast<std::ptrdiff_t>(y) * width;
        const T* r3 = src + static_cast<std::ptrdiff_t>(foldLowPass(y + 2, height)) * width;
        const T* r4 = src + static_cast<std::ptrdiff_t>(foldLowPass(y + 4, height)) * width;
        for (int x = 0; x < width; ++x)
            v[x] = static_cast<int>(r0[x]) + 4 * static_cast<int>(r1[x]) + 6 * static_cast<int>(r2[x]) +
                   4 * static_cast<int>(r3[x]) + static_cast<int>(r4[x]);
        for (int k = 1; k <= 4; ++k) {
            v[-k] = v[4 - k];
            v[width - 1 + k] = v[width - 5 + k];
        }
        T* out = dst + static_cast<std::ptrdiff_t>(o) * outWidth;
        // Output quad column j keeps source columns 4j and 4j + 1.
        for (int j = 0; j < pairs; ++j) {
            const int* c = v + 4 * j;
            out[2 * j] = static_cast<T>((c[-4] + 4 * c[-2] + 6 * c[0] + 4 * c[2] + c[4]) / 256);
            out[2 * j + 1] = static_cast<T>((c[-3] + 4 * c[-1] + 6 * c[1] + 4 * c[3] + c[5]) / 256);
        }
        if (outWidth & 1) {
            const int* c = v + 4 * pairs;
            out[outWidth - 1] = static_cast<T>((c[-4] + 4 * c[-2] + 6 * c[0] + 4 * c[2] + c[4]) / 256);
        }
    }
}

template <typename T>
void downSampleKeptRowsBaseline(const T* src, T* dst, int height, int width, int outWidth, int rowStart, int rowEnd) {
    downSampleKeptRowsBody<T>(src, dst, height, width, outWidth, rowStart, rowEnd);
}

template <typename T>
KEP_TARGET_AVX2 void downSampleKeptRowsAvx2(const T* src, T* dst, int height, int width, int outWidth, int rowStart,
                                            int rowEnd) {
    downSampleKeptRowsBody<T>(src, dst, height, width, outWidth, rowStart, rowEnd);
}

template <typename T>
KEP_TARGET_AVX512 void downSampleKeptRowsAvx512(const T* src, T* dst, int height, int width, int outWidth,
                                                int rowStart, int rowEnd) {
    downSampleKeptRowsBody<T>(src, dst, height, width, outWidth, rowStart, rowEnd);
}

template <typename T>
void downSampleKeptRows(const T* src, T* dst, int height, int width, int outWidth, int rowStart, int rowEnd,
                        KernelIsa isa) {
    switch (isa) {
        case KernelIsa::Avx512: downSampleKeptRowsAvx512<T>(src, dst, height, width, outWidth, rowStart, rowEnd); break;
        case KernelIsa::Avx2: downSampleKeptRowsAvx2<T>(src, dst, height, width, outWidth, rowStart, rowEnd); break;
        default: downSampleKeptRowsBaseline<T>(src, dst, height, width, outWidth, rowStart, rowEnd); break;
    }
}

template <typename T>
void downSampleKept(const T* src, T* dst, int height, int width, int outHeight, int outWidth, KernelIsa isa) {
    runOnFourStripes(outHeight, [&](int rowStart, int rowEnd) {
        downSampleKeptRows<T>(src, dst, height, width, outWidth, rowStart, rowEnd, isa);
    });
}

template void downSampleKeptRows<short>(const short*, short*, int, int, int, int, int, KernelIsa);
template void downSampleKeptRows<unsigned short>(const unsigned short*, unsigned short*, int, int, int, int, int,
                                                 KernelIsa);
template void downSampleKept<short>(const short*, short*, int, int, int, int, KernelIsa);
template void downSampleKept<unsigned short>(const unsigned short*, unsigned short*, int, int, int, int, KernelIsa);

// ---- separable up-sampling ----
//
// The zero-inserted image Z (H2 x W2) has data only in rows and columns congruent
// to 0 or 1 mod 4: virtual quad row I holds source quad row I (the repeated rows
// H2-2, H2-1 are virtual quad row h/2, a copy of source quad row h/2 - 1), and the
// same for columns. The border move of the filter (4 samples) keeps that pattern,
// and for H2, W2 >= 4 it is the same as clamping the virtual quad index to the
// valid range. The binomial kernel is an outer product, and every sum is an exact
// integer (at most 8 * 8 * 32768 = 2^21 in magnitude), so the 5x5 filter splits
// into a horizontal pass per data row and a vertical pass per output row, each
// skipping the zero taps:
//   output phase 0 (index 4J):   v[J-1] + 6 v[J] + v[J+1]
//   output phase 1 (index 4J+1): the same on the odd sites
//   output phase 2 (index 4J+2): 4 v[J] + 4 v[J+1]
//   output phase 3 (index 4J+3): the same on the odd sites
// with v[] the virtual quads' samples of the matching site, clamped at both ends.
// The double quotient by 256 of the definition is exact, so its truncation is the
// integer division.

bool separableUpSampleApplies(const short* src, const short* dst, int height, int width, std::ptrdiff_t srcStride,
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

namespace {

KEP_KERNEL_BODY void verticalRowBody(const int* a, const int* b, const int* c, short* out, int n, bool centre) {
    if (centre)
        for (int x = 0; x < n; ++x) out[x] = static_cast<short>((a[x] + 6 * b[x] + c[x]) / 256);
    else
        for (int x = 0; x < n; ++x) out[x] = static_cast<short>((4 * b[x] + 4 * c[x]) / 256);
}

KEP_ROW_KERNEL(verticalRow, (const int* a, const int* b, const int* c, short* out, int n, bool centre),
               (a, b, c, out, n, centre))

// Horizontal pass over the quad columns of one source row, a[] and b[] holding the
// even and odd sites times four with one clamped quad on each side.
KEP_KERNEL_BODY void horizontalRowBody(const short* a, const short* b, int* out, int quadCols) {
    for (int J = 0; J < quadCols; ++J) {
        out[4 * J + 0] = a[J] + 6 * a[J + 1] + a[J + 2];
        out[4 * J + 1] = b[J] + 6 * b[J + 1] + b[J + 2];
        out[4 * J + 2] = 4 * a[J + 1] + 4 * a[J + 2];
        out[4 * J + 3] = 4 * b[J + 1] + 4 * b[J + 2];
    }
}

KEP_ROW_KERNEL(horizontalRow, (const short* a, const short* b, int* out, int quadCols), (a, b, out, quadCols))

}  // namespace

UpSampledRows::UpSampledRows(const short* src, int height, int width, std::ptrdiff_t srcStrideBytes, int extraRows,
                             int extraCols, KernelIsa isa)
    : src_(src),
      height_(height),
      width_(width),
      srcStride_(srcStrideBytes),
      quadRows_(height / 2 + (extraRows != 0 ? 1 : 0)),
      quadCols_(width / 2 + (extraCols != 0 ? 1 : 0)),
      rowLen_(4 * quadCols_),
      outRows_(2 * height + extraRows),
      outCols_(2 * width + extraCols),
      evenSites_(quadCols_ + 2),
      oddSites_(quadCols_ + 2),
      ring_(static_cast<std::size_t>(kSlots) * 2 * rowLen_),
      isa_(isa) {
    for (int s = 0; s < kSlots; ++s) slotQuad_[s] = -1;
}

void UpSampledRows::row(int y, short* out) {
    const int quad = y >> 2;
    const int phase = y & 3;
    const int site = phase & 1;
    const int* prev[2];
    const int* cur[2];
    const int* next[2];
    filteredQuadRow(quad - 1, prev);
    filteredQuadRow(quad, cur);
    filteredQuadRow(quad + 1, next);
    verticalRow(isa_, prev[site], cur[site], next[site], out, outCols_, phase < 2);
}

int UpSampledRows::sourceRow(int quad, int site) const {
    return quad < height_ / 2 ? 2 * quad + site : height_ - 2 + site;  // repeated last quad row
}

// Horizontally filtered even and odd rows of virtual quad row `quad` (clamped). The
// three slots hold three consecutive quads, so the rows of quad - 1, quad and
// quad + 1 never evict each other.
void UpSampledRows::filteredQuadRow(int quad, const int* rows[2]) {
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

void UpSampledRows::horizontal(const short* in, int* out) {
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
    horizontalRow(isa_, a, b, out, quadCols_);
}

}  // namespace pyramid_rows

namespace {

// Level i (h x w, even sides) minus the up-sampled level i+1, then the detail gains,
// over quad rows [quadStart, quadEnd). Identical to the whole-level steps: the
// difference is per sample and the gains per quad.
void laplacianQuadRows(short* level, int h, int w, const short* next, int hn, int wn, int levelIndex, float gain0,
                       float gain1, int gainMaxLevel, int quadStart, int quadEnd, KernelIsa isa) {
    if (quadEnd <= quadStart) return;
    pyramid_rows::UpSampledRows up(next, hn, wn, 2 * static_cast<std::ptrdiff_t>(wn), h - 2 * hn, w - 2 * wn, isa);
    std::vector<short> upRow(static_cast<std::size_t>(w));
    for (int q = quadStart; q < quadEnd; ++q) {
        for (int r = 2 * q; r < 2 * q + 2; ++r) {
            up.row(r, upRow.data());
            short* row = level + static_cast<std::size_t>(r) * w;
            for (int x = 0; x < w; ++x) row[x] = static_cast<short>(row[x] - upRow[x]);
        }
        applyDetailGains(level + static_cast<std::size_t>(2 * q) * w, 2, w, levelIndex, gain0, gain1, gainMaxLevel);
    }
}

// Laplacian step of one level on four workers (bands of quad rows): level (h x w)
// minus the up-sampled next level (hn x wn), then the detail gains of level
// `levelIndex`. Applies when fusedLaplacianLevelApplies holds.
bool fusedLaplacianLevelApplies(const short* level, int h, int w, const short* next, int hn, int wn) {
    return h % 2 == 0 && w % 2 == 0 &&
           pyramid_rows::separableUpSampleApplies(next, level, hn, wn, 2 * static_cast<std::ptrdiff_t>(wn),
                                                  2 * static_cast<std::ptrdiff_t>(w), h - 2 * hn, w - 2 * wn);
}

void laplacianLevel(short* level, int h, int w, const short* next, int hn, int wn, int levelIndex, float gain0,
                    float gain1, int gainMaxLevel) {
    const KernelIsa isa = bestKernelIsa();
    runOnFourStripes(h / 2, [&](int quadStart, int quadEnd) {
        laplacianQuadRows(level, h, w, next, hn, wn, levelIndex, gain0, gain1, gainMaxLevel, quadStart, quadEnd, isa);
    });
}

}  // namespace

void imageDownSamplePlain(short* src, short* dst, int height, int width, int outHeight, int outWidth) {
    downSample<short>(src, dst, height, width, outHeight, outWidth, lowPassFilteringForBayer_short);
}

void imageDownSamplePlain(unsigned short* src, unsigned short* dst, int height, int width, int outHeight,
                          int outWidth) {
    downSample<unsigned short>(src, dst, height, width, outHeight, outWidth, lowPassFilteringForBayer_ushort);
}

void imageDownSample_short(short* src, short* dst, int height, int width, int outHeight, int outWidth, int) {
    if (kUseFastPaths && pyramid_rows::keptQuadDownSampleApplies(height, width, outHeight, outWidth))
        pyramid_rows::downSampleKept<short>(src, dst, height, width, outHeight, outWidth, bestKernelIsa());
    else
        imageDownSamplePlain(src, dst, height, width, outHeight, outWidth);
}

void imageDownSample_ushort(unsigned short* src, unsigned short* dst, int height, int width, int outHeight,
                            int outWidth, int) {
    if (kUseFastPaths && pyramid_rows::keptQuadDownSampleApplies(height, width, outHeight, outWidth))
        pyramid_rows::downSampleKept<unsigned short>(src, dst, height, width, outHeight, outWidth, bestKernelIsa());
    else
        imageDownSamplePlain(src, dst, height, width, outHeight, outWidth);
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
                for (int dc = 0; dc < 2 && 2 * c + dc < outCols; ++dc)
                    at(2 * r + dr, 2 * c + dc) = timesFour(in[c + dc]);
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
    if (kUseFastPaths &&
        pyramid_rows::separableUpSampleApplies(src, dst, height, width, srcStride, dstStride, extraRows, extraCols)) {
        pyramid_rows::UpSampledRows up(src, height, width, srcStride, extraRows, extraCols, bestKernelIsa());
        for (int y = 0; y < up.rows(); ++y) up.row(y, rowAt(dst, dstStride, y));
        return;
    }
    imageUpSampleReference(src, dst, height, width, srcStrideBytes, dstStrideBytes, remainder);
}

void applyDetailGains(short* image, int height, int width, int level, float gain0, float gain1, int gainMaxLevel) {
    auto scaled = [](short v, float gain) { return static_cast<short>(truncToInt(static_cast<float>(v) * gain)); };
    // A gain of exactly 1 leaves every 16-bit sample as it is (the float product is
    // the sample itself), so the fast path skips those multiplications.
    const bool skipUnitGains = kUseFastPaths;
    if (level == 0) {
        if (skipUnitGains && gain0 == 1.0f) return;
        const std::size_t n = static_cast<std::size_t>(height) * width;
        for (std::size_t k = 0; k < n; ++k) image[k] = scaled(image[k], gain0);
        return;
    }
    if (level != 1 && level > gainMaxLevel) return;
    if (skipUnitGains && level != 1 && gain1 == 1.0f) return;
    const float strongGain = gain1 * 0.9f;
    const bool skipWeakTier = skipUnitGains && gain1 == 1.0f;
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
                else if (m <= -21 && !skipWeakTier)
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

namespace {

// Plain Laplacian step of one level: up-sample the next level into a scratch
// image, subtract it, apply the detail gains.
void laplacianLevelPlain(short* level, int h, int w, short* next, int hn, int wn, int i, float gain0, float gain1,
                         int gainMaxLevel) {
    const std::size_t n = static_cast<std::size_t>(h) * w;
    std::unique_ptr<short[]> up(new short[n]());
    int remainder[2] = {h - 2 * hn, w - 2 * wn};
    imageUpSample(next, up.get(), hn, wn, 2 * wn, 2 * w, remainder, i);
    for (std::size_t k = 0; k < n; ++k) level[k] = static_cast<short>(level[k] - up[k]);
    applyDetailGains(level, h, w, i, gain0, gain1, gainMaxLevel);
}

// Down-samples every level into the next, keeps the shallow residual, and turns
// each level into its band-pass level; `fused` lets levels the banded step covers
// skip the up-sampled scratch image (a band of quad rows at a time on four
// workers, straight from the separable up-sampler).
void buildLaplacian(std::vector<short*>* pyramid, short* shallowResidual, int width, int height, int levelCount,
                    int shallowLevelCount, float gain0, float gain1, int gainMaxLevel, bool fused) {
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
        if (fused && fusedLaplacianLevelApplies(level, h, w, next, hn, wn))
            laplacianLevel(level, h, w, next, hn, wn, i, gain0, gain1, gainMaxLevel);
        else
            laplacianLevelPlain(level, h, w, next, hn, wn, i, gain0, gain1, gainMaxLevel);
        h = hn;
        w = wn;
    }
}

}  // namespace

void laplacianPyramidPlain(std::vector<short*>* pyramid, short* shallowResidual, int width, int height,
                           int levelCount, int shallowLevelCount, float gain0, float gain1, int gainMaxLevel) {
    buildLaplacian(pyramid, shallowResidual, width, height, levelCount, shallowLevelCount, gain0, gain1, gainMaxLevel,
                   false);
}

void laplacianPyramid(short*, std::vector<short*>* pyramid, short* shallowResidual, int width, int height,
                      int levelCount, int shallowLevelCount, float gain0, float gain1, int gainMaxLevel) {
    buildLaplacian(pyramid, shallowResidual, width, height, levelCount, shallowLevelCount, gain0, gain1, gainMaxLevel,
                   kUseFastPaths);
}

void reconstructCalculation(short* a, short* b, short* out, int rowStart, int rowEnd, int colStart, int colEnd,
                            int stride, int) {
    for (int r = rowStart; r < rowEnd; ++r) {
        const std::size_t base = static_cast<std::size_t>(r) * stride;
        for (int c = colStart; c < colEnd; ++c) out[base + c] = static_cast<short>(a[base + c] + b[base + c]);
    }
}

namespace {

// Twice the white level on purpose: the tone stages compress the overshoot.
inline short clampCollapsed(short v, long long upper) {
    long long x = v;
    if (x < 0) x = 0;
    if (x > upper) x = upper;
    return static_cast<short>(x);
}

// One collapse step by definition: the up-sampled coarser level in a scratch image,
// the sum on four row stripes, then the clamp of level 0.
void collapseStepPlain(short* level, int h, int w, short* next, int hn, int wn, int i, int whiteLevel) {
    const std::size_t n = static_cast<std::size_t>(h) * w;
    std::unique_ptr<short[]> up(new short[n]());
    int remainder[2] = {h - 2 * hn, w - 2 * wn};
    imageUpSample(next, up.get(), hn, wn, 2 * wn, 2 * w, remainder, i + 1);
    short* upSampled = up.get();
    runOnFourStripes(h, [&](int rowStart, int rowEnd) {
        reconstructCalculation(level, upSampled, level, rowStart, rowEnd, 0, w, w, whiteLevel);
    });
    if (i == 0) {
        const long long upper = 2LL * whiteLevel;
        for (std::size_t k = 0; k < n; ++k) level[k] = clampCollapsed(level[k], upper);
    }
}

// Rows [rowStart, rowEnd) of one collapse step straight from the separable
// up-sampler (no scratch image), the clamp of level 0 in the same pass.
void collapseRows(short* level, int w, const short* next, int hn, int wn, int extraRows, int extraCols, bool clamp,
                  int whiteLevel, int rowStart, int rowEnd, KernelIsa isa) {
    if (rowEnd <= rowStart) return;
    pyramid_rows::UpSampledRows up(next, hn, wn, 2 * static_cast<std::ptrdiff_t>(wn), extraRows, extraCols, isa);
    std::vector<short> upRow(static_cast<std::size_t>(w));
    const long long upper = 2LL * whiteLevel;
    for (int r = rowStart; r < rowEnd; ++r) {
        up.row(r, upRow.data());
        short* row = level + static_cast<std::size_t>(r) * w;
        for (int x = 0; x < w; ++x) row[x] = static_cast<short>(row[x] + upRow[x]);
        if (clamp)
            for (int x = 0; x < w; ++x) row[x] = clampCollapsed(row[x], upper);
    }
}

}  // namespace

void reconstructLaplacianPyramidPlain(std::vector<short*>* pyramid, std::vector<int*>* levelSizes, int levelCount,
                                      int whiteLevel) {
    for (int i = levelCount - 2; i >= 0; --i)
        collapseStepPlain((*pyramid)[i], (*levelSizes)[i][0], (*levelSizes)[i][1], (*pyramid)[i + 1],
                          (*levelSizes)[i + 1][0], (*levelSizes)[i + 1][1], i, whiteLevel);
}

void reconstructLaplacianPyramid(std::vector<short*>* pyramid, std::vector<int*>* levelSizes, int levelCount,
                                 int whiteLevel) {
    if (!kUseFastPaths) {
        reconstructLaplacianPyramidPlain(pyramid, levelSizes, levelCount, whiteLevel);
        return;
    }
    const KernelIsa isa = bestKernelIsa();
    for (int i = levelCount - 2; i >= 0; --i) {
        const int h = (*levelSizes)[i][0];
        const int w = (*levelSizes)[i][1];
        const int hn = (*levelSizes)[i + 1][0];
        const int wn = (*levelSizes)[i + 1][1];
        short* level = (*pyramid)[i];
        short* next = (*pyramid)[i + 1];
        if (pyramid_rows::separableUpSampleApplies(next, level, hn, wn, 2 * static_cast<std::ptrdiff_t>(wn),
                                                   2 * static_cast<std::ptrdiff_t>(w), h - 2 * hn, w - 2 * wn)) {
            runOnFourStripes(h, [&](int rowStart, int rowEnd) {
                collapseRows(level, w, next, hn, wn, h - 2 * hn, w - 2 * wn, i == 0, whiteLevel, rowStart, rowEnd,
                             isa);
            });
        } else {
            collapseStepPlain(level, h, w, next, hn, wn, i, whiteLevel);
        }
    }
}

#include "hdr/tone_ops.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "hdr/tone_rows.h"
#include "imgcore/fast_paths.h"
#include "imgcore/saturate.h"

namespace {

using namespace tone_rows;

// One row of quads: even columns get gainEven, odd columns gainOdd. A trailing odd
// column is scaled on its own.
template <bool Checked>
void scaleRow(const short* src, short* dst, int width, float gainEven, float gainOdd, float white) {
    if (kUseFastPaths && src == dst) {
        // In place through one pointer: the pair loop vectorises without the
        // run-time overlap test that sends a two-pointer in-place call to the scalar
        // loop.
        short* row = dst;
        const int pairs = width / 2;
        for (int j = 0; j < pairs; ++j) {
            row[2 * j] = scaleAndClamp<Checked>(row[2 * j], gainEven, white);
            row[2 * j + 1] = scaleAndClamp<Checked>(row[2 * j + 1], gainOdd, white);
        }
        if (width % 2 != 0) row[width - 1] = scaleAndClamp<Checked>(row[width - 1], gainEven, white);
        return;
    }
    int c = 0;
    for (; c + 1 < width; c += 2) {
        dst[c] = scaleAndClamp<Checked>(src[c], gainEven, white);
        dst[c + 1] = scaleAndClamp<Checked>(src[c + 1], gainOdd, white);
    }
    if (c < width) dst[c] = scaleAndClamp<Checked>(src[c], gainEven, white);
}

template <bool Checked>
void whiteBalanceRows(const short* src, short* dst, int rowStart, int rowEnd, const float gains[4], int width,
                      float white) {
    for (int r = rowStart; r < rowEnd; r += 2) {
        const std::ptrdiff_t even = static_cast<std::ptrdiff_t>(r) * width;
        const std::ptrdiff_t odd = even + width;
        scaleRow<Checked>(src + even, dst + even, width, gains[0], gains[1], white);
        scaleRow<Checked>(src + odd, dst + odd, width, gains[2], gains[3], white);
    }
}


// Scale factor of a quad whose mean, limited to `top`, is qc: above the knee the mean
// is mapped linearly from (knee, top] onto (knee, whiteLevel]. The differences are
// taken in 64 bits so that extreme knees cannot overflow; for every int result they
// equal the 32-bit differences.
float compressionRatio(int qc, int knee, int top, int whiteLevel) {
    int t = qc;
    if (qc > knee) {
        t = truncToInt(static_cast<double>(static_cast<long long>(whiteLevel) - knee) *
                           static_cast<double>(static_cast<long long>(qc) - knee) /
                           static_cast<double>(static_cast<long long>(top) - knee) +
                       static_cast<double>(knee));
    }
    return static_cast<float>(static_cast<double>(t) / (static_cast<double>(qc) + 1e-12));
}

template <bool Checked>
void compressQuads(const short* src, short* dst, int width, int quadRows, int quadCols, int top,
                   const std::vector<float>& ratios, int lowest, float white) {
    for (int qy = 0; qy < quadRows; ++qy) {
        const std::ptrdiff_t row = static_cast<std::ptrdiff_t>(2 * qy) * width;
        const short* s0 = src + row;
        const short* s1 = s0 + width;
        short* d0 = dst + row;
        short* d1 = d0 + width;
        for (int c = 0; c < 2 * quadCols; c += 2) {
            const float ratio = ratios[std::min(quadMean(s0, s1, c), top) - lowest];
            // Read all four samples before writing: dst may be src.
            const short a = s0[c], b = s0[c + 1], e = s1[c], f = s1[c + 1];
            d0[c] = scaleAndClamp<Checked>(a, ratio, white);
            d0[c + 1] = scaleAndClamp<Checked>(b, ratio, white);
            d1[c] = scaleAndClamp<Checked>(e, ratio, white);
            d1[c + 1] = scaleAndClamp<Checked>(f, ratio, white);
        }
    }
}

// Green factor of a quad from its green mean relative to the white level: 0.96 in the
// dark, 1.0 in the bright, a linear ramp between 0.2 and 0.3 (comparisons and ramp in
// double precision).
float greenFactor(int g1, int g2, int whiteLevel) {
    const float g = static_cast<float>(static_cast<double>(g1 + g2) * 0.5) / static_cast<float>(whiteLevel);
    const double gd = g;
    if (gd < 0.2) return 0.96f;
    if (gd > 0.3) return 1.0f;
    return static_cast<float>(gd * 0.4 + 0.88);
}

// f * sample rounded half up. f is 0.96..1.0 except for a NaN green mean (0 / 0 with a
// zero white level), which the saturating conversion turns into 0.
inline short attenuate(short sample, float f) {
    return static_cast<short>(truncToInt(static_cast<double>(f * static_cast<float>(sample)) + 0.5));
}

}  // namespace

void whiteBalance(short* src, short* dst, int rowStart, int rowEnd, float redGain, float blueGain, int width,
                  int whiteLevel, int bayerPattern) {
    float gains[4];  // unknown codes (negative ones too) write zeros
    whiteBalanceGains(redGain, blueGain, bayerPattern, gains);
    if (rowStart >= rowEnd || width <= 0) return;
    const float white = static_cast<float>(whiteLevel);
    if (scaleIsSafe(redGain) && scaleIsSafe(blueGain))
        whiteBalanceRows<false>(src, dst, rowStart, rowEnd, gains, width, white);
    else
        whiteBalanceRows<true>(src, dst, rowStart, rowEnd, gains, width, white);
}

void createGammaTbl(short* table, int whiteLevel, float gamma) {
    const float white = static_cast<float>(whiteLevel);
    for (int i = 0; i <= whiteLevel; ++i)
        table[i] = static_cast<short>(truncToInt(powf(static_cast<float>(i) / white, gamma) * white));
}

namespace tone_detail {

namespace {

KEP_KERNEL_BODY void quadMeanRangeRowsBody(const short* src, int width, int quadRowStart, int quadRowEnd,
                                           int* brightest, int* darkest) {
    const int quadCols = width / 2;
    int high = *brightest, low = *darkest;  // local reductions vectorise
    for (int qy = quadRowStart; qy < quadRowEnd; ++qy) {
        const short* s0 = src + static_cast<std::ptrdiff_t>(2 * qy) * width;
        const short* s1 = s0 + width;
        for (int j = 0; j < quadCols; ++j) {
            const int q = quadMean(s0, s1, 2 * j);
            high = std::max(high, q);
            low = std::min(low, q);
        }
    }
    *brightest = high;
    *darkest = low;
}

KEP_ROW_KERNEL(quadMeanRangeRows,
               (const short* src, int width, int quadRowStart, int quadRowEnd, int* brightest, int* darkest),
               (src, width, quadRowStart, quadRowEnd, brightest, darkest))

}  // namespace

void quadMeanRange(const short* src, int width, int quadRowStart, int quadRowEnd, int* brightest, int* darkest,
                   KernelIsa isa) {
    quadMeanRangeRows(isa, src, width, quadRowStart, quadRowEnd, brightest, darkest);
}

RangeCompressionTable::RangeCompressionTable(int brightest, int darkest, int whiteLevel, float rangeCompressionBlend,
                                             float rangeCompressionRatio)
    : white_(static_cast<float>(whiteLevel)) {
    const float white = white_;
    const int knee = truncToInt(white * rangeCompressionRatio);
    top_ = truncToInt((1.0f - rangeCompressionBlend) * white + static_cast<float>(brightest) * rangeCompressionBlend);
    // The factor depends on the limited mean only: tabulate it over the limited means
    // that occur. Means lie in [-32768, 32767], so the table has at most 65536 entries.
    lowest_ = std::min(darkest, top_);
    const int highest = std::min(brightest, top_);
    ratios_.resize(static_cast<std::size_t>(std::max(static_cast<long long>(highest) - lowest_ + 1, 0LL)));
    safe_ = true;
    for (std::size_t i = 0; i < ratios_.size(); ++i) {
        ratios_[i] = compressionRatio(lowest_ + static_cast<int>(i), knee, top_, whiteLevel);
        safe_ = safe_ && scaleIsSafe(ratios_[i]);
    }
}

namespace {

// Fast row form of the compression in place, every factor safe: the quad means of a
// quad row first, then the factors from the table, then the scaling through one
// pointer per row; each loop vectorises. Same arithmetic per sample.
KEP_KERNEL_BODY void compressRowsBody(short* image, int width, int quadRowStart, int quadRowEnd, int top, int lowest,
                                      const float* ratios, float white, int* index, float* factor) {
    const int quads = width / 2;
    for (int qy = quadRowStart; qy < quadRowEnd; ++qy) {
        short* r0 = image + static_cast<std::ptrdiff_t>(2 * qy) * width;
        short* r1 = r0 + width;
        for (int j = 0; j < quads; ++j) index[j] = std::min(quadMean(r0, r1, 2 * j), top) - lowest;
        lookUp(ratios, index, factor, quads);
        for (short* row : {r0, r1})
            for (int j = 0; j < quads; ++j) {
                row[2 * j] = scaleAndClamp<false>(row[2 * j], factor[j], white);
                row[2 * j + 1] = scaleAndClamp<false>(row[2 * j + 1], factor[j], white);
            }
    }
}

KEP_ROW_KERNEL(compressRows,
               (short* image, int width, int quadRowStart, int quadRowEnd, int top, int lowest, const float* ratios,
                float white, int* index, float* factor),
               (image, width, quadRowStart, quadRowEnd, top, lowest, ratios, white, index, factor))

}  // namespace

void RangeCompressionTable::compressQuadRows(const short* src, short* dst, int width, int quadRowStart,
                                             int quadRowEnd, KernelIsa isa) const {
    if (quadRowEnd <= quadRowStart) return;
    if (src == dst && safe_ && !ratios_.empty()) {
        std::vector<int> index(static_cast<std::size_t>(width / 2));
        std::vector<float> factor(index.size());
        compressRows(isa, dst, width, quadRowStart, quadRowEnd, top_, lowest_, ratios_.data(), white_, index.data(),
                     factor.data());
        return;
    }
    const std::ptrdiff_t offset = static_cast<std::ptrdiff_t>(2 * quadRowStart) * width;
    if (safe_)
        compressQuads<false>(src + offset, dst + offset, width, quadRowEnd - quadRowStart, width / 2, top_, ratios_,
                             lowest_, white_);
    else
        compressQuads<true>(src + offset, dst + offset, width, quadRowEnd - quadRowStart, width / 2, top_, ratios_,
                            lowest_, white_);
}

void dataRangeCompressionPlain(const short* src, short* dst, int width, int height, int whiteLevel,
                               float rangeCompressionBlend, float rangeCompressionRatio) {
    if (height < 1 || width < 1) return;
    const int quadRows = height / 2, quadCols = width / 2;
    int brightest = 0;
    for (int qy = 0; qy < quadRows; ++qy)
        for (int c = 0; c < 2 * quadCols; c += 2) {
            const short* s0 = src + static_cast<std::ptrdiff_t>(2 * qy) * width;
            brightest = std::max(brightest, quadMean(s0, s0 + width, c));
        }
    const float white = static_cast<float>(whiteLevel);
    const int knee = truncToInt(white * rangeCompressionRatio);
    const int top =
        truncToInt((1.0f - rangeCompressionBlend) * white + static_cast<float>(brightest) * rangeCompressionBlend);
    for (int qy = 0; qy < quadRows; ++qy) {
        const short* s0 = src + static_cast<std::ptrdiff_t>(2 * qy) * width;
        const short* s1 = s0 + width;
        short* d0 = dst + static_cast<std::ptrdiff_t>(2 * qy) * width;
        short* d1 = d0 + width;
        for (int c = 0; c < 2 * quadCols; c += 2) {
            const float ratio = compressionRatio(std::min(quadMean(s0, s1, c), top), knee, top, whiteLevel);
            const short a = s0[c], b = s0[c + 1], e = s1[c], f = s1[c + 1];
            d0[c] = scaleAndClamp<true>(a, ratio, white);
            d0[c + 1] = scaleAndClamp<true>(b, ratio, white);
            d1[c] = scaleAndClamp<true>(e, ratio, white);
            d1[c + 1] = scaleAndClamp<true>(f, ratio, white);
        }
    }
}

}  // namespace tone_detail

void dataRangeCompression(const short* src, short* dst, int width, int height, int whiteLevel,
                          float rangeCompressionBlend, float rangeCompressionRatio) {
    if (!kUseFastPaths) {
        tone_detail::dataRangeCompressionPlain(src, dst, width, height, whiteLevel, rangeCompressionBlend,
                                               rangeCompressionRatio);
        return;
    }
    if (height < 1 || width < 1) return;
    const int quadRows = height / 2, quadCols = width / 2;
    if (quadRows == 0 || quadCols == 0) return;
    int brightest = 0, darkest = INT_MAX;
    const KernelIsa isa = bestKernelIsa();
    tone_detail::quadMeanRange(src, width, 0, quadRows, &brightest, &darkest, isa);
    const tone_detail::RangeCompressionTable table(brightest, darkest, whiteLevel, rangeCompressionBlend,
                                                   rangeCompressionRatio);
    table.compressQuadRows(src, dst, width, 0, quadRows, isa);
}

void alphaFusion(short* a, short* b, short* dst, int rowStart, int rowEnd, int width, float weightA,
                 float weightB) {
    if (rowStart >= rowEnd || width <= 0) return;
    const std::ptrdiff_t begin = static_cast<std::ptrdiff_t>(rowStart) * width;
    const std::ptrdiff_t end = static_cast<std::ptrdiff_t>(rowEnd) * width;
    if (scaleIsSafe(weightA) && scaleIsSafe(weightB) && std::fabs(weightA) + std::fabs(weightB) <= kSafeScale) {
        // |result| <= 32768 * (|weightA| + |weightB|) <= 2^30: the plain cast is in range.
        for (std::ptrdiff_t i = begin; i < end; ++i)
            dst[i] = static_cast<short>(
                static_cast<int>(static_cast<float>(a[i]) * weightA + static_cast<float>(b[i]) * weightB));
    } else {
        for (std::ptrdiff_t i = begin; i < end; ++i)
            dst[i] = static_cast<short>(
                truncToInt(static_cast<float>(a[i]) * weightA + static_cast<float>(b[i]) * weightB));
    }
}

void greenAttenuation(short* src, short* dst, int width, int height, int whiteLevel, int bayerPattern) {
    int firstCol, secondCol;  // columns of the greens on the quad's top and bottom row
    greenColumns(bayerPattern, &firstCol, &secondCol);
    const int quadRows = height / 2, quadCols = width / 2;
    if (kUseFastPaths && src == dst && whiteLevel > 0) {
        const GreenBounds bounds;
        for (int qy = 0; qy < quadRows; ++qy)
            attenuateGreensInPlace(dst + static_cast<std::ptrdiff_t>(2 * qy) * width, width, firstCol, secondCol,
                                   static_cast<float>(whiteLevel), bounds);
        return;
    }
    for (int qy = 0; qy < quadRows; ++qy) {
        const std::ptrdiff_t row = static_cast<std::ptrdiff_t>(2 * qy) * width;
        const short* s0 = src + row;
        const short* s1 = s0 + width;
        short* d0 = dst + row;
        short* d1 = d0 + width;
        for (int c = 0; c < 2 * quadCols; c += 2) {
            const short g1 = s0[c + firstCol], g2 = s1[c + secondCol];
            const float f = greenFactor(g1, g2, whiteLevel);
            d0[c + firstCol] = attenuate(g1, f);
            d1[c + secondCol] = attenuate(g2, f);
        }
    }
}

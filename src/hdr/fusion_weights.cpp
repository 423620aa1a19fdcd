#include "hdr/fusion_weights.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "hdr/bayer_filter.h"
#include "hdr/tone_rows.h"
#include "imgcore/fast_paths.h"
#include "imgcore/row_stripes.h"
#include "imgcore/simd_dispatch.h"
#include "imgcore/saturate.h"

namespace fusion_detail {

const int binomialKernel5x5[5][5] = {
    {1, 4, 6, 4, 1}, {4, 16, 24, 16, 4}, {6, 24, 36, 24, 6}, {4, 16, 24, 16, 4}, {1, 4, 6, 4, 1},
};

}  // namespace fusion_detail

namespace {

// Rounds to the nearest integer, halves away from zero, for |x| < 2^31. Written
// without roundf or float comparisons so that the loops around it vectorise
// under strict IEEE semantics: frac = x - trunc(x) is exact for every float and
// lies in (-1, 1) with the sign of x, and trunc(2 * frac) (doubling is exact) is
// +1 for frac >= 0.5, -1 for frac <= -0.5 and 0 otherwise.
inline int roundHalfAwayInRange(float x) {
    const int i = static_cast<int>(x);
    const float frac = x - static_cast<float>(i);
    return i + static_cast<int>(frac + frac);
}

// Rounding of the plain definitions: nearest integer, halves away from zero; NaN
// gives 0 and values beyond the int range saturate.
inline int roundHalfAway(float x) { return truncToInt(roundf(x)); }

// Stripe bounds of the smoothing step: cut from the extended height (q = (height
// + 4) / 4, first stripe starting at extended row 2) and kept inside the
// extended rows that hold image rows, [2, height + 2). For height >= 4 the clamp
// changes nothing; for smaller heights it stops a stripe from starting in the
// top border.
inline int weightSmoothingBound(int height, int k) {
    int q = (height + 4) / 4;
    int bound = k == 0 ? 2 : k == 4 ? height + 2 : k * q;
    return std::min(std::max(bound, 2), height + 2);
}

bool isBinomialSetup(const int (*kernel)[5], int radius, float norm) {
    if (radius != 2 || norm != 256.0f) return false;
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j < 5; ++j)
            if (kernel[i][j] != fusion_detail::binomialKernel5x5[i][j]) return false;
    return true;
}

// Binomial 5x5 smoothing as two exact integer passes. Every partial sum of the
// plain definition is an integer below 256 * 65535 < 2^24, so the single-precision
// accumulation there is exact and equals this integer sum; dividing an exact
// float by 256 and truncating is the arithmetic shift by 8.
void filterWeightRowsBinomial(const unsigned short* extended, unsigned short* dst, int rowStart, int rowEnd,
                              int colStart, int colEnd, int extendedStride, int dstWidth) {
    if (colEnd <= colStart) return;
    const int span = colEnd - colStart + 4;
    std::vector<int> column(static_cast<size_t>(span));
    int* col = column.data();
    for (int r = rowStart; r < rowEnd; ++r) {
        const unsigned short* r0 = extended + static_cast<ptrdiff_t>(r - 2) * extendedStride + (colStart - 2);
        const unsigned short* r1 = r0 + extendedStride;
        const unsigned short* r2 = r1 + extendedStride;
        const unsigned short* r3 = r2 + extendedStride;
        const unsigned short* r4 = r3 + extendedStride;
        for (int x = 0; x < span; ++x)
            col[x] = r0[x] + 4 * r1[x] + 6 * r2[x] + 4 * r3[x] + r4[x];
        unsigned short* out = dst + static_cast<ptrdiff_t>(r - 2) * dstWidth + (colStart - 2);
        const int count = colEnd - colStart;
        for (int x = 0; x < count; ++x) {
            int s = col[x] + 4 * col[x + 1] + 6 * col[x + 2] + 4 * col[x + 3] + col[x + 4];
            out[x] = static_cast<unsigned short>(s >> 8);
        }
    }
}

// The weight of a pixel is computed from whiteLevel, at most 65535 for the last
// frame's intensity and two curve values; with finite curves of bounded size
// and a positive white level every intermediate value and the rounded weight
// stay far inside the int range, so the fast path may convert plainly.
bool curvesKeepWeightsInRange(const float* curveAtCenter, const float* curveAboveCenter, int whiteLevel) {
    if (whiteLevel <= 0) return false;
    double largest = 0.0;
    for (int i = 0; i <= whiteLevel; ++i) {
        const double a = std::fabs(static_cast<double>(curveAtCenter[i]));
        const double b = std::fabs(static_cast<double>(curveAboveCenter[i]));
        if (!(a <= 1.0e6) || !(b <= 1.0e6)) return false;  // also rejects NaN and inf
        largest = std::max(largest, std::max(a, b));
    }
    const double W = whiteLevel;
    const double term = (largest + 1.0) * 2.5 * 65535.0 / W + 2.5 + 1.5 * largest;  // bounds |A| and |B|
    return 2.0 * term * 255.0 * W < 1.0e9;
}

// wellExposedness in chunks: a scalar pass gathers the curve values and the
// dark test (as an integer threshold) into local arrays, a branch-free pass over
// those arrays computes the weights (it vectorises: no table lookups, no float
// comparisons, no aliasing with the caller's buffers), and the chunk is stored.
// The arithmetic is that of wellExposednessPlain, operation for operation, and
// every value is inside the int range (curvesKeepWeightsInRange), so the plain
// rounding equals the saturating one.
template <bool IsLast>
void wellExposednessChunked(const unsigned short* intensity, unsigned short* weight, ptrdiff_t begin, ptrdiff_t end,
                            int whiteLevel, const unsigned short* lastIntensity, const float* curveAtCenter,
                            const float* curveAboveCenter, const unsigned short* highlightMap) {
    constexpr int kChunk = 256;
    const float W = static_cast<float>(whiteLevel);
    const int darkWeight = IsLast ? whiteLevel : 0;
    const int maxIndex = whiteLevel;
    // 0.6f * W > L for an integer L exactly when L < ceil(0.6f * W).
    const int darkBelow = static_cast<int>(std::ceil(0.6f * W));
    float a[kChunk], b[kChunk], L[kChunk];
    int m[kChunk], dark[kChunk];
    unsigned short out[kChunk];
    for (ptrdiff_t p0 = begin; p0 < end; p0 += kChunk) {
        const int n = static_cast<int>(std::min<ptrdiff_t>(kChunk, end - p0));
        for (int j = 0; j < n; ++j) {
            const int last = lastIntensity[p0 + j];
            const int i = std::min(static_cast<int>(intensity[p0 + j]), maxIndex);
            a[j] = curveAtCenter[i];
            b[j] = curveAboveCenter[i];
            L[j] = static_cast<float>(last);
            m[j] = highlightMap[p0 + j] & 0xFF;
            dark[j] = -static_cast<int>(last < darkBelow);
        }
        for (int j = 0; j < n; ++j) {
            float A, B;
            if (IsLast) {
                A = ((a[j] - 1.0f) * 2.5f * L[j]) / W + 2.5f + a[j] * (-1.5f);
                B = ((b[j] - 1.0f) * 2.5f * L[j]) / W + 2.5f + b[j] * (-1.5f);
            } else {
                A = (a[j] * 2.5f * L[j]) / W + a[j] * (-1.5f);
                B = (b[j] * 2.5f * L[j]) / W + b[j] * (-1.5f);
            }
            const float v = A * static_cast<float>(255 - m[j]) * W + B * static_cast<float>(m[j]) * W;
            const int w = static_cast<int>(static_cast<uint32_t>(roundHalfAwayInRange(v)) >> 8);
            out[j] = static_cast<unsigned short>((w & ~dark[j]) | (darkWeight & dark[j]));
        }
        for (int j = 0; j < n; ++j) weight[p0 + j] = out[j];
    }
}

// Normalisation of one run of pixels, branch-free so that the loop vectorises
// under strict IEEE semantics: the quotient is always computed (by 1 where the sum
// is 0) and the even share is selected with a mask. With |s| >= 1 the quotient is
// at most 65535 * 1023 in magnitude, inside the int range, where
// roundHalfAwayInRange equals the rounding of the definition.
void normalizeRun(unsigned short* weight, const int* sum, ptrdiff_t count, unsigned short evenShare) {
    for (ptrdiff_t p = 0; p < count; ++p) {
        const int s = sum[p];
        const int zeroMask = -static_cast<int>(s == 0);
        const int divisor = s | (zeroMask & 1);
        const float share = (static_cast<float>(weight[p]) / static_cast<float>(divisor)) * 1023.0f;
        const int rounded = roundHalfAwayInRange(share);
        weight[p] = static_cast<unsigned short>((rounded & ~zeroMask) | (evenShare & zeroMask));
    }
}

unsigned short evenShareFor(int frameCount) {
    return static_cast<unsigned short>(truncToInt(floorf(1023.0f / static_cast<float>(frameCount))));
}

// ---- fused weights (fast path of calculateWeight) ----
//
// The plain order writes and re-reads full-size maps many times: the highlight map,
// its extended copy, every weight map, the weight sum, the normalised maps and their
// extended copies. Every value is a function of a small neighbourhood, so the fast
// path streams rows instead: the smoothed highlight map in one pass, then for each
// image row the weights of all frames, their sum and normalisation into rings of
// five rows, smoothed straight into the weight maps. Identical results: each value
// is computed by the same arithmetic from the same inputs.

// Source row or column that the weight smoothing reads for position s in
// [-2, n + 2) of a side of n >= 2: its border repeats the sample two positions
// inward (same Bayer site), which lies inside the image.
inline int foldWeightBorder(int s, int n) { return s < 0 ? s + 2 : (s >= n ? s - 2 : s); }

// One output row of the 5x5 binomial from its five input rows (already folded);
// `column` holds width + 4 ints. Exact integer sums below 2^24, see
// filterWeightRowsBinomial.
KEP_KERNEL_BODY void smoothRowBody(const unsigned short* const rows[5], unsigned short* out, int width, int* column) {
    int* v = column + 2;
    const unsigned short *r0 = rows[0], *r1 = rows[1], *r2 = rows[2], *r3 = rows[3], *r4 = rows[4];
    for (int x = 0; x < width; ++x) v[x] = r0[x] + 4 * r1[x] + 6 * r2[x] + 4 * r3[x] + r4[x];
    v[-2] = v[0];
    v[-1] = v[1];
    v[width] = v[width - 2];
    v[width + 1] = v[width - 1];
    for (int x = 0; x < width; ++x)
        out[x] = static_cast<unsigned short>((v[x - 2] + 4 * v[x - 1] + 6 * v[x] + 4 * v[x + 1] + v[x + 2]) >> 8);
}

// Five row buffers keyed by row index: the rows r-2 .. r+2 an output row needs
// (folded at the borders) are five consecutive indices at most, so they never
// share a slot.
class RowRing {
public:
    RowRing(int width, int planes) : width_(width), planes_(planes), rows_(static_cast<size_t>(5) * planes * width) {
        for (int& r : held_) r = -1;
    }
    bool holds(int row) const { return held_[row % 5] == row; }
    unsigned short* slot(int row, int plane) {
        return rows_.data() + (static_cast<size_t>(row % 5) * planes_ + plane) * width_;
    }
    void mark(int row) { held_[row % 5] = row; }

private:
    int width_;
    int planes_;
    std::vector<unsigned short> rows_;
    int held_[5];
};

struct WeightJob {
    const std::vector<unsigned short*>* intensities;
    const std::vector<unsigned short*>* weights;
    int width, height, frameCount, whiteLevel;
    const float* curveAtCenter;
    const float* curveAboveCenter;
    const unsigned short* highlight;  // smoothed
    KernelIsa isa;
};

// Scratch rows of one worker for normalizedRow.
struct RowScratch {
    std::vector<float> last, keepShare, moveShare, a, b;
    std::vector<int> dark, sum, index;
    std::vector<unsigned short> raw;
    RowScratch(int width, int frameCount)
        : last(width), keepShare(width), moveShare(width), a(width), b(width), dark(width), sum(width), index(width),
          raw(static_cast<size_t>(frameCount) * width) {}
};

// Unnormalised weights of one frame on one row: the arithmetic of
// wellExposednessChunked, with the per-pixel values every frame shares (the last
// frame's intensity, the highlight shares, the dark test) taken from `scratch`.
template <bool IsLast>
KEP_KERNEL_BODY void frameWeightRow(const unsigned short* intensity, unsigned short* out, int width, int whiteLevel,
                    const float* curveAtCenter, const float* curveAboveCenter, RowScratch& scratch) {
    const float W = static_cast<float>(whiteLevel);
    const int darkWeight = IsLast ? whiteLevel : 0;
    float* a = scratch.a.data();
    float* b = scratch.b.data();
    int* index = scratch.index.data();
    for (int x = 0; x < width; ++x) index[x] = std::min(static_cast<int>(intensity[x]), whiteLevel);
    tone_rows::lookUp(curveAtCenter, index, a, width);
    tone_rows::lookUp(curveAboveCenter, index, b, width);
    const float* L = scratch.last.data();
    const float* keep = scratch.keepShare.data();
    const float* move = scratch.moveShare.data();
    const int* dark = scratch.dark.data();
    for (int x = 0; x < width; ++x) {
        float A, B;
        if (IsLast) {
            A = ((a[x] - 1.0f) * 2.5f * L[x]) / W + 2.5f + a[x] * (-1.5f);
            B = ((b[x] - 1.0f) * 2.5f * L[x]) / W + 2.5f + b[x] * (-1.5f);
        } else {
            A = (a[x] * 2.5f * L[x]) / W + a[x] * (-1.5f);
            B = (b[x] * 2.5f * L[x]) / W + b[x] * (-1.5f);
        }
        const float v = A * keep[x] * W + B * move[x] * W;
        const int w = static_cast<int>(static_cast<uint32_t>(roundHalfAwayInRange(v)) >> 8);
        out[x] = static_cast<unsigned short>((w & ~dark[x]) | (darkWeight & dark[x]));
    }
}

// Normalisation of one run from `weight` into `out` (see normalizeRun).
KEP_KERNEL_BODY void normalizeRunInto(const unsigned short* weight, const int* sum, unsigned short* out, int count,
                      unsigned short evenShare) {
    for (int p = 0; p < count; ++p) {
        const int s = sum[p];
        const int zeroMask = -static_cast<int>(s == 0);
        const int divisor = s | (zeroMask & 1);
        const float share = (static_cast<float>(weight[p]) / static_cast<float>(divisor)) * 1023.0f;
        const int rounded = roundHalfAwayInRange(share);
        out[p] = static_cast<unsigned short>((rounded & ~zeroMask) | (evenShare & zeroMask));
    }
}

// Normalised (unsmoothed) weights of every frame on image row y, into out[k].
// Reads only row y of the intensities, the last frame's intensities and the
// highlight map.
KEP_KERNEL_BODY void normalizedRowBody(const WeightJob& job, int y, unsigned short* const* out,
                                       RowScratch& scratch) {
    const int width = job.width;
    const ptrdiff_t offset = static_cast<ptrdiff_t>(y) * width;
    const unsigned short* last = (*job.intensities)[job.frameCount - 1] + offset;
    const unsigned short* highlight = job.highlight + offset;
    // 0.6f * W > L for an integer L exactly when L < ceil(0.6f * W).
    const int darkBelow = static_cast<int>(std::ceil(0.6f * static_cast<float>(job.whiteLevel)));
    for (int x = 0; x < width; ++x) {
        const int m = highlight[x] & 0xFF;
        scratch.last[x] = static_cast<float>(last[x]);
        scratch.keepShare[x] = static_cast<float>(255 - m);
        scratch.moveShare[x] = static_cast<float>(m);
        scratch.dark[x] = -static_cast<int>(last[x] < darkBelow);
    }
    int* sum = scratch.sum.data();
    for (int x = 0; x < width; ++x) sum[x] = 0;
    for (int k = 0; k < job.frameCount; ++k) {
        unsigned short* w = scratch.raw.data() + static_cast<ptrdiff_t>(k) * width;
        const unsigned short* own = (*job.intensities)[k] + offset;
        if (k == job.frameCount - 1)
            frameWeightRow<true>(own, w, width, job.whiteLevel, job.curveAtCenter, job.curveAboveCenter, scratch);
        else
            frameWeightRow<false>(own, w, width, job.whiteLevel, job.curveAtCenter, job.curveAboveCenter, scratch);
        for (int x = 0; x < width; ++x) sum[x] += w[x];
    }
    const unsigned short evenShare = evenShareFor(job.frameCount);
    for (int k = 0; k < job.frameCount; ++k)
        normalizeRunInto(scratch.raw.data() + static_cast<ptrdiff_t>(k) * width, sum, out[k], width, evenShare);
}

KEP_ROW_KERNEL(normalizedRow, (const WeightJob& job, int y, unsigned short* const* out, RowScratch& scratch),
               (job, y, out, scratch))

KEP_ROW_KERNEL(smoothRow, (const unsigned short* const rows[5], unsigned short* out, int width, int* column),
               (rows, out, width, column))

// Output rows [rowStart, rowEnd) of the smoothed normalised weights, written in
// place over the intensities when the lists share buffers. Rows of the stripe are
// computed from the intensities before the stripe overwrites them (row r + 2 is
// read while output row r is produced); rows outside the stripe come from `halo`,
// computed by every worker before any worker writes.
void smoothedWeightRows(const WeightJob& job, int rowStart, int rowEnd, const std::vector<int>& haloRows,
                        std::vector<unsigned short>& halo) {
    if (rowEnd <= rowStart) return;
    const int width = job.width, n = job.frameCount;
    RowRing ring(width, n);
    RowScratch scratch(width, n);
    std::vector<int> column(static_cast<size_t>(width) + 4);
    std::vector<unsigned short*> planes(static_cast<size_t>(n));
    auto fetch = [&](int row) {
        if (ring.holds(row)) return;
        for (int k = 0; k < n; ++k) planes[k] = ring.slot(row, k);
        if (row >= rowStart && row < rowEnd) {
            normalizedRow(job.isa, job, row, planes.data(), scratch);
        } else {
            const size_t h = static_cast<size_t>(std::find(haloRows.begin(), haloRows.end(), row) - haloRows.begin());
            for (int k = 0; k < n; ++k) {
                const unsigned short* src = halo.data() + (h * n + k) * width;
                std::copy(src, src + width, planes[k]);
            }
        }
        ring.mark(row);
    };
    for (int r = rowStart; r < rowEnd; ++r) {
        int rows[5];
        for (int i = 0; i < 5; ++i) {
            rows[i] = foldWeightBorder(r - 2 + i, job.height);
            fetch(rows[i]);
        }
        for (int k = 0; k < n; ++k) {
            const unsigned short* in[5];
            for (int i = 0; i < 5; ++i) in[i] = ring.slot(rows[i], k);
            smoothRow(job.isa, in, (*job.weights)[k] + static_cast<ptrdiff_t>(r) * width, width, column.data());
        }
    }
}

// Rows outside [rowStart, rowEnd) that the stripe's smoothing reads.
std::vector<int> haloRowsOf(int rowStart, int rowEnd, int height) {
    std::vector<int> rows;
    if (rowEnd <= rowStart) return rows;
    for (int s = rowStart - 2; s < rowEnd + 2; ++s) {
        const int row = foldWeightBorder(s, height);
        if ((row < rowStart || row >= rowEnd) && std::find(rows.begin(), rows.end(), row) == rows.end())
            rows.push_back(row);
    }
    return rows;
}

// Bit pattern of the largest float whose double value is at most `bound`.
std::int32_t bitsOfLargestFloatNotAbove(double bound) {
    float f = static_cast<float>(bound);
    while (static_cast<double>(f) > bound) f = std::nextafter(f, -1.0f);
    while (static_cast<double>(std::nextafter(f, 2.0f)) <= bound) f = std::nextafter(f, 2.0f);
    std::int32_t bits;
    std::memcpy(&bits, &f, sizeof f);
    return bits;
}

// Highlight values of one row, branch-free: the operations of highlightValue with
// its branches turned into integer masks, so that the loop vectorises under strict
// IEEE semantics. x = a / whiteLevel is a non-negative float (a >= 0, whiteLevel >
// 0), so its comparisons with 0.7 and 0.8 are integer comparisons of its bit
// pattern with those of the largest floats not above the bounds. The ramp is
// computed everywhere; for whiteLevel >= 8 its magnitude stays below
// (65535 / 8) * 163830 < 2^31, so the conversion is defined even where it is not
// selected.
struct HighlightBounds {
    std::int32_t notAbove07 = bitsOfLargestFloatNotAbove(0.7);
    std::int32_t notAbove08 = bitsOfLargestFloatNotAbove(0.8);
};

KEP_KERNEL_BODY void highlightRowBody(const unsigned short* last, const unsigned short* previous, unsigned short* out,
                                      int width, float white, const HighlightBounds& bounds) {
    const std::int32_t notAbove07 = bounds.notAbove07, notAbove08 = bounds.notAbove08;
    for (int x = 0; x < width; ++x) {
        const int a = last[x], b = previous[x];
        const float fx = static_cast<float>(a) / white;
        std::int32_t bits;
        std::memcpy(&bits, &fx, sizeof fx);
        const int q = std::abs(a - b) / 4;
        const int ramp = static_cast<int>((static_cast<double>(fx) - 0.7) * static_cast<double>(q * 10));
        const int inRamp = -static_cast<int>(bits <= notAbove08);
        int value = (ramp & inRamp) | (q & ~inRamp);
        const int steep = -static_cast<int>(value >= 101);
        value = (std::min(3 * value - 200, 255) & steep) | (value & ~steep);
        const int dark = -static_cast<int>(bits <= notAbove07);
        out[x] = static_cast<unsigned short>(value & ~dark);
    }
}

KEP_ROW_KERNEL(highlightRow,
               (const unsigned short* last, const unsigned short* previous, unsigned short* out, int width, float white,
                const HighlightBounds& bounds),
               (last, previous, out, width, white, bounds))

void smoothedHighlightRows(const unsigned short* last, const unsigned short* previous, unsigned short* out, int width,
                           int height, int whiteLevel, int rowStart, int rowEnd, KernelIsa isa) {
    if (rowEnd <= rowStart) return;
    RowRing ring(width, 1);
    std::vector<int> column(static_cast<size_t>(width) + 4);
    for (int r = rowStart; r < rowEnd; ++r) {
        const unsigned short* in[5];
        for (int i = 0; i < 5; ++i) {
            const int row = foldWeightBorder(r - 2 + i, height);
            unsigned short* slot = ring.slot(row, 0);
            if (!ring.holds(row)) {
                const ptrdiff_t offset = static_cast<ptrdiff_t>(row) * width;
                fusion_detail::highlightRow(last + offset, previous + offset, slot, width, whiteLevel, isa);
                ring.mark(row);
            }
            in[i] = slot;
        }
        smoothRow(isa, in, out + static_cast<ptrdiff_t>(r) * width, width, column.data());
    }
}

// The streaming order is safe when every weight map either is its own frame's
// intensity map or shares no buffer with any map, and no two weight maps coincide.
bool weightListsAllowStreaming(const std::vector<unsigned short*>* intensities,
                               const std::vector<unsigned short*>* weights, int frameCount) {
    if (static_cast<int>(intensities->size()) < frameCount || static_cast<int>(weights->size()) < frameCount)
        return false;
    for (int k = 0; k < frameCount; ++k) {
        for (int j = 0; j < frameCount; ++j) {
            if (j != k && (*weights)[k] == (*intensities)[j]) return false;
            if (j != k && (*weights)[k] == (*weights)[j]) return false;
        }
    }
    return true;
}

void calculateWeightFused(std::vector<unsigned short*>* intensities, std::vector<unsigned short*>* weights, int width,
                          int height, int frameCount, int whiteLevel, const float* curveAtCenter,
                          const float* curveAboveCenter, KernelIsa isa, unsigned short* highlightScratch) {
    const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
    const unsigned short* last = (*intensities)[frameCount - 1];
    const unsigned short* previous = frameCount >= 2 ? (*intensities)[frameCount - 2] : last;
    std::unique_ptr<unsigned short[]> owned(highlightScratch == nullptr ? new unsigned short[pixels] : nullptr);
    unsigned short* highlightMap = highlightScratch != nullptr ? highlightScratch : owned.get();
    runOnFourStripes(height, [&](int rowStart, int rowEnd) {
        smoothedHighlightRows(last, previous, highlightMap, width, height, whiteLevel, rowStart, rowEnd, isa);
    });

    WeightJob job{intensities, weights, width,           height,          frameCount,
                  whiteLevel,  curveAtCenter, curveAboveCenter, highlightMap,    isa};
    std::vector<int> haloRows[4];
    std::vector<unsigned short> halo[4];
    runFourWorkers([&](int k) {
        const int rowStart = stripeStart(height, k), rowEnd = stripeEnd(height, k);
        haloRows[k] = haloRowsOf(rowStart, rowEnd, height);
        halo[k].resize(haloRows[k].size() * static_cast<size_t>(frameCount) * width);
        RowScratch scratch(width, frameCount);
        std::vector<unsigned short*> planes(static_cast<size_t>(frameCount));
        for (size_t h = 0; h < haloRows[k].size(); ++h) {
            for (int f = 0; f < frameCount; ++f)
                planes[f] = halo[k].data() + (h * frameCount + f) * static_cast<size_t>(width);
            normalizedRow(job.isa, job, haloRows[k][h], planes.data(), scratch);
        }
    });
    runFourWorkers([&](int k) {
        smoothedWeightRows(job, stripeStart(height, k), stripeEnd(height, k), haloRows[k], halo[k]);
    });
}

}  // namespace

namespace fusion_detail {

unsigned short highlightValue(int a, int b, int whiteLevel) {
    double x = static_cast<float>(a) / static_cast<float>(whiteLevel);
    if (x <= 0.7) return 0;
    int q = std::abs(a - b) / 4;
    int value;
    if (x <= 0.8)
        value = static_cast<int>((x - 0.7) * static_cast<double>(q * 10));  // 0 <= value <= q
    else
        value = q;
    if (value >= 101) value = std::min(3 * value - 200, 255);
    return static_cast<unsigned short>(value);
}

void wellExposednessPlain(const unsigned short* intensity, unsigned short* weight, ptrdiff_t begin, ptrdiff_t end,
                          int whiteLevel, bool isLast, const unsigned short* lastIntensity, const float* curveAtCenter,
                          const float* curveAboveCenter, const unsigned short* highlightMap) {
    const float W = static_cast<float>(whiteLevel);
    const unsigned short darkWeight = isLast ? static_cast<unsigned short>(whiteLevel) : 0;
    // Intensities beyond the tables are read as the last entry (the caller keeps
    // them in [0, whiteLevel]; this only guards the table bounds).
    const int maxIndex = std::max(whiteLevel, 0);
    for (ptrdiff_t p = begin; p < end; ++p) {
        const float L = static_cast<float>(lastIntensity[p]);
        const int i = std::min(static_cast<int>(intensity[p]), maxIndex);
        if (0.6f * W > L) {
            weight[p] = darkWeight;
            continue;
        }
        const float a = curveAtCenter[i];
        const float b = curveAboveCenter[i];
        const int m = highlightMap[p] & 0xFF;
        float A, B;
        if (isLast) {
            A = ((a - 1.0f) * 2.5f * L) / W + 2.5f + a * (-1.5f);
            B = ((b - 1.0f) * 2.5f * L) / W + 2.5f + b * (-1.5f);
        } else {
            A = (a * 2.5f * L) / W + a * (-1.5f);
            B = (b * 2.5f * L) / W + b * (-1.5f);
        }
        const float v = A * static_cast<float>(255 - m) * W + B * static_cast<float>(m) * W;
        const uint32_t rounded = static_cast<uint32_t>(roundHalfAway(v));
        weight[p] = static_cast<unsigned short>(rounded >> 8);
    }
}

void normalizeWeightPlain(unsigned short* weight, const int* sum, int rowStart, int rowEnd, int width, int frameCount,
                          int /*whiteLevel*/) {
    if (rowEnd <= rowStart || width <= 0) return;
    const ptrdiff_t begin = static_cast<ptrdiff_t>(rowStart) * width;
    const ptrdiff_t end = static_cast<ptrdiff_t>(rowEnd) * width;
    for (ptrdiff_t p = begin; p < end; ++p) {
        if (sum[p] == 0)
            weight[p] = static_cast<unsigned short>(truncToInt(floorf(1023.0f / static_cast<float>(frameCount))));
        else
            weight[p] = static_cast<unsigned short>(
                roundHalfAway((static_cast<float>(weight[p]) / static_cast<float>(sum[p])) * 1023.0f));
    }
}

void filterWeightRowsPlain(const unsigned short* extended, const int (*kernel)[5], unsigned short* dst, int rowStart,
                           int rowEnd, int colStart, int colEnd, int radius, int extendedStride, int dstWidth,
                           float norm) {
    if (radius < 0 || radius > 2) return;
    const int taps = 2 * radius + 1;
    for (int r = rowStart; r < rowEnd; ++r) {
        for (int c = colStart; c < colEnd; ++c) {
            float sum = 0.0f;
            for (int i = 0; i < taps; ++i) {
                const unsigned short* row =
                    extended + static_cast<ptrdiff_t>(r - radius + i) * extendedStride + (c - radius);
                for (int j = 0; j < taps; ++j) {
                    // 32-bit product with wrap-around, as the definition forms it.
                    int product = static_cast<int>(static_cast<uint32_t>(kernel[i][j]) * row[j]);
                    sum += static_cast<float>(product);
                }
            }
            dst[static_cast<ptrdiff_t>(r - radius) * dstWidth + (c - radius)] =
                static_cast<unsigned short>(truncToInt(sum / norm));
        }
    }
}

}  // namespace fusion_detail

void fusion_detail::calculateWeightPlain(std::vector<unsigned short*>* intensities,
                                         std::vector<unsigned short*>* weights, int width, int height, int frameCount,
                                         int exposureCenter, int whiteLevel, float exposureWeightScale) {
    if (frameCount < 1 || width <= 0 || height <= 0) return;
    const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
    unsigned short* last = (*intensities)[frameCount - 1];
    unsigned short* previous = frameCount >= 2 ? (*intensities)[frameCount - 2] : last;

    // Highlight map from the two brightest frames, then smoothed in place.
    std::unique_ptr<unsigned short[]> highlight(new unsigned short[pixels]);
    runOnFourStripes(height, [&](int rowStart, int rowEnd) {
        const ptrdiff_t begin = static_cast<ptrdiff_t>(rowStart) * width;
        const ptrdiff_t end = static_cast<ptrdiff_t>(rowEnd) * width;
        for (ptrdiff_t p = begin; p < end; ++p)
            highlight[p] = fusion_detail::highlightValue(last[p], previous[p], whiteLevel);
    });
    lowPassFilteringForWeight_ushort(highlight.get(), highlight.get(), width, height);

    // Unnormalised weights. The last frame's intensities are read by every frame,
    // so when the lists share buffers they are overwritten only at the last turn.
    for (int k = 0; k < frameCount; ++k)
        calculateSingleImageWeight((*intensities)[k], (*weights)[k], exposureCenter, height, width, whiteLevel, k,
                                   frameCount, exposureWeightScale, last, highlight.get());

    std::unique_ptr<int[]> sum(new int[pixels]());
    for (int k = 0; k < frameCount; ++k) {
        unsigned short* w = (*weights)[k];
        runOnFourStripes(height,
                         [&](int rowStart, int rowEnd) { calculateSumWeight(sum.get(), w, rowStart, rowEnd, width); });
    }

    // Every frame is normalised by the sum of the unsmoothed weights, then smoothed.
    for (int k = 0; k < frameCount; ++k) {
        unsigned short* w = (*weights)[k];
        runOnFourStripes(height, [&](int rowStart, int rowEnd) {
            normalizeWeight(w, sum.get(), rowStart, rowEnd, width, frameCount, whiteLevel);
        });
        lowPassFilteringForWeight_ushort(w, w, width, height);
    }
}

void fusion_detail::highlightRow(const unsigned short* last, const unsigned short* previous, unsigned short* out,
                                 int width, int whiteLevel, KernelIsa isa) {
    if (whiteLevel < 8) {
        for (int x = 0; x < width; ++x) out[x] = highlightValue(last[x], previous[x], whiteLevel);
        return;
    }
    const HighlightBounds bounds;
    ::highlightRow(isa, last, previous, out, width, static_cast<float>(whiteLevel), bounds);
}

bool fusion_detail::calculateWeightStreamed(std::vector<unsigned short*>* intensities,
                                            std::vector<unsigned short*>* weights, int width, int height,
                                            int frameCount, int exposureCenter, int whiteLevel,
                                            float exposureWeightScale, KernelIsa isa,
                                            unsigned short* highlightScratch) {
    if (frameCount < 1 || width < 2 || height < 2 || whiteLevel <= 0 ||
        !weightListsAllowStreaming(intensities, weights, frameCount))
        return false;
    const size_t tableSize = static_cast<size_t>(whiteLevel) + 1;
    std::vector<float> curveAtCenter(tableSize), curveAboveCenter(tableSize);
    createLUT(curveAtCenter.data(), whiteLevel, exposureWeightScale, exposureCenter);
    createLUT(curveAboveCenter.data(), whiteLevel, exposureWeightScale,
              truncToInt(static_cast<double>(exposureCenter) * 1.1));
    if (!curvesKeepWeightsInRange(curveAtCenter.data(), curveAboveCenter.data(), whiteLevel)) return false;
    calculateWeightFused(intensities, weights, width, height, frameCount, whiteLevel, curveAtCenter.data(),
                         curveAboveCenter.data(), isa, highlightScratch);
    return true;
}

void createLUT(float* table, int maxValue, float scale, int center) {
    // Squares formed in 32-bit integers; unsigned arithmetic gives the same bits
    // without undefined overflow for extreme arguments.
    const int range = static_cast<int>(static_cast<uint32_t>(maxValue) * static_cast<uint32_t>(maxValue));
    for (int i = 0; i <= maxValue; ++i) {
        uint32_t d = static_cast<uint32_t>(i) - static_cast<uint32_t>(center);
        int distance = static_cast<int>(10u * d * d);
        table[i] = expf(-((static_cast<float>(distance) / static_cast<float>(range)) * scale));
    }
}

void wellExposedness(unsigned short* intensity, unsigned short* weight, int /*exposureCenter*/, int rowStart,
                     int rowEnd, int width, int whiteLevel, int frameIndex, int frameCount,
                     float /*exposureWeightScale*/, unsigned short* lastIntensity, float* curveAtCenter,
                     float* curveAboveCenter, unsigned short* highlightMap) {
    if (rowEnd <= rowStart || width <= 0) return;
    const ptrdiff_t begin = static_cast<ptrdiff_t>(rowStart) * width;
    const ptrdiff_t end = static_cast<ptrdiff_t>(rowEnd) * width;
    const bool isLast = frameIndex == frameCount - 1;
    if (!kUseFastPaths || !curvesKeepWeightsInRange(curveAtCenter, curveAboveCenter, whiteLevel)) {
        fusion_detail::wellExposednessPlain(intensity, weight, begin, end, whiteLevel, isLast, lastIntensity,
                                            curveAtCenter, curveAboveCenter, highlightMap);
        return;
    }
    if (isLast)
        wellExposednessChunked<true>(intensity, weight, begin, end, whiteLevel, lastIntensity, curveAtCenter,
                                     curveAboveCenter, highlightMap);
    else
        wellExposednessChunked<false>(intensity, weight, begin, end, whiteLevel, lastIntensity, curveAtCenter,
                                      curveAboveCenter, highlightMap);
}

void calculateSingleImageWeight(unsigned short* intensity, unsigned short* weight, int exposureCenter, int height,
                                int width, int whiteLevel, int frameIndex, int frameCount,
                                float exposureWeightScale, unsigned short* lastIntensity,
                                unsigned short* highlightMap) {
    const size_t tableSize = static_cast<size_t>(std::max(whiteLevel, 0)) + 1;
    std::vector<float> curveAtCenter(tableSize, 0.0f);
    std::vector<float> curveAboveCenter(tableSize, 0.0f);
    createLUT(curveAtCenter.data(), whiteLevel, exposureWeightScale, exposureCenter);
    const int higherCenter = truncToInt(static_cast<double>(exposureCenter) * 1.1);
    createLUT(curveAboveCenter.data(), whiteLevel, exposureWeightScale, higherCenter);
    runOnFourStripes(height, [&](int rowStart, int rowEnd) {
        wellExposedness(intensity, weight, exposureCenter, rowStart, rowEnd, width, whiteLevel, frameIndex,
                        frameCount, exposureWeightScale, lastIntensity, curveAtCenter.data(),
                        curveAboveCenter.data(), highlightMap);
    });
}

void calculateSumWeight(int* sum, unsigned short* weight, int rowStart, int rowEnd, int width) {
    if (rowEnd <= rowStart || width <= 0) return;
    const ptrdiff_t begin = static_cast<ptrdiff_t>(rowStart) * width;
    const ptrdiff_t end = static_cast<ptrdiff_t>(rowEnd) * width;
    for (ptrdiff_t p = begin; p < end; ++p) sum[p] += weight[p];
}

void normalizeWeight(unsigned short* weight, int* sum, int rowStart, int rowEnd, int width, int frameCount,
                     int whiteLevel) {
    if (rowEnd <= rowStart || width <= 0) return;
    if (!kUseFastPaths) {
        fusion_detail::normalizeWeightPlain(weight, sum, rowStart, rowEnd, width, frameCount, whiteLevel);
        return;
    }
    const ptrdiff_t begin = static_cast<ptrdiff_t>(rowStart) * width;
    const ptrdiff_t end = static_cast<ptrdiff_t>(rowEnd) * width;
    normalizeRun(weight + begin, sum + begin, end - begin, evenShareFor(frameCount));
}

void filteringProcessForWeight_ushort(unsigned short* extended, int (*kernel)[5], unsigned short* dst,
                                      int rowStart, int rowEnd, int colStart, int colEnd, int radius,
                                      int extendedStride, int dstWidth, float norm) {
    if (radius < 0 || radius > 2) return;
    if (kUseFastPaths && isBinomialSetup(kernel, radius, norm)) {
        filterWeightRowsBinomial(extended, dst, rowStart, rowEnd, colStart, colEnd, extendedStride, dstWidth);
        return;
    }
    fusion_detail::filterWeightRowsPlain(extended, kernel, dst, rowStart, rowEnd, colStart, colEnd, radius,
                                         extendedStride, dstWidth, norm);
}

void lowPassFilteringForWeight_ushort(unsigned short* src, unsigned short* dst, int width, int height) {
    if (width <= 0 || height <= 0) return;
    const int extendedStride = width + 4;
    std::unique_ptr<unsigned short[]> extended(
        new unsigned short[static_cast<size_t>(extendedStride) * static_cast<size_t>(height + 4)]);
    imageExtensionForBayer_ushort(src, extended.get(), 2, height, width);
    int kernel[5][5];
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j < 5; ++j) kernel[i][j] = fusion_detail::binomialKernel5x5[i][j];
    runFourWorkers([&](int k) {
        filteringProcessForWeight_ushort(extended.get(), kernel, dst, weightSmoothingBound(height, k),
                                         weightSmoothingBound(height, k + 1), 2, width + 2, 2, extendedStride,
                                         width, 256.0f);
    });
}

void calculateWeight(std::vector<unsigned short*>* intensities, std::vector<short*>* /*frames*/,
                     std::vector<unsigned short*>* weights, int width, int height, int frameCount,
                     int exposureCenter, int whiteLevel, std::vector<int*>* /*levelSizes*/, int /*levelCount*/,
                     float exposureWeightScale) {
    if (frameCount < 1 || width <= 0 || height <= 0) return;
    if (kUseFastPaths && fusion_detail::calculateWeightStreamed(intensities, weights, width, height, frameCount,
                                                                exposureCenter, whiteLevel, exposureWeightScale,
                                                                bestKernelIsa()))
        return;
    fusion_detail::calculateWeightPlain(intensities, weights, width, height, frameCount, exposureCenter, whiteLevel,
                                        exposureWeightScale);
}

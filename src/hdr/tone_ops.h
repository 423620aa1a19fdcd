#pragma once

#include <vector>

#include "imgcore/kep_export.h"
#include "imgcore/simd_dispatch.h"

// Per-sample tone and colour operators of the HDR path. Frames are width x height
// signed 16-bit samples with stride width. Float-to-integer conversions truncate
// toward zero; values beyond the int range saturate and NaN gives 0 before the
// result is kept to 16 bits.

// Bayer-pattern white balance of the quad rows r = rowStart, rowStart + 2, ... while
// r < rowEnd; both rows of each quad are written, so row rowEnd itself is processed
// when rowEnd - rowStart is odd. Per-site gains (even/even, even/odd, odd/even,
// odd/odd): 0: red, 1, 1, blue; 1: blue, 1, 1, red; 2: 1, red, blue, 1; 3: 1, blue,
// red, 1; any other code (negative too) writes zeros. Samples above whiteLevel after
// the gain are clamped to it; there is no lower clamp. An odd width scales the last
// column with the even-column gain. In place allowed.
KEP_API void whiteBalance(short* src, short* dst, int rowStart, int rowEnd, float redGain, float blueGain, int width,
                          int whiteLevel, int bayerPattern);
// table[i] = trunc(powf(i / whiteLevel, gamma) * whiteLevel) for i = 0..whiteLevel,
// single precision; nothing when whiteLevel < 0. The table has whiteLevel + 1 entries.
KEP_API void createGammaTbl(short* table, int whiteLevel, float gamma);
// Knee compression of quad means (sum >> 2): above knee = trunc(whiteLevel * ratio)
// the mean, limited to top = trunc((1 - blend) * whiteLevel + brightest * blend), is
// mapped linearly onto (knee, whiteLevel]; all four samples of a quad are scaled by
// one factor (mapped / mean), clamped above at whiteLevel. A quad of mean 0 becomes 0.
// Only whole quads are processed: a trailing odd row or column of dst is not written,
// nor is anything when height < 1. In place allowed.
KEP_API void dataRangeCompression(const short* src, short* dst, int width, int height, int whiteLevel,
                                  float rangeCompressionBlend, float rangeCompressionRatio);
// dst = trunc(a * weightA + b * weightB) on rows [rowStart, rowEnd), kept to 16 bits
// with no clamp; dst may be a or b.
KEP_API void alphaFusion(short* a, short* b, short* dst, int rowStart, int rowEnd, int width, float weightA,
                         float weightB);
// Mild darkening of the green sites in dark quads: factor 0.96 below a green mean of
// 0.2 * whiteLevel, 1.0 above 0.3 * whiteLevel, linear in between; greens are rounded
// half up. Greens are on the diagonal of each quad for codes 2 and above (unsigned),
// on the anti-diagonal for 0 and 1. Red and blue sites of dst, and a trailing odd row
// or column, are not written: in-place use is the intended mode.
KEP_API void greenAttenuation(short* src, short* dst, int width, int height, int whiteLevel, int bayerPattern);

// Internal pieces (not exported), reachable from the tests.
namespace tone_detail {

// Plain definition of dataRangeCompression: the brightest quad mean, then the
// factor of every quad computed on its own, every conversion saturating. The
// exported function tabulates the factor over the limited quad means that occur
// and must agree with this one bit for bit.
void dataRangeCompressionPlain(const short* src, short* dst, int width, int height, int whiteLevel,
                               float rangeCompressionBlend, float rangeCompressionRatio);

// Folds the quad means ((sum of four) >> 2) of quad rows [quadRowStart, quadRowEnd)
// of a frame `width` samples wide into *brightest (max) and *darkest (min).
void quadMeanRange(const short* src, int width, int quadRowStart, int quadRowEnd, int* brightest, int* darkest,
                   KernelIsa isa);

// The range compression's factor table for a frame whose quad means span
// [darkest, brightest] (brightest folded from 0, as the definition starts it),
// applied a band of quad rows at a time; in place allowed (in place with safe
// factors takes a vectorised row form in the compilation `isa`).
class RangeCompressionTable {
public:
    RangeCompressionTable(int brightest, int darkest, int whiteLevel, float rangeCompressionBlend,
                          float rangeCompressionRatio);
    void compressQuadRows(const short* src, short* dst, int width, int quadRowStart, int quadRowEnd,
                          KernelIsa isa) const;

    // The factor of a quad of mean q is ratios()[min(q, top()) - lowest()]; every
    // factor keeps the products in the int range when safe().
    int top() const { return top_; }
    int lowest() const { return lowest_; }
    const float* ratios() const { return ratios_.data(); }
    bool empty() const { return ratios_.empty(); }
    bool safe() const { return safe_; }

private:
    float white_;
    int top_ = 0;
    int lowest_ = 0;
    bool safe_ = true;
    std::vector<float> ratios_;
};

}  // namespace tone_detail

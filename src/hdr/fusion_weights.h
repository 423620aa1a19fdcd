#pragma once

#include <cstddef>
#include <vector>

#include "imgcore/kep_export.h"
#include "imgcore/simd_dispatch.h"

// Normalised exposure-fusion weights of an HDR bracket.
//
// Weights are 10-bit fixed point (1023 = 1.0). Where the brightest frame of the
// bracket (the last one) is dark, it alone carries the weight; elsewhere every
// frame is weighted by a Gaussian well-exposedness curve of its own intensity,
// mixed between a curve at `exposureCenter` and one at 1.1 x that centre by a
// highlight map that measures how much the two brightest frames disagree. The
// per-pixel weights are normalised to sum to about 1023 and each map is
// smoothed with a 5x5 binomial filter.
//
// Threaded steps use exactly four workers on disjoint row stripes, joined in
// creation order.

// Turns the intensity maps into weight maps. `intensities` and `weights` may be
// the same list (each pixel is read before it is written). `frames`,
// `levelSizes` and `levelCount` are not used. Intensities must lie in
// [0, whiteLevel]; larger ones are read as whiteLevel. With frameCount < 1
// nothing is done; with a single frame the highlight map is 0 everywhere (there
// is no second frame to compare with).
KEP_API void calculateWeight(std::vector<unsigned short*>* intensities, std::vector<short*>* frames,
                             std::vector<unsigned short*>* weights, int width, int height, int frameCount,
                             int exposureCenter, int whiteLevel, std::vector<int*>* levelSizes, int levelCount,
                             float exposureWeightScale);

// Unnormalised weight map of frame `frameIndex`: builds the two curve tables
// (centres exposureCenter and trunc(1.1 * exposureCenter)) and runs
// wellExposedness on four stripes.
KEP_API void calculateSingleImageWeight(unsigned short* intensity, unsigned short* weight, int exposureCenter,
                                        int height, int width, int whiteLevel, int frameIndex, int frameCount,
                                        float exposureWeightScale, unsigned short* lastIntensity,
                                        unsigned short* highlightMap);

// Worker body for rows [rowStart, rowEnd): weight = (round(v) as uint32) >> 8
// with v mixing the two curves by the low byte of the highlight map. The curve
// tables hold whiteLevel + 1 entries; `exposureCenter` and `exposureWeightScale`
// are carried but not used. `weight` may alias `intensity` or `lastIntensity`.
KEP_API void wellExposedness(unsigned short* intensity, unsigned short* weight, int exposureCenter, int rowStart,
                             int rowEnd, int width, int whiteLevel, int frameIndex, int frameCount,
                             float exposureWeightScale, unsigned short* lastIntensity, float* curveAtCenter,
                             float* curveAboveCenter, unsigned short* highlightMap);

// table[i] = expf(-((10 (i - center)^2 / maxValue^2) * scale)) for i = 0..maxValue;
// nothing is written when maxValue < 0. No caller inside the library.
KEP_API void createLUT(float* table, int maxValue, float scale, int center);

// Worker body: sum[p] += weight[p] over rows [rowStart, rowEnd).
KEP_API void calculateSumWeight(int* sum, unsigned short* weight, int rowStart, int rowEnd, int width);

// Worker body: weight = round(weight / sum * 1023.0f) (halves away from zero),
// or floor(1023.0f / frameCount) where the sum is 0. The target is always 1023;
// `whiteLevel` is not used.
KEP_API void normalizeWeight(unsigned short* weight, int* sum, int rowStart, int rowEnd, int width, int frameCount,
                             int whiteLevel);

// 5x5 binomial smoothing (sum 256, truncating) with a same-Bayer-site border of
// two samples; src and dst may be the same buffer.
KEP_API void lowPassFilteringForWeight_ushort(unsigned short* src, unsigned short* dst, int width, int height);

// Worker body of the smoothing over extended rows [rowStart, rowEnd) and columns
// [colStart, colEnd): the (2 radius + 1)^2 products (32-bit) are accumulated in
// single precision, divided by norm and truncated. The kernel rows are five
// entries long, so radius must lie in [0, 2]; any other radius writes nothing.
KEP_API void filteringProcessForWeight_ushort(unsigned short* extended, int (*kernel)[5], unsigned short* dst,
                                              int rowStart, int rowEnd, int colStart, int colEnd, int radius,
                                              int extendedStride, int dstWidth, float norm);

// Internal pieces, exposed for the tests (not exported).
namespace fusion_detail {

// The 5x5 binomial smoothing kernel (outer product of 1 4 6 4 1).
extern const int binomialKernel5x5[5][5];

// Highlight map value for last-frame intensity a and previous-frame intensity b:
// 0 up to 0.7 of the range, a ramp of |a - b| / 4 up to 0.8, steepened above 100
// and capped at 255.
unsigned short highlightValue(int a, int b, int whiteLevel);

// The plain definition of wellExposedness over the pixels [begin, end); the
// exported function takes a chunked, vectorisable path when the curves keep
// every value in range and must agree with this one bit for bit.
void wellExposednessPlain(const unsigned short* intensity, unsigned short* weight, ptrdiff_t begin, ptrdiff_t end,
                          int whiteLevel, bool isLast, const unsigned short* lastIntensity, const float* curveAtCenter,
                          const float* curveAboveCenter, const unsigned short* highlightMap);

// The plain definition of normalizeWeight: the quotient rounded half away from
// zero (roundf), floor(1023 / frameCount) where the sum is 0. The exported worker
// takes a branch-free, vectorised form and must agree with this one bit for bit.
void normalizeWeightPlain(unsigned short* weight, const int* sum, int rowStart, int rowEnd, int width, int frameCount,
                          int whiteLevel);

// Plain definition of calculateWeight, step by step over whole maps: the highlight
// map and its smoothing, each frame's weights, the weight sum, then each frame
// normalised and smoothed.
void calculateWeightPlain(std::vector<unsigned short*>* intensities, std::vector<unsigned short*>* weights, int width,
                          int height, int frameCount, int exposureCenter, int whiteLevel, float exposureWeightScale);

// highlightValue over one row, branch-free and vectorised for white levels of at
// least 8 (plainly below), in the compilation `isa`.
void highlightRow(const unsigned short* last, const unsigned short* previous, unsigned short* out, int width,
                  int whiteLevel, KernelIsa isa);

// Fast path of calculateWeight in the compilation `isa`: the smoothed highlight map
// in one pass, then per row the weights of all frames, their sum and
// normalisation, smoothed straight into the weight maps (rows a stripe needs from
// its neighbours are computed before any worker writes). Returns false, writing
// nothing, where it does not apply: sides below 2, a white level below 1, weight
// maps that share buffers other than their own frame's intensities, or curves whose
// weights could leave the int range. The smoothed highlight map goes to
// `highlightScratch` (width * height values, free for the call) when given, else
// to an allocation of its own.
bool calculateWeightStreamed(std::vector<unsigned short*>* intensities, std::vector<unsigned short*>* weights,
                             int width, int height, int frameCount, int exposureCenter, int whiteLevel,
                             float exposureWeightScale, KernelIsa isa, unsigned short* highlightScratch = nullptr);

// The plain definition of filteringProcessForWeight_ushort (float accumulation of
// every product); the exported function takes an exact integer path for the
// binomial kernel and must agree with this one bit for bit.
void filterWeightRowsPlain(const unsigned short* extended, const int (*kernel)[5], unsigned short* dst, int rowStart,
                           int rowEnd, int colStart, int colEnd, int radius, int extendedStride, int dstWidth,
                           float norm);

}  // namespace fusion_detail

#pragma once

#include <vector>

#include "imgcore/kep_export.h"
#include "imgcore/simd_dispatch.h"

// Per-pixel intensity (0..1023) of raw Bayer frames: bilinear colour at each site
// (integer sums, truncating division), mixed as 0.8 * luma + 0.2 * max(R, G, B)
// with luma = 0.587 G + 0.299 R + 0.114 B, clamped to [0, 1023] and truncated.
// Border pixels take their neighbours from the same colour site two samples inward.

// Runs singleImageIntensityEstimation on frames[k] -> intensities[k] in order, for
// k below frameCount and below the length of both lists. The gains are not used.
KEP_API void intensityEstimation(std::vector<short*>* frames, std::vector<unsigned short*>* intensities, int width,
                                 int height, int frameCount, int redGain, int blueGain, int bayerPattern);
// Note: height before width. Extends the frame by one sample on every side and runs
// calculateLuma on four workers over stripes of the extended height (clipped to the
// image rows on frames shorter than 2 rows). The two floats are not read. A side <= 0
// writes nothing.
KEP_API void singleImageIntensityEstimation(short* frame, unsigned short* intensity, int height, int width,
                                            float reservedA, float reservedB, int bayerPattern);
// Worker body over an extended (bordered) frame: extended rows [rowStart, rowEnd) and
// columns [colStart, colEnd) into intensity[(r - border) * outWidth + (c - border)].
// Pattern codes outside 0..3 write nothing. Returns `extended`.
KEP_API short* calculateLuma(short* extended, unsigned short* intensity, int rowStart, int rowEnd, int colStart,
                             int colEnd, int border, int extendedStride, int outWidth, int bayerPattern);

// Internal pieces (not exported), reachable from the tests.
namespace intensity_detail {

// Plain definition of calculateLuma, pixel by pixel. The exported worker takes a
// row form (pairs of columns, branch-free, vectorised) and the estimation of a
// whole frame streams padded rows instead of building the extended copy; both must
// agree with this one bit for bit.
short* calculateLumaPlain(short* extended, unsigned short* intensity, int rowStart, int rowEnd, int colStart,
                          int colEnd, int border, int extendedStride, int outWidth, int bayerPattern);

// Fast paths, in the compilation `isa`: calculateLuma's row form, and the
// estimation of a whole frame (sides of at least 2, pattern 0..3) that streams
// padded rows instead of building the extended copy, on four workers.
void calculateLumaRows(short* extended, unsigned short* intensity, int rowStart, int rowEnd, int colStart,
                       int colEnd, int border, int extendedStride, int outWidth, int bayerPattern, KernelIsa isa);
void estimateIntensityStreamed(short* frame, unsigned short* intensity, int height, int width, int bayerPattern,
                               KernelIsa isa);

}  // namespace intensity_detail

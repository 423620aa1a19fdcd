#pragma once

#include "imgcore/kep_export.h"

// Difference of Gaussians: dst = blur(src, sigma2) - blur(src, sigma1) as signed
// 16-bit values (-255..255), width x height, stride = width. Both blurs leave the
// one-pixel frame of their zero-filled planes untouched, so the response is 0 on
// the image border. Degenerate sizes or a failed scratch allocation leave dst
// untouched.
KEP_API void qnDoG(unsigned char* src, short* dst, float sigma1, float sigma2, int width, int height);

// dst[i] = a[i] - b[i] as signed 16-bit over width x height pixels (stride =
// width). Nothing happens for height < 1 or width < 1.
KEP_API void qnImgDiff(unsigned char* a, unsigned char* b, short* dst, int width, int height);

// Per-cell response thresholds over a 4x4 grid of the width x height DoG image.
//
// The range [lo, hi] is split into count = (int)((hi - lo) / binWidth) bins with
// edges i*binWidth + lo and a last edge just above hi (a value equal to hi lands
// in the last bin). Cells are width/4 x height/4 (remainder pixels belong to no
// cell) and are sampled every `step` rows and columns; the first sample outside
// [lo, hi] ends that row segment (strong responses shorten the sampled part of
// a row). In each cell, counted from the outside in, the first bin holding more
// than the fraction frac of the cell's samples receives the threshold, placed
// binWidth*frac*N/count_i inside that bin's outer edge; it is never less extreme
// than negCap / posCap. Outputs go to negThr[gy*4 + gx] and posThr[gy*4 + gx];
// a side with no qualifying bin leaves its entry as it was.
//
// Returns 0, or -1 when height < 4, when a cell has no in-range sample (this
// includes width < 4), when there is no bin or when step < 1. Cells are visited
// row by row; those before the failing one keep their outputs, later ones are
// not processed.
KEP_API int qnGetHistogram(short* dog, float lo, float hi, float binWidth, int width, int height, int step, float frac,
                           float negCap, float posCap, float* negThr, float* posThr);

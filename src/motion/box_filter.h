#pragma once

#include "imgcore/kep_export.h"
#include "imgcore/types.h"

// Separable mean filter. A kernel size k is first raised to 3 when k <= 3 and made
// odd by adding 1 when even; each output is the mean of the samples of its span
// clipped to the image. The running sums follow the order of a sliding window;
// images narrower (or lower) than the kernel are filtered sample by sample from
// the same definition instead.

// Horizontal pass, bytes in, floats out.
KEP_API void qnBoxfilterHor(unsigned char* src, float* dst, int rows, int cols, int k);
// Vertical pass, floats in, bytes out (the mean truncated toward zero).
KEP_API void qnBoxfilterVer(float* src, unsigned char* dst, int rows, int cols, int k);
// Both passes: k.width horizontally, k.height vertically, through a temporary float image.
KEP_API void qnBoxfilter(unsigned char* src, unsigned char* dst, int rows, int cols, Size k);

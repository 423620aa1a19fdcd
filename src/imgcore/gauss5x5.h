#pragma once

#include "imgcore/kep_export.h"

// Separable 5x5 filter for 8-bit images with a 5-tap byte kernel k0..k4 applied
// along rows and then along columns, normalised by S*S where S = k0 + .. + k4.
// The horizontal pass sums into 16-bit unsigned values (wrapping; no wrap occurs
// for S <= 257), the vertical pass into 32 bits, and the result is the truncated
// single-precision product u * (1.0f / (S*S)).
//
// Only pixels at least two away from every side are written: the two outermost
// rows and columns of dst keep whatever they held, and no sample outside the
// width x height area of src is read. Images narrower or shorter than 5 pixels
// are left untouched. A stride of 0 stands for `width`. src and dst may be the
// same buffer (all of src is read before dst is written).
//
// Returns 0, or -1 when src, dst or kernel is null. An all-zero kernel (S = 0)
// yields 0 inside the border.
KEP_API int gauss5x5_u8(const unsigned char* src, unsigned char* dst, int width, int height, int srcStride,
                        int dstStride, const unsigned char* kernel);

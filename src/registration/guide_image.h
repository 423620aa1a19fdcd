#pragma once

#include "imgcore/kep_export.h"

// Builds the 8-bit gray guide of a black-level-corrected raw frame: one pixel per
// 4x4 block of raw samples (two Bayer quads each way, so every colour enters in a
// fixed proportion). pixel = min(mean * grayGain, 1023) >> 2, where mean is the
// block sum / 16 truncated toward zero and the product is a 32-bit integer product.
// The guide has width/4 x height/4 pixels, row stride width/4; a remainder of raw
// rows or columns is ignored. Nothing is written when height < 4. frameIndex is
// accepted for callers and not used.
KEP_API void bayer_to_8bit_gray(short* raw, unsigned char* guide, int width, int height, int grayGain,
                                int frameIndex);

// 5x5 weighted mean: the smoothing kernel (outer product of 1 2 4 2 1, divisor
// 100), or the box kernel (divisor 25) when blurSelect > 510. Pixels two or more
// away from every side are written with the truncated single-precision quotient;
// the two outermost rows and columns of dst are untouched, as is all of dst when
// height < 5. src and dst may be the same buffer.
KEP_API void conImageBlur(unsigned char* src, unsigned char* dst, int width, int height, float blurSelect);

// Global histogram equalisation with a clip limit of 3 * width * height / 256
// counts per bin; the clipped excess is spread evenly (excess / 256 per bin, the
// remainder dropped). lut[b] = cumulative share of bins 0..b times 255, truncated.
// In-place use is allowed.
KEP_API void histogram_equalization(unsigned char* src, unsigned char* dst, int width, int height);

// gauss5x5_u8 with the kernel 1 2 4 2 1 and both strides equal to width.
KEP_API void imageBlur(unsigned char* src, unsigned char* dst, int width, int height);

namespace guide_detail {
// True when every black level lies in 0..32767, so that a sample less its level,
// clamped at 0, always fits 16 bits (removeBLC then never wraps).
bool blackLevelsFitSamples(const int* order);

// The guide of removeBLC(raw, order) built in one pass without the corrected copy:
// equal to removeBLC into a temporary followed by bayer_to_8bit_gray, for black
// levels that pass blackLevelsFitSamples.
void guideFromRaw(const short* raw, const int* order, unsigned char* guide, int width, int height, int grayGain);

// The plain 25-tap form of conImageBlur (for width and height of at least 5); the
// fast form sums a horizontal and a vertical 5-tap pass, which is exact.
void blurPlain(unsigned char* src, unsigned char* dst, int width, int height, bool box);
}  // namespace guide_detail

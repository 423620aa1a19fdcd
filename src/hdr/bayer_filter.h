#pragma once

#include "imgcore/kep_export.h"

// Bayer-aware border extension and same-colour low-pass filters, shared by the
// intensity estimation, the weight smoothing and the pyramid down-sampling.

// Copies a height x width image into dst with a border of `border` samples on
// every side (stride width + 2*border); border samples repeat the sample
// d = max(border, 2) positions inward, which keeps the Bayer site for even offsets.
// Left and top borders are filled first (inward-out), then right and bottom, which
// may repeat left/top border samples on images narrower/shorter than d.
// Small sizes: nothing is written when border < 0 or a side is <= 0. Where a left or
// top border sample would repeat a position not written yet (side shorter than d),
// it repeats the nearest copied sample of the same Bayer phase instead (the only
// sample on a side of one).
KEP_API void imageExtensionForBayer_short(short* src, short* dst, int border, int height, int width);
KEP_API void imageExtensionForBayer_ushort(unsigned short* src, unsigned short* dst, int border, int height,
                                           int width);

// Same-colour 5-tap binomial low-pass (taps two samples apart, sum 256) on four
// workers over stripes of the extended height; src and dst may be the same buffer.
// A side <= 0 writes nothing. On images shorter than 8 rows the stripe bounds are
// clipped to the image rows, so every row is still filtered exactly once.
KEP_API void lowPassFilteringForBayer_short(short* src, short* dst, int width, int height);
KEP_API void lowPassFilteringForBayer_ushort(unsigned short* src, unsigned short* dst, int width, int height);

// Worker bodies of the Bayer low-pass: taps two apart of a 9x9 kernel over an
// extended image (32-bit products, single-precision sum in tap order, zero taps
// skipped), dst[(r - radius) * dstWidth + (c - radius)] = trunc(sum / norm).
// Results outside the sample range keep the low 16 bits of the saturated 32-bit
// value. A radius outside 0..4 (beyond the 9x9 table) writes nothing.
KEP_API void filteringProcess_short(short* extended, int (*kernel)[9], short* dst, int rowStart, int rowEnd,
                                    int colStart, int colEnd, int radius, int extendedStride, int dstWidth,
                                    float norm);
KEP_API void filteringProcess_ushort(unsigned short* extended, int (*kernel)[9], unsigned short* dst, int rowStart,
                                     int rowEnd, int colStart, int colEnd, int radius, int extendedStride,
                                     int dstWidth, float norm);

// Single-precision border extension, always with offset 2 (same small-size rules as
// above). Returns 0. No caller inside the library.
KEP_API unsigned long long imageExtenForIntenEst(float* src, float* dst, int border, int height, int width);

// Box filter on 8-bit images: copies src to dst, then every pixel at least `radius`
// from each edge gets trunc(window sum / (2*radius+1)^2) with the sum in single
// precision; the outer `radius` rows and columns keep the source. In place allowed.
// A negative radius or a window wider or taller than the image leaves the plain copy.
// No caller inside the library.
KEP_API void conLowPassFiltering_uchar(unsigned char* src, unsigned char* dst, int width, int height, int radius);

// Internal pieces (not exported), reachable from the tests.
namespace bayer_filter_detail {

// Plain definitions: the low-pass through the sparse-tap worker (float sums of the
// 25 products), and that worker pixel by pixel. The exported functions take an
// exact separable integer form of the binomial low-pass and a loop-interchanged
// worker, which must agree with these bit for bit.
void lowPassFilteringForBayerPlain(short* src, short* dst, int width, int height);
void lowPassFilteringForBayerPlain(unsigned short* src, unsigned short* dst, int width, int height);
template <typename T>
void filterSparseTapsPlain(const T* extended, int (*kernel)[9], T* dst, int rowStart, int rowEnd, int colStart,
                           int colEnd, int radius, int extendedStride, int dstWidth, float norm);

}  // namespace bayer_filter_detail

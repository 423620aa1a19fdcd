#pragma once

#include "imgcore/kep_export.h"

// Bayer-aware border extension and same-colour low-pass filters, shared by the
// intensity estimation, the weight smoothing and the pyramid down-sampling.

// Copies a height x width image into dst with a border of `border` samples on
// every side (stride width + 2*border); border samples repeat the sample
// max(border, 2) positions inward, which keeps the Bayer site for even offsets.
KEP_API void imageExtensionForBayer_short(short* src, short* dst, int border, int height, int width);
KEP_API void imageExtensionForBayer_ushort(unsigned short* src, unsigned short* dst, int border, int height,
                                           int width);

// Same-colour 5-tap binomial low-pass (taps two samples apart, sum 256) on four
// workers; src and dst may be the same buffer.
KEP_API void lowPassFilteringForBayer_short(short* src, short* dst, int width, int height);
KEP_API void lowPassFilteringForBayer_ushort(unsigned short* src, unsigned short* dst, int width, int height);

// Worker bodies of the Bayer low-pass: sparse taps of a 9x9 kernel over an
// extended image, single-precision accumulation, truncating division by norm.
KEP_API void filteringProcess_short(short* extended, int (*kernel)[9], short* dst, int rowStart, int rowEnd,
                                    int colStart, int colEnd, int radius, int extendedStride, int dstWidth,
                                    float norm);
KEP_API void filteringProcess_ushort(unsigned short* extended, int (*kernel)[9], unsigned short* dst, int rowStart,
                                     int rowEnd, int colStart, int colEnd, int radius, int extendedStride,
                                     int dstWidth, float norm);

// Single-precision border extension, always with offset 2. No caller inside the library.
KEP_API unsigned long long imageExtenForIntenEst(float* src, float* dst, int border, int height, int width);

// Box filter on 8-bit images; the outer `radius` rows and columns keep the source.
// No caller inside the library.
KEP_API void conLowPassFiltering_uchar(unsigned char* src, unsigned char* dst, int width, int height, int radius);

#pragma once

#include "imgcore/kep_export.h"

// Per-sample tone and colour operators of the HDR path.

// Bayer-pattern white balance on the quad rows starting at rowStart (even) while
// below rowEnd; unknown pattern codes write zeros. In place allowed.
KEP_API void whiteBalance(short* src, short* dst, int rowStart, int rowEnd, float redGain, float blueGain, int width,
                          int whiteLevel, int bayerPattern);
// table[i] = trunc(powf(i / whiteLevel, gamma) * whiteLevel) for i = 0..whiteLevel.
KEP_API void createGammaTbl(short* table, int whiteLevel, float gamma);
// Knee compression of quad means so that the brightest quad maps to whiteLevel.
KEP_API void dataRangeCompression(const short* src, short* dst, int width, int height, int whiteLevel,
                                  float rangeCompressionBlend, float rangeCompressionRatio);
// dst = trunc(a * weightA + b * weightB) on rows [rowStart, rowEnd).
KEP_API void alphaFusion(short* a, short* b, short* dst, int rowStart, int rowEnd, int width, float weightA,
                         float weightB);
// Mild darkening of the green sites in dark quads; other sites of dst untouched.
KEP_API void greenAttenuation(short* src, short* dst, int width, int height, int whiteLevel, int bayerPattern);

#pragma once

#include <vector>

#include "imgcore/kep_export.h"

// Per-pixel intensity (0..1023) of raw Bayer frames: bilinear colour at each site,
// mixed as 0.8 * luma + 0.2 * max(R, G, B).

KEP_API void intensityEstimation(std::vector<short*>* frames, std::vector<unsigned short*>* intensities, int width,
                                 int height, int frameCount, int redGain, int blueGain, int bayerPattern);
// Note: height before width.
KEP_API void singleImageIntensityEstimation(short* frame, unsigned short* intensity, int height, int width,
                                            float reservedA, float reservedB, int bayerPattern);
// Worker body over an extended (bordered) frame; returns `extended`.
KEP_API short* calculateLuma(short* extended, unsigned short* intensity, int rowStart, int rowEnd, int colStart,
                             int colEnd, int border, int extendedStride, int outWidth, int bayerPattern);

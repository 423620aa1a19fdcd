#pragma once

#include <cstddef>

#include "imgcore/kep_export.h"

// Scores the guides of frames 2 .. frameCount-1 for sharpness (mean absolute
// difference between a guide and its 1 2 4 2 1 blur) and writes exclusion flags
// for those frames into rejectFlags (entries 0 and 1 are never touched):
// - when the reference (*referenceIndex, read only) is at least 2% sharper than
//   the sharpest other frame, or the scores are degenerate (NaN margin), every
//   frame but the reference is flagged;
// - otherwise a frame is flagged when its score relative to the sharpest other
//   frame is below sharpnessRatio; that frame and the reference are not written.
// Nothing is written with fewer than three frames, or when *referenceIndex is not
// a frame index.
KEP_API void getClearestFrame(unsigned char** guides, int frameCount, int* referenceIndex, char* rejectFlags,
                              float sharpnessRatio, int width, int height);

// 0/255 mask of strong gradients: the guide is blurred with the 1 2 4 2 1 kernel
// and a pixel is an edge when gx^2 + gy^2 >= threshold^2 for the 3x3 Sobel
// differences of the blurred image. A five-pixel frame of the mask stays 0, and
// the whole mask is 0 for guides narrower than 18 or shorter than 11 pixels.
KEP_API void edgeDetection(unsigned char* src, unsigned char* mask, int width, int height, int threshold);

// Sharpness score of one guide: sum over all pixels, in pixel order and in single
// precision, of |guide - blur| divided by the pixel count. blur must hold
// width * height bytes whose two-pixel border is 0; only its interior is
// rewritten, so the border pixels count with their full guide value.
float guideSharpness(const unsigned char* guide, unsigned char* blur, int width, int height);

namespace sharpness_detail {
// Sum of |a[i] - b[i]| accumulated in single precision in index order (plain),
// and the same value taken from the exact integer total while that total is
// below 2^24 (differenceSum, which falls back to the plain sum otherwise).
float differenceSumPlain(const unsigned char* a, const unsigned char* b, std::size_t n);
float differenceSum(const unsigned char* a, const unsigned char* b, std::size_t n);
}  // namespace sharpness_detail

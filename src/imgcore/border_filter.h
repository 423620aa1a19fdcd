#pragma once

#include "imgcore/kep_export.h"

namespace zel {
namespace cpp {
namespace imgproc {

// Sparse-tap 2-D filter for Bayer images. The kernel has (2*radius+1)^2 entries,
// row-major; tap (dy, dx) reads src[y + dy*stepY][x + dx*stepX], so with steps of 2
// every tap lands on the colour of the output site.
//
// Each output is (sum of kernel * sample + offset) / kernelSum, the quotient taken
// in double precision and truncated toward zero, then stored in T. kernelSum is the
// sum of all entries (0 counts as 1); offset is kernelSum/2 when `round` is set,
// else 0. The products are summed exactly (64-bit integers).
//
// Borders: a tap row above the image moves down by stepY*radius rows, one below it
// moves up by the same amount (columns alike with stepX), which keeps it on the
// same colour. On images smaller than 2*step*radius that single move can still
// land outside (e.g. a 2x2 image with radius 2, step 2); such a tap is clamped to
// the nearest row (column) inside the image with the same phase modulo the step,
// or to the nearest row (column) when the image is narrower than the step. Where
// the single move stays inside the image the clamp never applies.
//
// src and dst may be the same buffer, or overlap: the source is then copied to
// scratch first. Strides are in bytes; 0 means width * sizeof(T).
//
// Returns 0 on success; -2 when src, dst or kernel is null; -4 when radius exceeds
// width or height, when width is not a multiple of stepX AND height is not a
// multiple of stepY (one of the two is enough to pass), and also for sizes that
// cannot be filtered at all (width or height < 1, negative radius, step < 1).
// Nothing is written on error.
//
// Explicitly instantiated for <short, int>.
template <typename T, typename K>
KEP_API int multiChannelFilterBorderCopy_v00(const T* src, T* dst, int width, int height, int srcStrideBytes,
                                             int dstStrideBytes, const K* kernel, int radius, int stepY, int stepX,
                                             bool round);

// Index of tap position p in [0, n) after the border move described above
// (internal; exposed for tests).
int foldTapIndex(long long p, int n, int step, int radius);

}  // namespace imgproc
}  // namespace cpp
}  // namespace zel

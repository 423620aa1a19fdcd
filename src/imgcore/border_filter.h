#pragma once

#include "imgcore/kep_export.h"

namespace zel {
namespace cpp {
namespace imgproc {

// Sparse-tap 2-D filter: kernel of (2*radius+1)^2 entries whose taps lie stepY
// rows and stepX columns apart. Taps outside the image fold back by
// step*radius so that they stay on the same Bayer colour. Returns 0, -2 for a null
// pointer, -4 for bad sizes. Strides are in bytes; 0 means 2 * width.
// Explicitly instantiated for <short, int>.
template <typename T, typename K>
KEP_API int multiChannelFilterBorderCopy_v00(const T* src, T* dst, int width, int height, int srcStrideBytes,
                                             int dstStrideBytes, const K* kernel, int radius, int stepY, int stepX,
                                             bool round);

}  // namespace imgproc
}  // namespace cpp
}  // namespace zel

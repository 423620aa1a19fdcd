#pragma once

#include "imgcore/kep_export.h"

// Curvature of a 3x3 neighbourhood g (row-major, g[4] the centre) into h[4]:
// h[0] second difference down the column, h[3] along the row, h[1] = h[2] the
// mixed term (g0 + g8 - g2 - g6) / 4.
KEP_API void qnCalcHessian(float* g, float* h);
KEP_API void qnCalcHessian(unsigned char* g, float* h);

// Curvature read directly around pixel (x, y) of an 8-bit image with the given
// row stride. Deliberately asymmetric, as the feature detector's thresholds were
// tuned on it: the column term counts the pixel below twice and the pixel above
// not at all, and the mixed term is (top-left - bottom-left) / 4. `height` is
// not used.
KEP_API void qnCalcHessianFromImg(unsigned char* img, int x, int y, int stride, int height, float* h);

#pragma once

#include "imgcore/kep_export.h"
#include "imgcore/types.h"

// Sub-pixel position of the extremum of nine cost samples v (3x3, row-major, the
// centre at v[4]) from a Gaussian-weighted quadratic fit. Returns 0 and writes the
// Newton step from the centre into offset; returns -1 with offset untouched when
// the fit is degenerate: the fitted curvature has a zero determinant in single
// precision, or one too small for the 2x2 inverse (|det| < 1e-9), which is what
// nine equal samples give after the rounding of the stored fit.
KEP_API int qnDetectSubpixel(double* v, Point2f& offset);

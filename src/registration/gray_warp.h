#pragma once

#include "imgcore/kep_export.h"
#include "imgcore/types.h"
#include "motion/matrix.h"

// Warps a rectangle of an 8-bit gray image (width x height, stride width) through
// one model: a 3x3 matrix whose first two rows map output positions to source
// positions, with its translation doubled. The model is evaluated once per run of
// pixels; the run is longer the closer the model is to a pure translation (one run
// per row for a pure translation). Pixels whose source lies outside the image keep
// what dst held. Returns 0.
KEP_API int qnWarpImgSmallGray(Rect region, Matrix model, int width, int height, unsigned char* src,
                               unsigned char* dst);

// Warps the rectangle box of an 8-bit gray image through the affine model (gx, gy)
// of a grid four models wide (9 floats per model, only the first six read), blended
// with its neighbours to the left, above and above-left so that neighbouring cells
// join without seams: the top row follows the models above, lower rows approach
// the cell's own models. Pixels whose source lies outside the image are not
// written.
KEP_API void qnWarpImgBilinear(rect box, float* models, unsigned char* src, unsigned char* dst, int width,
                               int height, int gx, int gy);

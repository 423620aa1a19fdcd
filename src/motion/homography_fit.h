#pragma once

#include "imgcore/kep_export.h"
#include "imgcore/types.h"
#include "motion/matrix.h"

// The motion model is a 2x3 Matrix [h0 h1 h2; h3 h4 h5] mapping (x, y) to
// (h0*x + h1*y + h2, h3*x + h4*y + h5). Fits write an empty H (state 0) as a newly
// allocated 2x3 matrix and a non-empty H in place. Fit status: 1 done (or nothing
// to do), 0 singular normal matrix with H left as it was.

// Squared distance between H applied to p and q, in pixels squared. H needs
// three columns and at least two rows; any other shape gives NaN.
KEP_API double calc_homo_error(Matrix H, Point2f p, Point2f q);

// out = H applied to in (in and out may be the same point). H must hold at least
// six elements; otherwise out is left alone.
KEP_API void homographyTransferPoint(Matrix H, Point2f* in, Point2f* out);

// Exact model through a sample of exactly three correspondences; any other n
// returns 1 without touching H, as do H shapes other than 2x3.
KEP_API int calc_homo_from_points(Point2f* src, Point2f* dst, Matrix& H, int n);

// Ordinary least squares. Fewer than three correspondences give the identity
// model; more than 1000 return 1 with H untouched (though an empty H has already
// been allocated by then).
KEP_API int calc_homo_lsq(Point2f* src, Point2f* dst, Matrix& H, int n);

// Weighted least squares with an n x n weight matrix W (weights on its diagonal
// for the usual weighting). More than 1000 correspondences return 1 before H is
// even allocated; fewer than three write the identity model into H whatever its
// shape (if it holds six elements). A W that is not n x n returns 1 with H
// untouched.
KEP_API int calc_homo_wlsq(Point2f* src, Point2f* dst, Matrix& H, Matrix W, int n);

// Mean squared residual of the least-squares line y = a*x + b through the points;
// 10000.0 for more than 1000 points. Point sets whose line system is singular
// (no points, one point, or all points sharing one x: a vertical line) give 0.0,
// i.e. they count as perfectly collinear.
KEP_API double linearity_error(Point2f* pts, int n);

// ---- internal helpers (not exported) ----

// Maps (x, y) through the first two rows of a three-column model with exactly the
// arithmetic of matrix_dot_product(H, [x y 1]^T): each row starts from +0.0 and
// adds h(r,0)*x, h(r,1)*y and h(r,2)*1.0 in turn. Returns false, leaving u and v
// alone, when H is not a model of that shape.
inline bool mapThroughModel(const Matrix& H, double x, double y, double& u, double& v) {
    if (H.cols != 3 || H.rows < 2 || H.data == nullptr) return false;
    const double* h = H.data;
    u = ((0.0 + h[0] * x) + h[1] * y) + h[2] * 1.0;
    v = ((0.0 + h[3] * x) + h[4] * y) + h[5] * 1.0;
    return true;
}

// P = At * W for a 3 x n At and an n x n W. When every off-diagonal weight is zero
// and every entry of At is finite, each element of the full product reduces
// exactly to +0.0 + At(i,j)*W(j,j) (the zero terms add signed zeros that cannot
// change a non-zero partial sum, and a +0.0 start absorbs them otherwise), which
// is what is computed then; any other W goes through matrix_dot_product. P
// follows the output conventions of matrix_dot_product.
void weightedTransposeProduct(Matrix At, Matrix W, Matrix& P);

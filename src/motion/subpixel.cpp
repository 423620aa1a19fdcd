#include "motion/subpixel.h"

#include "motion/matrix.h"

namespace {

// Gaussian-weighted (exp(-(u^2 + w^2) / 10)) least-squares fit of
// A*u^2 + B*u*w + C*w^2 + D*u + E*w + F to the nine samples, u the row offset and
// w the column offset; the rows give 2A, B, 2C, D, E and F. The stored values are
// used as they are.
const double kQuadraticFit[6 * 9] = {
    0.3220434657357109,  0.3559130685285782,  0.3220434657357109,  -0.6440869314714218, -0.7118261370571565,
    -0.6440869314714218, 0.3220434657357109,  0.3559130685285782,  0.3220434657357109,  //
    0.25,                0,                   -0.25,               0,                   0,
    0,                   -0.25,               0,                   0.25,  //
    0.3220434657357111,  -0.6440869314714218, 0.3220434657357111,  0.3559130685285782,  -0.7118261370571567,
    0.3559130685285782,  0.3220434657357111,  -0.6440869314714218, 0.3220434657357111,  //
    -0.161021732763031,  -0.177956534473938,  -0.161021732763031,  0,                   0,
    0,                   0.161021732763031,   0.177956534473938,   0.161021732763031,  //
    -0.161021732763031,  0,                   0.161021732763031,   -0.177956534473938,  0,
    0.177956534473938,   -0.161021732763031,  0,                   0.161021732763031,  //
    -0.1037119938603764, 0.2074239877207528,  -0.1037119938603764, 0.2074239877207528,  0.5851520245584946,
    0.2074239877207528,  -0.1037119938603764, 0.2074239877207528,  -0.1037119938603764,
};

}  // namespace

int qnDetectSubpixel(double* v, Point2f& offset) {
    // The product only reads its inputs; the table stays constant.
    Matrix fit = matrixWrap(const_cast<double*>(kQuadraticFit), 6, 9);
    double coeff[6];
    Matrix c = matrixWrap(coeff, 6, 1);
    matrix_dot_product(fit, matrixWrap(v, 9, 1), c);

    // Curvature (rows first) and gradient of the fitted surface.
    if (static_cast<float>(coeff[0] * coeff[2] - coeff[1] * coeff[1]) == 0.0f) return -1;
    double curvature[4] = {coeff[0], coeff[1], coeff[1], coeff[2]};
    // The 2x2 inverse also refuses curvatures with |det| < 1e-9 that are non-zero
    // in single precision (nine equal samples end up here through the rounding of
    // the stored fit): such a fit is degenerate as well.
    double inverse[4];
    Matrix inv = matrixWrap(inverse, 2, 2);
    if (matrix_inverse_2x2(matrixWrap(curvature, 2, 2), inv) != 0) return -1;
    double step[2];
    Matrix r = matrixWrap(step, 2, 1);
    matrix_dot_product(inv, matrixWrap(coeff + 3, 2, 1), r);

    // Newton step to the extremum; the first component is along the rows.
    offset.x = static_cast<float>(-step[1]);
    offset.y = static_cast<float>(-step[0]);
    return 0;
}

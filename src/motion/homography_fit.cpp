#include "motion/homography_fit.h"

#include <cmath>
#include <cstdlib>
#include <limits>
#include <vector>

namespace {

constexpr int kMaxCorrespondences = 1000;

void allocateModel(Matrix& H) {
    H.data = static_cast<double*>(std::calloc(6, sizeof(double)));
    H.rows = 2;
    H.cols = 3;
    H.state = 2;
}

bool isModelShape(const Matrix& H) { return H.rows == 2 && H.cols == 3; }

// Writes [1 0 0; 0 1 0] into the first six elements of H.
void setIdentity(Matrix& H) {
    if (H.data == nullptr || static_cast<long long>(H.rows) * H.cols < 6) return;
    const double identity[6] = {1.0, 0.0, 0.0, 0.0, 1.0, 0.0};
    for (int i = 0; i < 6; ++i) H.data[i] = identity[i];
}

bool offDiagonalIsZero(const Matrix& W) {
    for (int k = 0; k < W.rows; ++k) {
        const double* row = W.data + static_cast<size_t>(k) * static_cast<size_t>(W.cols);
        for (int j = 0; j < W.cols; ++j)
            if (j != k && !(row[j] == 0.0)) return false;
    }
    return true;
}

bool allFinite(const Matrix& m) {
    const long long count = static_cast<long long>(m.rows) * m.cols;
    for (long long i = 0; i < count; ++i)
        if (!std::isfinite(m.data[i])) return false;
    return true;
}

// Solves the normal equations of the model for n correspondences, optionally
// weighted by W, and writes the result into the 2x3 H. Every product goes through
// matrix_dot_product in the association ((Ninv * P) * b) with N = P * A, so that
// results agree to the last bit.
int solveNormalEquations(const Point2f* src, const Point2f* dst, int n, const Matrix* W, Matrix& H) {
    const size_t count = static_cast<size_t>(n);
    std::vector<double> a(3 * count), at(3 * count), weighted(W ? 3 * count : 0), m(3 * count);
    std::vector<double> bx(count), by(count);
    for (size_t i = 0; i < count; ++i) {
        a[3 * i] = src[i].x;
        a[3 * i + 1] = src[i].y;
        a[3 * i + 2] = 1.0;
        bx[i] = dst[i].x;
        by[i] = dst[i].y;
    }
    const Matrix A = matrixWrap(a.data(), n, 3);
    Matrix At = matrixWrap(at.data(), 3, n);
    matrix_transpose(A, At);

    Matrix P = At;
    if (W) {
        P = matrixWrap(weighted.data(), 3, n);
        weightedTransposeProduct(At, *W, P);
    }

    double normal[9], normalInverse[9];
    Matrix N = matrixWrap(normal, 3, 3);
    matrix_dot_product(P, A, N);
    Matrix Ninv = matrixWrap(normalInverse, 3, 3);
    if (matrix_inverse_3x3(N, Ninv) != 0) return 0;

    Matrix M = matrixWrap(m.data(), 3, n);
    matrix_dot_product(Ninv, P, M);
    double hx[3], hy[3];
    Matrix Hx = matrixWrap(hx, 3, 1);
    Matrix Hy = matrixWrap(hy, 3, 1);
    matrix_dot_product(M, matrixWrap(bx.data(), n, 1), Hx);
    matrix_dot_product(M, matrixWrap(by.data(), n, 1), Hy);

    for (int i = 0; i < 3; ++i) {
        H.data[i] = hx[i];
        H.data[3 + i] = hy[i];
    }
    return 1;
}

}  // namespace

void weightedTransposeProduct(Matrix At, Matrix W, Matrix& P) {
    if (At.cols != W.rows || W.rows != W.cols || !offDiagonalIsZero(W) || !allFinite(At)) {
        matrix_dot_product(At, W, P);
        return;
    }
    const int n = W.cols;
    if (P.state == 0) {  // allocated as matrix_dot_product would
        P.data = static_cast<double*>(std::calloc(static_cast<size_t>(At.rows) * static_cast<size_t>(n), sizeof(double)));
        P.rows = At.rows;
        P.cols = n;
        P.state = 2;
    }
    for (int i = 0; i < At.rows; ++i)
        for (int j = 0; j < n; ++j)
            P.data[static_cast<size_t>(i) * n + j] =
                0.0 + At.data[static_cast<size_t>(i) * n + j] * W.data[static_cast<size_t>(j) * n + j];
}

double calc_homo_error(Matrix H, Point2f p, Point2f q) {
    double u, v;
    if (!mapThroughModel(H, p.x, p.y, u, v)) return std::numeric_limits<double>::quiet_NaN();
    const double du = q.x - u;
    const double dv = q.y - v;
    return du * du + dv * dv;
}

void homographyTransferPoint(Matrix H, Point2f* in, Point2f* out) {
    if (H.data == nullptr || static_cast<long long>(H.rows) * H.cols < 6) return;
    const double* h = H.data;
    const double x = in->x;
    const double y = in->y;
    out->x = static_cast<float>(h[2] + (h[0] * x + h[1] * y));
    out->y = static_cast<float>(h[5] + (h[3] * x + h[4] * y));
}

int calc_homo_from_points(Point2f* src, Point2f* dst, Matrix& H, int n) {
    // Only minimal samples are fitted; callers guarantee n == 3.
    if (n != 3) return 1;
    if (H.state == 0)
        allocateModel(H);
    else if (H.cols != 3)
        return 1;
    if (H.rows != 2) return 1;
    return solveNormalEquations(src, dst, n, nullptr, H);
}

int calc_homo_lsq(Point2f* src, Point2f* dst, Matrix& H, int n) {
    if (H.state == 0)
        allocateModel(H);
    else if (H.cols != 3)
        return 1;
    if (H.rows != 2) return 1;
    if (n < 3) {
        setIdentity(H);
        return 1;
    }
    if (n > kMaxCorrespondences) return 1;
    return solveNormalEquations(src, dst, n, nullptr, H);
}

int calc_homo_wlsq(Point2f* src, Point2f* dst, Matrix& H, Matrix W, int n) {
    // Oversized sets are refused before anything else, unlike calc_homo_lsq.
    if (n > kMaxCorrespondences) return 1;
    if (H.state == 0) allocateModel(H);
    if (n < 3) {
        setIdentity(H);
        return 1;
    }
    if (!isModelShape(H)) return 1;
    if (W.rows != n || W.cols != n || W.data == nullptr) return 1;
    return solveNormalEquations(src, dst, n, &W, H);
}

double linearity_error(Point2f* pts, int n) {
    if (n > kMaxCorrespondences) return 10000.0;
    if (n <= 0) return 0.0;
    const size_t count = static_cast<size_t>(n);
    std::vector<double> a(2 * count), at(2 * count), m(2 * count), ys(count);
    for (size_t i = 0; i < count; ++i) {
        a[2 * i] = pts[i].x;
        a[2 * i + 1] = 1.0;
        ys[i] = pts[i].y;
    }
    const Matrix A = matrixWrap(a.data(), n, 2);
    Matrix At = matrixWrap(at.data(), 2, n);
    matrix_transpose(A, At);
    double normal[4], normalInverse[4];
    Matrix N = matrixWrap(normal, 2, 2);
    matrix_dot_product(At, A, N);
    Matrix Ninv = matrixWrap(normalInverse, 2, 2);
    // A singular line system means the points share one x: they lie on a line.
    if (matrix_inverse_2x2(N, Ninv) != 0) return 0.0;
    Matrix M = matrixWrap(m.data(), 2, n);
    matrix_dot_product(Ninv, At, M);
    double line[2];
    Matrix L = matrixWrap(line, 2, 1);
    matrix_dot_product(M, matrixWrap(ys.data(), n, 1), L);

    const double slope = line[0];
    const double offset = line[1];
    double sum = 0.0;
    for (size_t i = 0; i < count; ++i) {
        const double r = (offset + slope * static_cast<double>(pts[i].x)) - static_cast<double>(pts[i].y);
        sum += r * r;
    }
    return sum / n;
}

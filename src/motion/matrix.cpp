#include "motion/matrix.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

// Gives an empty output its own zeroed rows x cols buffer; outputs that already
// hold a buffer are written as they stand.
void allocateIfEmpty(Matrix& m, int rows, int cols) {
    if (m.state != 0) return;
    m.data = static_cast<double*>(std::calloc(static_cast<size_t>(rows) * static_cast<size_t>(cols), sizeof(double)));
    m.rows = rows;
    m.cols = cols;
    m.state = 2;
}

}  // namespace

void matrixRelease(Matrix& m) {
    if (m.state == 2) std::free(m.data);
    m = matrixEmpty();
}

void Matrix::copyTo(Matrix& dst) {
    if (dst.state != 0) {
        if (dst.rows != rows || dst.cols != cols) {
            std::free(dst.data);
            dst.state = 0;
        }
    }
    allocateIfEmpty(dst, rows, cols);
    const size_t n = static_cast<size_t>(rows) * static_cast<size_t>(cols);
    if (n > 0) std::memcpy(dst.data, data, n * sizeof(double));
}

std::ostream& operator<<(std::ostream& os, Matrix& m) {
    for (int i = 0; i < m.rows; ++i) {
        for (int j = 0; j < m.cols; ++j) os << m.data[i * m.cols + j] << ", ";
        os << std::endl;
    }
    return os;
}

double det_matrix_3x3(Matrix a) {
    const double* x = a.data;
    // The order of evaluation fixes the rounding that the singularity test sees.
    return ((x[2] * x[3]) * x[7] + ((x[1] * x[5]) * x[6] + (x[0] * x[4]) * x[8])) - x[2] * (x[4] * x[6]) -
           x[0] * (x[5] * x[7]) - x[1] * (x[3] * x[8]);
}

void adj_matrix_3x3(Matrix a, Matrix& out) {
    const double* x = a.data;
    allocateIfEmpty(out, 3, 3);
    double* o = out.data;
    o[0] = x[4] * x[8] - x[5] * x[7];
    o[1] = x[2] * x[7] - x[1] * x[8];
    o[2] = x[1] * x[5] - x[2] * x[4];
    o[3] = x[5] * x[6] - x[3] * x[8];
    o[4] = x[0] * x[8] - x[2] * x[6];
    o[5] = x[2] * x[3] - x[0] * x[5];
    o[6] = x[3] * x[7] - x[4] * x[6];
    o[7] = x[1] * x[6] - x[0] * x[7];
    o[8] = x[0] * x[4] - x[1] * x[3];
}

int matrix_inverse_3x3(Matrix a, Matrix& out, double& det) {
    det = det_matrix_3x3(a);
    if (std::fabs(det) < 1e-9) return -1;
    adj_matrix_3x3(a, out);
    const int n = a.rows * a.cols;
    for (int i = 0; i < n; ++i) out.data[i] /= det;
    return 0;
}

int matrix_inverse_3x3(Matrix a, Matrix& out) {
    double det;
    return matrix_inverse_3x3(a, out, det);
}

int matrix_inverse_2x2(Matrix a, Matrix& out) {
    const double* x = a.data;
    const double det = x[0] * x[3] - x[1] * x[2];
    if (std::fabs(det) < 1e-9) return -1;
    allocateIfEmpty(out, 2, 2);
    out.data[0] = x[3] / det;
    out.data[1] = -x[1] / det;
    out.data[2] = -x[2] / det;
    out.data[3] = x[0] / det;
    return 0;
}

void matrix_transpose(Matrix a, Matrix& out) {
    allocateIfEmpty(out, a.cols, a.rows);
    for (int i = 0; i < a.rows; ++i)
        for (int j = 0; j < a.cols; ++j) out.data[j * a.rows + i] = a.data[i * a.cols + j];
}

void matrix_dot_product(Matrix a, Matrix b, Matrix& out) {
    if (a.cols != b.rows) return;
    allocateIfEmpty(out, a.rows, b.cols);
    const int n = a.rows * b.cols;
    for (int i = 0; i < n; ++i) out.data[i] = 0.0;
    // Accumulate straight into the output, in increasing k from zero.
    for (int i = 0; i < a.rows; ++i)
        for (int j = 0; j < b.cols; ++j)
            for (int k = 0; k < a.cols; ++k) out.data[i * b.cols + j] += a.data[i * a.cols + k] * b.data[k * b.cols + j];
}

#pragma once

#include <ostream>
#include <type_traits>

#include "imgcore/kep_export.h"

// Small dense row-major matrix of doubles. Passing by value makes a shallow copy
// that shares the buffer; nothing is released implicitly. `state` records who owns
// the buffer:
//   0  no buffer yet (an output routine allocates one with calloc),
//   1  wraps a buffer owned by someone else,
//   2  buffer calloc'ed by a matrix routine; its creator releases it with free().
class KEP_API Matrix {
public:
    double* data;
    int rows;
    int cols;
    int state;

    // Deep copy into dst. A target of another shape is freed (whatever its state)
    // and reallocated; a target of the same shape keeps its buffer.
    void copyTo(Matrix& dst);
};

static_assert(std::is_trivially_copyable<Matrix>::value, "Matrix is passed by value as a shallow copy");
static_assert(std::is_trivially_destructible<Matrix>::value, "Matrix never releases its buffer implicitly");
static_assert(std::is_standard_layout<Matrix>::value, "Matrix field order is part of the interface");

// Helpers for building matrices inside the library (not exported).
inline Matrix matrixEmpty() { return Matrix{nullptr, 0, 0, 0}; }
inline Matrix matrixWrap(double* data, int rows, int cols) { return Matrix{data, rows, cols, 1}; }
// Releases a buffer allocated by a matrix routine and returns the matrix to state 0.
void matrixRelease(Matrix& m);

// Prints each row as "v, v, ..., " followed by a newline, then flushes.
KEP_API std::ostream& operator<<(std::ostream& os, Matrix& m);

KEP_API double det_matrix_3x3(Matrix a);
KEP_API void adj_matrix_3x3(Matrix a, Matrix& out);
// 0 on success, -1 when |det| < 1e-9 (out untouched).
KEP_API int matrix_inverse_3x3(Matrix a, Matrix& out);
KEP_API int matrix_inverse_3x3(Matrix a, Matrix& out, double& det);
KEP_API int matrix_inverse_2x2(Matrix a, Matrix& out);
KEP_API void matrix_transpose(Matrix a, Matrix& out);
// out = a * b; returns without touching out when a.cols != b.rows.
KEP_API void matrix_dot_product(Matrix a, Matrix b, Matrix& out);

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "motion/matrix.h"

namespace {

struct Owned {
    Matrix m = matrixEmpty();
    ~Owned() { matrixRelease(m); }
};

TEST(Matrix, InverseRefusesNearlySingularAndLeavesOutputUntouched) {
    double a[9] = {5e-10, 0, 0, 0, 1, 0, 0, 0, 1};
    double o[9] = {7, 7, 7, 7, 7, 7, 7, 7, 7};
    Matrix out = matrixWrap(o, 3, 3);
    double det = 0;
    EXPECT_EQ(matrix_inverse_3x3(matrixWrap(a, 3, 3), out, det), -1);
    EXPECT_DOUBLE_EQ(det, 5e-10);
    for (double v : o) EXPECT_EQ(v, 7.0);

    double b[4] = {1e-5, 0, 0, 1e-5};  // det 1e-10
    Owned inv2;
    EXPECT_EQ(matrix_inverse_2x2(matrixWrap(b, 2, 2), inv2.m), -1);
    EXPECT_EQ(inv2.m.state, 0);  // not even allocated
}

TEST(Matrix, InverseTimesMatrixIsIdentity) {
    double a[9] = {2, 1, 0, 1, 3, 1, 0, 1, 4};
    Owned inv, prod;
    ASSERT_EQ(matrix_inverse_3x3(matrixWrap(a, 3, 3), inv.m), 0);
    EXPECT_EQ(inv.m.state, 2);
    matrix_dot_product(matrixWrap(a, 3, 3), inv.m, prod.m);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) EXPECT_NEAR(prod.m.data[i * 3 + j], i == j ? 1.0 : 0.0, 1e-12);
    EXPECT_DOUBLE_EQ(det_matrix_3x3(matrixWrap(a, 3, 3)), 18.0);

    double b[4] = {4, 7, 2, 6};
    Owned inv2;
    ASSERT_EQ(matrix_inverse_2x2(matrixWrap(b, 2, 2), inv2.m), 0);
    EXPECT_DOUBLE_EQ(inv2.m.data[0], 0.6);
    EXPECT_DOUBLE_EQ(inv2.m.data[1], -0.7);
}

TEST(Matrix, ProductShapesAndWrongShapedOutputs) {
    double a[6] = {1, 2, 3, 4, 5, 6};  // 2x3
    Owned t;
    matrix_transpose(matrixWrap(a, 2, 3), t.m);
    ASSERT_EQ(t.m.rows, 3);
    ASSERT_EQ(t.m.cols, 2);
    EXPECT_EQ(t.m.data[1], 4.0);

    // Mismatched inner sizes: output left alone.
    Owned none;
    matrix_dot_product(matrixWrap(a, 2, 3), matrixWrap(a, 2, 3), none.m);
    EXPECT_EQ(none.m.state, 0);

    // An allocated output of the wrong shape is written as it stands.
    double buf[9] = {};
    Matrix wrong = matrixWrap(buf, 3, 3);
    matrix_dot_product(matrixWrap(a, 2, 3), t.m, wrong);  // 2x2 product
    EXPECT_EQ(wrong.rows, 3);
    EXPECT_EQ(buf[0], 14.0);
    EXPECT_EQ(buf[3], 77.0);
    EXPECT_EQ(buf[4], 0.0);
}

TEST(Matrix, CopyToReusesSameShapeAndReallocatesOtherShapes) {
    double a[4] = {1, 2, 3, 4};
    Matrix src = matrixWrap(a, 2, 2);
    Owned dst;
    src.copyTo(dst.m);
    EXPECT_EQ(dst.m.state, 2);
    double* first = dst.m.data;
    src.copyTo(dst.m);
    EXPECT_EQ(dst.m.data, first);

    double* foreign = static_cast<double*>(std::calloc(9, sizeof(double)));
    Matrix wrapped = matrixWrap(foreign, 3, 3);  // freed by copyTo on reshape
    src.copyTo(wrapped);
    EXPECT_EQ(wrapped.rows, 2);
    EXPECT_EQ(wrapped.state, 2);
    EXPECT_EQ(wrapped.data[3], 4.0);
    matrixRelease(wrapped);
}

TEST(Matrix, PrintsEveryElementFollowedByCommaSpace) {
    double a[4] = {1, 2.5, -3, 4};
    Matrix m = matrixWrap(a, 2, 2);
    std::ostringstream os;
    os << m;
    EXPECT_EQ(os.str(), "1, 2.5, \n-3, 4, \n");
    Matrix empty = matrixEmpty();
    std::ostringstream none;
    none << empty;
    EXPECT_EQ(none.str(), "");
}

}  // namespace

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "motion/homography_fit.h"

namespace {

struct Owned {
    Matrix m = matrixEmpty();
    ~Owned() { matrixRelease(m); }
};

const double kAffine[6] = {1.02, -0.03, 4.5, 0.025, 0.98, -2.25};

Point2f applyAffine(const double* h, Point2f p) {
    return Point2f{static_cast<float>(h[0] * p.x + h[1] * p.y + h[2]), static_cast<float>(h[3] * p.x + h[4] * p.y + h[5])};
}

// Identical bits, or NaN on both sides (which NaN operand propagates through an
// addition is left to the compiler, which may commute it).
bool sameResult(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0 || (std::isnan(a) && std::isnan(b)); }

// Values that exercise signed zeros and non-finite arithmetic.
double specialOrRandom(std::mt19937& rng) {
    const double specials[] = {0.0, -0.0, 1.0, -1.0, std::numeric_limits<double>::infinity(),
                               -std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN(),
                               std::numeric_limits<double>::denorm_min(), 1e300};
    std::uniform_int_distribution<int> pick(0, 17);
    const int k = pick(rng);
    if (k < 9) return specials[k];
    return std::uniform_real_distribution<double>(-100.0, 100.0)(rng);
}

// Point coordinates: float special values (converting out-of-range doubles to
// float is undefined) or random values.
float specialOrRandomFloat(std::mt19937& rng) {
    const double v = specialOrRandom(rng);
    if (std::isnan(v) || std::isinf(v)) return static_cast<float>(v);
    if (std::fabs(v) > 1e30) return std::numeric_limits<float>::max();
    return static_cast<float>(v);
}

TEST(HomographyFit, ErrorAndTransferOfKnownModels) {
    double identity[6] = {1, 0, 0, 0, 1, 0};
    EXPECT_EQ(calc_homo_error(matrixWrap(identity, 2, 3), Point2f{1, 2}, Point2f{4, 6}), 25.0);
    EXPECT_TRUE(std::isnan(calc_homo_error(matrixWrap(identity, 1, 3), Point2f{1, 2}, Point2f{4, 6})));
    EXPECT_TRUE(std::isnan(calc_homo_error(matrixEmpty(), Point2f{1, 2}, Point2f{4, 6})));

    double h[6] = {2, 1, 3, -1, 0.5, 10};
    Point2f p = {4, 6};
    homographyTransferPoint(matrixWrap(h, 2, 3), &p, &p);  // in place
    EXPECT_EQ(p.x, 17.0f);
    EXPECT_EQ(p.y, 9.0f);
    EXPECT_EQ(calc_homo_error(matrixWrap(h, 2, 3), Point2f{4, 6}, Point2f{17, 9}), 0.0);
}

TEST(HomographyFit, ModelMappingEqualsMatrixProductBitForBit) {
    std::mt19937 rng(21);
    for (int t = 0; t < 20000; ++t) {
        double h[6];
        for (double& v : h) v = specialOrRandom(rng);
        const float x = specialOrRandomFloat(rng), y = specialOrRandomFloat(rng);
        double column[3] = {x, y, 1.0}, product[2];
        Matrix out = matrixWrap(product, 2, 1);
        matrix_dot_product(matrixWrap(h, 2, 3), matrixWrap(column, 3, 1), out);
        double u, v, pu, pv;
        ASSERT_TRUE(mapThroughModel(matrixWrap(h, 2, 3), x, y, u, v));
        ASSERT_TRUE(sameResult(u, product[0]) && sameResult(v, product[1])) << t;
        ASSERT_TRUE(mapThroughProduct(matrixWrap(h, 2, 3), x, y, pu, pv));
        ASSERT_TRUE(sameResult(pu, product[0]) && sameResult(pv, product[1])) << t;

        const Point2f q = {specialOrRandomFloat(rng), specialOrRandomFloat(rng)};
        const double du = q.x - product[0], dv = q.y - product[1];
        ASSERT_TRUE(sameResult(calc_homo_error(matrixWrap(h, 2, 3), Point2f{x, y}, q), du * du + dv * dv)) << t;
    }
}

TEST(HomographyFit, ExactFitFromThreePoints) {
    Point2f src[3] = {{10, 12}, {50, 15}, {30, 40}}, dst[3];
    for (int i = 0; i < 3; ++i) dst[i] = applyAffine(kAffine, src[i]);
    Owned H;
    EXPECT_EQ(calc_homo_from_points(src, dst, H.m, 3), 1);
    ASSERT_EQ(H.m.state, 2);
    ASSERT_EQ(H.m.rows, 2);
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(H.m.data[i], kAffine[i], 1e-5) << i;

    // Collinear sources: singular, H keeps what it held.
    Point2f line[3] = {{0, 1}, {1, 3}, {2, 5}};
    double kept[6] = {7, 7, 7, 7, 7, 7};
    Matrix wrapped = matrixWrap(kept, 2, 3);
    EXPECT_EQ(calc_homo_from_points(line, dst, wrapped, 3), 0);
    for (double v : kept) EXPECT_EQ(v, 7.0);

    // Anything but three points, or a model of another shape: 1, nothing written.
    EXPECT_EQ(calc_homo_from_points(src, dst, wrapped, 4), 1);
    Owned untouched;
    EXPECT_EQ(calc_homo_from_points(src, dst, untouched.m, 2), 1);
    EXPECT_EQ(untouched.m.state, 0);
    double square[9] = {};
    Matrix wrongRows = matrixWrap(square, 3, 3);
    EXPECT_EQ(calc_homo_from_points(src, dst, wrongRows, 3), 1);
    for (double v : square) EXPECT_EQ(v, 0.0);
}

TEST(HomographyFit, LeastSquaresLimitsAndRecovery) {
    std::mt19937 rng(4);
    std::uniform_real_distribution<float> pos(0.0f, 160.0f), noise(-0.25f, 0.25f);
    std::vector<Point2f> src(1001), dst(1001);
    for (size_t i = 0; i < src.size(); ++i) {
        src[i] = {pos(rng), pos(rng)};
        dst[i] = applyAffine(kAffine, src[i]);
        dst[i].x += noise(rng);
        dst[i].y += noise(rng);
    }
    Owned H;
    EXPECT_EQ(calc_homo_lsq(src.data(), dst.data(), H.m, 1000), 1);
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(H.m.data[i], kAffine[i], 0.05) << i;

    // Two points: identity.
    EXPECT_EQ(calc_homo_lsq(src.data(), dst.data(), H.m, 2), 1);
    const double identity[6] = {1, 0, 0, 0, 1, 0};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(H.m.data[i], identity[i]);

    // 1001 points: refused, H untouched; an empty H is allocated first.
    double stored[6] = {3, 3, 3, 3, 3, 3};
    Matrix wrapped = matrixWrap(stored, 2, 3);
    EXPECT_EQ(calc_homo_lsq(src.data(), dst.data(), wrapped, 1001), 1);
    for (double v : stored) EXPECT_EQ(v, 3.0);
    Owned fresh;
    EXPECT_EQ(calc_homo_lsq(src.data(), dst.data(), fresh.m, 1001), 1);
    EXPECT_EQ(fresh.m.state, 2);
    EXPECT_EQ(fresh.m.data[0], 0.0);

    // A 3x3 model is refused even for fewer than three points.
    double square[9] = {};
    Matrix wrong = matrixWrap(square, 3, 3);
    EXPECT_EQ(calc_homo_lsq(src.data(), dst.data(), wrong, 2), 1);
    for (double v : square) EXPECT_EQ(v, 0.0);
}

TEST(HomographyFit, WeightedLeastSquaresChecksInItsOwnOrder) {
    std::vector<Point2f> src(1001, Point2f{1, 1}), dst(1001, Point2f{1, 1});
    std::vector<double> w(4, 1.0);
    // Oversized: refused before allocation.
    Owned empty;
    EXPECT_EQ(calc_homo_wlsq(src.data(), dst.data(), empty.m, matrixWrap(w.data(), 2, 2), 1001), 1);
    EXPECT_EQ(empty.m.state, 0);
    // Fewer than three points: identity written whatever the shape.
    double square[9] = {9, 9, 9, 9, 9, 9, 9, 9, 9};
    Matrix wrong = matrixWrap(square, 3, 3);
    EXPECT_EQ(calc_homo_wlsq(src.data(), dst.data(), wrong, matrixWrap(w.data(), 2, 2), 2), 1);
    const double expected[9] = {1, 0, 0, 0, 1, 0, 9, 9, 9};
    for (int i = 0; i < 9; ++i) EXPECT_EQ(square[i], expected[i]);
    // Enough points but a 3x3 model: refused, untouched.
    std::vector<double> w3(9, 0.0);
    EXPECT_EQ(calc_homo_wlsq(src.data(), dst.data(), wrong, matrixWrap(w3.data(), 3, 3), 3), 1);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(square[i], expected[i]);
    // A weight matrix of the wrong size is refused.
    double model[6] = {5, 5, 5, 5, 5, 5};
    Matrix m = matrixWrap(model, 2, 3);
    EXPECT_EQ(calc_homo_wlsq(src.data(), dst.data(), m, matrixWrap(w.data(), 2, 2), 3), 1);
    for (double v : model) EXPECT_EQ(v, 5.0);
}

TEST(HomographyFit, ZeroWeightsIgnoreOutliers) {
    const int n = 40;
    std::mt19937 rng(8);
    std::uniform_real_distribution<float> pos(0.0f, 100.0f);
    std::vector<Point2f> src(n), dst(n);
    std::vector<double> w(n * n, 0.0);
    for (int i = 0; i < n; ++i) {
        src[i] = {pos(rng), pos(rng)};
        dst[i] = applyAffine(kAffine, src[i]);
        const bool outlier = i % 4 == 0;
        if (outlier) dst[i].x += 30.0f;
        w[static_cast<size_t>(i * n + i)] = outlier ? 0.0 : std::exp(-0.1 * i);
    }
    Owned H;
    ASSERT_EQ(calc_homo_wlsq(src.data(), dst.data(), H.m, matrixWrap(w.data(), n, n), n), 1);
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(H.m.data[i], kAffine[i], 1e-4) << i;
}

TEST(HomographyFit, DiagonalWeightProductEqualsFullProductBitForBit) {
    std::mt19937 rng(17);
    for (int n : {1, 3, 7, 16, 17, 64}) {
        for (int t = 0; t < 60; ++t) {
            std::vector<double> at(3 * static_cast<size_t>(n)), w(static_cast<size_t>(n * n), 0.0);
            const bool finiteA = t % 3 != 0;
            for (double& v : at) {
                v = specialOrRandom(rng);
                if (finiteA && !std::isfinite(v)) v = -0.0;
            }
            for (int j = 0; j < n; ++j) {
                w[static_cast<size_t>(j * n + j)] = specialOrRandom(rng);
                if (t % 2 == 0) w[static_cast<size_t>(((j + 1) % n) * n + j)] = (j % 2) ? -0.0 : 0.0;
            }
            if (t % 10 == 9 && n > 1) w[1] = 0.5;  // not diagonal: the plain product applies
            std::vector<double> fast(at.size(), 42.0), plain(at.size(), 42.0);
            Matrix pf = matrixWrap(fast.data(), 3, n), pp = matrixWrap(plain.data(), 3, n);
            weightedTransposeProduct(matrixWrap(at.data(), 3, n), matrixWrap(w.data(), n, n), pf);
            matrix_dot_product(matrixWrap(at.data(), 3, n), matrixWrap(w.data(), n, n), pp);
            for (size_t i = 0; i < fast.size(); ++i) ASSERT_TRUE(sameResult(fast[i], plain[i])) << n << " " << t << " " << i;
        }
    }
}

// The weighted fit from the diagonal alone against the fit through the full
// weight matrix: models and status bit for bit, for every set size the driver can
// produce (and past the limit), random and non-finite weights.
TEST(HomographyFit, DiagonalWeightedFitEqualsTheFullMatrixFit) {
    std::mt19937 rng(23);
    std::uniform_real_distribution<float> pos(-50.0f, 250.0f);
    for (int n : {0, 2, 3, 4, 17, 160, 1001}) {
        for (int t = 0; t < 6; ++t) {
            std::vector<Point2f> src(n), dst(n);
            std::vector<double> w(n), full(static_cast<size_t>(n) * n, 0.0);
            for (int i = 0; i < n; ++i) {
                src[i] = {pos(rng), pos(rng)};
                dst[i] = {src[i].x * 1.01f + pos(rng) * 0.01f, src[i].y * 0.99f + pos(rng) * 0.01f};
                w[i] = t == 5 && i == 1 ? std::nan("") : std::exp(-std::fabs(pos(rng)) * 0.01);
                full[static_cast<size_t>(i) * n + i] = w[i];
            }
            if (t == 4 && n == 3) src[2] = src[0];  // singular
            Owned fast, plain;
            const int fs = calcHomoWlsqDiagonal(src.data(), dst.data(), fast.m, w.data(), n);
            const int ps = calc_homo_wlsq(src.data(), dst.data(), plain.m, matrixWrap(full.data(), n, n), n);
            ASSERT_EQ(fs, ps) << n << " " << t;
            ASSERT_EQ(fast.m.state, plain.m.state);
            if (fast.m.data) {
                for (int i = 0; i < 6; ++i) ASSERT_TRUE(sameResult(fast.m.data[i], plain.m.data[i])) << n << " " << t;
            }
        }
    }
    Point2f bad[3] = {{1, 2}, {NAN, 0}, {5, 5}}, out[3] = {{1, 2}, {3, 4}, {5, 6}};
    double w[3] = {1, 1, 1};
    Owned H;
    EXPECT_EQ(calcHomoWlsqDiagonal(bad, out, H.m, w, 3), -1);
}

TEST(HomographyFit, LinearityError) {
    std::vector<Point2f> line;
    for (int i = 0; i < 30; ++i) line.push_back(Point2f{static_cast<float>(i), 2.0f * i + 1.0f});
    EXPECT_LT(linearity_error(line.data(), 30), 1e-20);

    Point2f bent[3] = {{0, 0}, {1, 1}, {2, 0}};  // best line y = 1/3
    EXPECT_NEAR(linearity_error(bent, 3), 2.0 / 9.0, 1e-12);

    std::vector<Point2f> many(1001, Point2f{0, 0});
    EXPECT_EQ(linearity_error(many.data(), 1001), 10000.0);

    // Singular line systems count as collinear.
    Point2f vertical[4] = {{5, 0}, {5, 10}, {5, -3}, {5, 7}};
    EXPECT_EQ(linearity_error(vertical, 4), 0.0);
    EXPECT_EQ(linearity_error(vertical, 0), 0.0);
    EXPECT_EQ(linearity_error(bent, 1), 0.0);
}

}  // namespace

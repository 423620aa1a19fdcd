#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <set>
#include <vector>

#include "motion/homography_fit.h"
#include "motion/ransac.h"

namespace {

struct Owned {
    Matrix m = matrixEmpty();
    ~Owned() { matrixRelease(m); }
};

const float kConfidence = 0.999999f;

Point2f applyAffine(const double* h, Point2f p) {
    return Point2f{static_cast<float>(h[0] * p.x + h[1] * p.y + h[2]), static_cast<float>(h[3] * p.x + h[4] * p.y + h[5])};
}

// Replays the draws of one sample from the current rand() state: distinct
// indices in draw order.
std::vector<int> replaySample(int n, int sampleSize) {
    std::vector<int> drawn;
    while (static_cast<int>(drawn.size()) < sampleSize) {
        const int r = std::rand() % n;
        bool duplicate = false;
        for (int d : drawn) duplicate = duplicate || d == r;
        if (!duplicate) drawn.push_back(r);
    }
    return drawn;
}

std::vector<double> modelThrough(const std::vector<Point2f>& src, const std::vector<Point2f>& dst, const std::vector<int>& idx) {
    Point2f s[3], d[3];
    for (int i = 0; i < 3; ++i) {
        s[i] = src[static_cast<size_t>(idx[static_cast<size_t>(i)])];
        d[i] = dst[static_cast<size_t>(idx[static_cast<size_t>(i)])];
    }
    Owned H;
    EXPECT_EQ(calc_homo_from_points(s, d, H.m, 3), 1);
    return std::vector<double>(H.m.data, H.m.data + 6);
}

TEST(Ransac, IterationLimitUpdate) {
    // A sample model without outliers ends the search.
    EXPECT_EQ(ransac_update_iter_num(kConfidence, 0.0f, 3, 10000), 0);
    EXPECT_EQ(ransac_update_iter_num(kConfidence, -0.5f, 3, 10000), 0);  // clamped to 0
    // Everything outliers: log(q) = 0, the limit stays.
    EXPECT_EQ(ransac_update_iter_num(kConfidence, 1.0f, 3, 777), 777);
    EXPECT_EQ(ransac_update_iter_num(kConfidence, 3.0f, 3, 777), 777);
    // log(1.00000101e-6) / log(1 - 0.7^3) = 32.85...
    EXPECT_EQ(ransac_update_iter_num(kConfidence, 0.3f, 3, 10000), 33);
    EXPECT_EQ(ransac_update_iter_num(kConfidence, 0.3f, 3, 20), 20);  // never raised
    // Confidence 1: log of the smallest normal float (about -87.3).
    EXPECT_EQ(ransac_update_iter_num(1.0f, 0.5f, 3, 10000), 654);
    EXPECT_EQ(ransac_update_iter_num(1.0f, 0.5f, 3, 10), 10);
    EXPECT_EQ(ransac_update_iter_num(1.0f, 0.01f, 3, 10000), 25);
    // Confidence 0 needs no iteration at all.
    EXPECT_EQ(ransac_update_iter_num(0.0f, 0.5f, 3, 10000), 0);
}

TEST(Ransac, SampleDrawing) {
    std::vector<Point2f> src = {{10, 10}, {60, 15}, {30, 50}}, dst(3);
    const double truth[6] = {1.0, 0.1, 2.0, -0.1, 1.0, 3.0};
    for (int i = 0; i < 3; ++i) dst[static_cast<size_t>(i)] = applyAffine(truth, src[static_cast<size_t>(i)]);
    // n == sampleSize: the sample is all three points, whatever the draw order.
    std::srand(5);
    Owned H;
    ASSERT_EQ(generate_homomat_from_subset(src.data(), dst.data(), H.m, 3, 3, 500), 1);
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(H.m.data[i], truth[i], 1e-5);

    // Collinear points never give a model; the caller's model keeps its values.
    std::vector<Point2f> line = {{0, 0}, {1, 1}, {2, 2}};
    double kept[6] = {4, 4, 4, 4, 4, 4};
    Matrix wrapped = matrixWrap(kept, 2, 3);
    EXPECT_EQ(generate_homomat_from_subset(line.data(), line.data(), wrapped, 3, 3, 500), 0);
    for (double v : kept) EXPECT_EQ(v, 4.0);
    EXPECT_EQ(generate_homomat_from_subset(line.data(), line.data(), wrapped, 0, 3, 500), 0);
}

TEST(Ransac, InlierCountEqualsPlainMatrixProductForm) {
    std::mt19937 rng(2);
    std::uniform_real_distribution<double> uni(-50.0, 50.0);
    const double special[] = {0.0, -0.0, std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN()};
    for (int t = 0; t < 300; ++t) {
        double h[6];
        for (double& v : h) v = (rng() % 8 == 0) ? special[rng() % 4] : uni(rng) * 0.05;
        const int n = 50;
        std::vector<Point2f> src(n), dst(n);
        for (int i = 0; i < n; ++i) {
            src[static_cast<size_t>(i)] = {static_cast<float>(uni(rng)), static_cast<float>(uni(rng))};
            dst[static_cast<size_t>(i)] = {static_cast<float>(uni(rng) * 0.1), static_cast<float>(uni(rng) * 0.1)};
            if (rng() % 10 == 0) src[static_cast<size_t>(i)].x = static_cast<float>(special[rng() % 4]);
        }
        const float threshold = static_cast<float>(1.0 + (rng() % 5));
        int plain = 0;
        for (int i = 0; i < n; ++i) {
            double column[3] = {src[static_cast<size_t>(i)].x, src[static_cast<size_t>(i)].y, 1.0};
            Owned out;
            matrix_dot_product(matrixWrap(h, 2, 3), matrixWrap(column, 3, 1), out.m);
            const double du = dst[static_cast<size_t>(i)].x - out.m.data[0];
            const double dv = dst[static_cast<size_t>(i)].y - out.m.data[1];
            if (threshold * threshold > static_cast<float>(du * du + dv * dv)) ++plain;
        }
        ASSERT_EQ(countModelInliers(matrixWrap(h, 2, 3), src.data(), dst.data(), n, threshold), plain) << t;
    }
    EXPECT_EQ(countModelInliers(matrixEmpty(), nullptr, nullptr, 5, 1.5f), 0);
}

TEST(Ransac, RecoversAffineModelAmongGrossOutliers) {
    const double truth[6] = {0.995, -0.02, 3.25, 0.018, 1.004, -1.75};
    std::mt19937 rng(99);
    std::uniform_real_distribution<float> pos(0.0f, 160.0f), noise(-0.2f, 0.2f), jump(8.0f, 40.0f);
    const int n = 300;
    std::vector<Point2f> src(n), dst(n);
    for (int i = 0; i < n; ++i) {
        src[static_cast<size_t>(i)] = {pos(rng), pos(rng)};
        Point2f d = applyAffine(truth, src[static_cast<size_t>(i)]);
        if (i % 10 < 3) {  // 30% gross outliers
            d.x += (rng() % 2 ? 1 : -1) * jump(rng);
            d.y += (rng() % 2 ? 1 : -1) * jump(rng);
        } else {
            d.x += noise(rng);
            d.y += noise(rng);
        }
        dst[static_cast<size_t>(i)] = d;
    }
    std::srand(1234);
    Owned H;
    ASSERT_EQ(run_ransac(src.data(), dst.data(), H.m, n, 1.5f, kConfidence, 10000, 3), 1);
    ASSERT_EQ(H.m.rows, 2);
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(H.m.data[i], truth[i], i % 3 == 2 ? 0.1 : 1e-3) << i;

    std::srand(1234);
    Owned raw;
    ASSERT_EQ(run_ransac_no_lsq(src.data(), dst.data(), raw.m, n, 1.5f, kConfidence, 10000, 3), 1);
    EXPECT_GE(countModelInliers(raw.m, src.data(), dst.data(), n, 1.5f), 200);
}

TEST(Ransac, OutlierFreeDataStopsAfterOneSample) {
    const double truth[6] = {1.0, 0.0, 2.5, 0.0, 1.0, -1.0};
    std::vector<Point2f> src, dst;
    for (int i = 0; i < 20; ++i) {
        src.push_back(Point2f{static_cast<float>(i * 7 % 50), static_cast<float>(i * 13 % 40)});
        dst.push_back(applyAffine(truth, src.back()));
    }
    std::srand(77);
    Owned H;
    ASSERT_EQ(run_ransac(src.data(), dst.data(), H.m, 20, 1.5f, kConfidence, 10000, 3), 1);
    const int next = std::rand();
    std::srand(77);
    replaySample(20, 3);
    EXPECT_EQ(std::rand(), next);  // exactly one sample was drawn
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(H.m.data[i], truth[i], 1e-4);
}

TEST(Ransac, EqualInlierCountsKeepTheEarlierModel) {
    // Four points in general position and a tiny threshold: every sample model
    // fits exactly its own three points, so every sample ties at three inliers.
    std::vector<Point2f> src = {{0, 0}, {40, 3}, {5, 30}, {37, 41}};
    std::vector<Point2f> dst = {{1, 2}, {43, 2}, {4, 35}, {30, 45}};
    // Each sample leaves an outlier ratio of 1/4: the limit settles at 13 samples.
    const int samples = ransac_update_iter_num(0.999f, 0.25f, 3, 10000);
    ASSERT_EQ(samples, 13);
    // A seed whose last sample differs from its first, so that replacing on ties
    // would end with another model.
    auto asSet = [](const std::vector<int>& v) { return std::set<int>(v.begin(), v.end()); };
    unsigned seed = 1;
    std::vector<std::vector<int>> drawn;
    for (;; ++seed) {
        std::srand(seed);
        drawn.clear();
        for (int i = 0; i < samples; ++i) drawn.push_back(replaySample(4, 3));
        if (asSet(drawn.front()) != asSet(drawn.back())) break;
    }

    std::srand(seed);
    Owned H;
    ASSERT_EQ(run_ransac_no_lsq(src.data(), dst.data(), H.m, 4, 0.01f, 0.999f, 10000, 3), 1);
    const std::vector<double> first = modelThrough(src, dst, drawn.front());
    const std::vector<double> last = modelThrough(src, dst, drawn.back());
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(H.m.data[i], first[i], 1e-9) << i;
    double gap = 0;
    for (int i = 0; i < 6; ++i) gap += std::fabs(first[i] - last[i]);
    EXPECT_GT(gap, 1e-3);
}

TEST(Ransac, DegenerateSearches) {
    std::vector<Point2f> src = {{0, 0}, {10, 0}, {0, 10}, {10, 10}, {5, 3}};
    double held[6] = {8, 8, 8, 8, 8, 8};
    Matrix H = matrixWrap(held, 2, 3);
    // Fewer correspondences than a sample: H untouched.
    EXPECT_EQ(run_ransac(src.data(), src.data(), H, 2, 1.5f, kConfidence, 100, 3), 0);
    for (double v : held) EXPECT_EQ(v, 8.0);
    // All collinear: no sample can be fitted in the first iteration, H untouched.
    std::vector<Point2f> line = {{0, 0}, {1, 1}, {2, 2}, {3, 3}};
    std::srand(3);
    EXPECT_EQ(run_ransac(line.data(), line.data(), H, 4, 1.5f, kConfidence, 100, 3), 0);
    for (double v : held) EXPECT_EQ(v, 8.0);
    // No model beats sampleSize - 1 inliers (threshold 0): nothing is collected
    // and the refit leaves the identity.
    std::srand(3);
    EXPECT_EQ(run_ransac(src.data(), src.data(), H, 5, 0.0f, kConfidence, 50, 3), 0);
    const double identity[6] = {1, 0, 0, 0, 1, 0};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(held[i], identity[i]);
    // No iterations at all: same outcome.
    double other[6] = {8, 8, 8, 8, 8, 8};
    Matrix H2 = matrixWrap(other, 2, 3);
    EXPECT_EQ(run_ransac(src.data(), src.data(), H2, 5, 1.5f, kConfidence, 0, 3), 0);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(other[i], identity[i]);
    EXPECT_EQ(run_ransac_no_lsq(src.data(), src.data(), H2, 5, 0.0f, kConfidence, 50, 3), 0);
}

}  // namespace

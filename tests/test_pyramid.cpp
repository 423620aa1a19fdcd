#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "hdr/bayer_filter.h"
#include "hdr/pyramid.h"
#include "imgcore/border_filter.h"

namespace {

// Level sizes {height, width} as the HDR driver lists them.
struct Levels {
    std::vector<std::vector<int>> sizes;
    std::vector<int*> pointers;
    Levels(int height, int width, int count) {
        for (int i = 0; i < count; ++i) {
            sizes.push_back({height, width});
            height = halvedLevelSide(height);
            width = halvedLevelSide(width);
        }
        for (auto& s : sizes) pointers.push_back(s.data());
    }
    size_t samples(int i) const { return static_cast<size_t>(sizes[i][0]) * sizes[i][1]; }
};

template <typename T>
struct Pyramid {
    std::vector<std::vector<T>> storage;
    std::vector<T*> levels;
    explicit Pyramid(const Levels& l) {
        for (size_t i = 0; i < l.sizes.size(); ++i) storage.emplace_back(l.samples(i) + 1, T(0));  // +1: no null
        for (auto& s : storage) levels.push_back(s.data());
    }
};

// A smooth positive Bayer frame: slow waves plus a per-site offset.
std::vector<short> smoothFrame(int height, int width) {
    std::vector<short> f(static_cast<size_t>(height) * width);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            f[y * width + x] = static_cast<short>(400 + 60 * std::sin(x / 31.0) * std::cos(y / 27.0) +
                                                  40 * ((y % 2) * 2 + x % 2));
    return f;
}

// The up-sampling written out literally: zero-inserted scratch, remainder columns
// and rows, then the 5x5 binomial through the generic filter.
std::vector<short> literalUpSample(const std::vector<short>& src, int h, int w, int extraRows, int extraCols) {
    const int H2 = 2 * h + extraRows, W2 = 2 * w + extraCols;
    std::vector<short> z(static_cast<size_t>(H2) * W2, 0), out(z.size());
    for (int r = 0; r < h; ++r)
        for (int c = 0; c < w; ++c) {
            const int qr = r / 2 * 4 + r % 2, qc = c / 2 * 4 + c % 2;  // quad (r, c) -> (2r, 2c)
            z[qr * W2 + qc] = static_cast<short>(4 * src[r * w + c]);
            if (extraCols && c >= w - 2) z[qr * W2 + W2 - 2 + (c - (w - 2))] = static_cast<short>(4 * src[r * w + c]);
        }
    if (extraRows)
        for (int k = 0; k < 2; ++k)
            for (int x = 0; x < W2; ++x) z[(H2 - 2 + k) * W2 + x] = z[(H2 - 6 + k) * W2 + x];
    int kernel[25];
    const int b[5] = {1, 4, 6, 4, 1};
    for (int i = 0; i < 25; ++i) kernel[i] = b[i / 5] * b[i % 5];
    zel::cpp::imgproc::multiChannelFilterBorderCopy_v00<short, int>(z.data(), out.data(), W2, H2, 0, 0, kernel, 2, 2,
                                                                     2, false);
    return out;
}

TEST(Pyramid, OddHalfLevelUpSamplesWithRepeatedRowsAndColumns) {
    // 750 x 14 halves to 374 x 6 (odd halves 375 and 7 rounded down): remainder {2, 2}.
    const int h = 374, w = 6;
    std::mt19937 rng(7);
    std::vector<short> src(h * w);
    for (auto& v : src) v = static_cast<short>(rng() % 1024);
    int remainder[2] = {750 - 2 * h, 14 - 2 * w};
    ASSERT_EQ(remainder[0], 2);
    ASSERT_EQ(remainder[1], 2);
    std::vector<short> out(750 * 14, -1);
    imageUpSample(src.data(), out.data(), h, w, 2 * w, 2 * 14, remainder, 1);
    EXPECT_EQ(out, literalUpSample(src, h, w, 2, 2));
}

// The separable path must equal the plain zero-insert-and-filter path bit for bit.
TEST(Pyramid, FastUpSampleMatchesReferenceOnRandomData) {
    std::mt19937 rng(12345);
    std::uniform_int_distribution<int> full(-32768, 32767);
    int cases = 0;
    for (int h = 2; h <= 14; h += 2) {
        for (int w : {2, 4, 6, 8, 10, 14, 18, 30, 34, 46, 66}) {
            for (int extra = 0; extra < 4; ++extra) {
                int remainder[2] = {(extra & 1) * 2, (extra & 2)};
                const int H2 = 2 * h + remainder[0], W2 = 2 * w + remainder[1];
                const int srcStride = w + (cases % 3);  // samples; padded rows now and then
                const int dstStride = W2 + (cases % 2) * 5;
                std::vector<short> src(static_cast<size_t>(h) * srcStride);
                const int mode = cases % 3;  // random, extremes, 10-bit
                for (auto& v : src)
                    v = static_cast<short>(mode == 0 ? full(rng)
                                                     : mode == 1 ? ((rng() & 1) ? 32767 : -32768) : int(rng() % 1024));
                std::vector<short> fast(static_cast<size_t>(H2) * dstStride, 1), plain(fast.size(), 1);
                imageUpSample(src.data(), fast.data(), h, w, 2 * srcStride, 2 * dstStride, remainder, 0);
                imageUpSampleReference(src.data(), plain.data(), h, w, 2 * srcStride, 2 * dstStride, remainder);
                ASSERT_EQ(fast, plain) << h << "x" << w << " remainder " << remainder[0] << "," << remainder[1];
                ++cases;
            }
        }
    }
    EXPECT_GT(cases, 300);
}

TEST(Pyramid, SingleLevelLeavesEverythingUnchanged) {
    const int h = 8, w = 8;
    Levels sizes(h, w, 1);
    std::vector<short> frame = smoothFrame(h, w);
    std::vector<short> level0 = frame;
    std::vector<short*> lap{level0.data()};
    short residual = 99;
    laplacianPyramid(level0.data(), &lap, &residual, w, h, 1, 1, 2.0f, 2.0f, 6);
    EXPECT_EQ(level0, frame);
    EXPECT_EQ(residual, 99);
    reconstructLaplacianPyramid(&lap, &sizes.pointers, 1, 1023);
    EXPECT_EQ(level0, frame);  // not even clamped

    std::vector<unsigned short> weights(frame.begin(), frame.end());
    std::vector<unsigned short> copy = weights;
    std::vector<unsigned short*> gauss{copy.data()};
    gaussianPyramid(copy.data(), &gauss, w, h, 1, 0);
    EXPECT_EQ(copy, weights);
}

// Built with gain0 = 1 and no quad below the thresholds, the Laplacian pyramid
// collapses back to the frame exactly: the same up-sampling runs in both
// directions. The sizes go down to 2x2 and empty levels.
TEST(Pyramid, CollapseReproducesTheFrameExactly) {
    for (auto dims : {std::vector<int>{92, 124, 7}, std::vector<int>{20, 20, 5}, std::vector<int>{46, 30, 4}}) {
        const int h = dims[0], w = dims[1], count = dims[2];
        const int shallowCount = count - 1;
        Levels sizes(h, w, count);
        Pyramid<short> lap(sizes);
        const std::vector<short> frame = smoothFrame(h, w);
        std::copy(frame.begin(), frame.end(), lap.levels[0]);
        std::vector<short> residual(sizes.samples(shallowCount - 1) + 1, -7);
        laplacianPyramid(lap.levels[0], &lap.levels, residual.data(), w, h, count, shallowCount, 1.0f, 1.0f, count);

        // The residual is the Gaussian level shallowCount-1.
        Pyramid<unsigned short> gauss(sizes);
        std::copy(frame.begin(), frame.end(), gauss.levels[0]);
        gaussianPyramid(gauss.levels[0], &gauss.levels, w, h, count, 0);
        for (size_t k = 0; k < sizes.samples(shallowCount - 1); ++k)
            ASSERT_EQ(residual[k], static_cast<short>(gauss.levels[shallowCount - 1][k]));
        // The coarsest level keeps the low-pass image.
        for (size_t k = 0; k < sizes.samples(count - 1); ++k)
            ASSERT_EQ(lap.levels[count - 1][k], static_cast<short>(gauss.levels[count - 1][k]));
        // Precondition of exactness: no level-1 quad reaches the thresholds (with
        // gain1 = 1 the deeper levels' gains multiply by exactly 1).
        for (size_t k = 0; k < sizes.samples(1); ++k) ASSERT_GT(lap.levels[1][k], -21) << h << "x" << w << " @" << k;

        // gain0 scales the finest band only.
        Pyramid<short> doubled(sizes);
        std::copy(frame.begin(), frame.end(), doubled.levels[0]);
        laplacianPyramid(doubled.levels[0], &doubled.levels, residual.data(), w, h, count, shallowCount, 2.0f, 1.0f,
                         count);
        for (size_t k = 0; k < frame.size(); ++k) ASSERT_EQ(doubled.levels[0][k], 2 * lap.levels[0][k]);
        for (size_t k = 0; k < sizes.samples(1); ++k) ASSERT_EQ(doubled.levels[1][k], lap.levels[1][k]);

        reconstructLaplacianPyramid(&lap.levels, &sizes.pointers, count, 1023);
        for (size_t k = 0; k < frame.size(); ++k) ASSERT_EQ(lap.levels[0][k], frame[k]) << h << "x" << w << " @" << k;
    }
}

TEST(Pyramid, DetailGainThresholdsAndArithmetic) {
    // Level 1: four quads whose smallest samples are -20, -21, -30, -31.
    const short mins[4] = {-20, -21, -30, -31};
    auto levelWithQuads = [&]() {
        std::vector<short> img(2 * 8, 100);
        for (int q = 0; q < 4; ++q) img[8 + 2 * q + 1] = mins[q];  // bottom-right of quad q
        return img;
    };
    const float gain1 = 0.5f;
    const float strong = gain1 * 0.9f;
    std::vector<short> img = levelWithQuads();
    applyDetailGains(img.data(), 2, 8, 1, 3.0f, gain1, 0);  // level 1 applies whatever gainMaxLevel is
    const short expect[4][2] = {{100, -20},
                                {50, -10},  // -10.5 truncated toward zero
                                {50, -15},
                                {static_cast<short>(100.0f * strong), static_cast<short>(-31.0f * strong)}};
    for (int q = 0; q < 4; ++q) {
        EXPECT_EQ(img[2 * q], expect[q][0]) << q;
        EXPECT_EQ(img[8 + 2 * q + 1], expect[q][1]) << q;
    }
    EXPECT_EQ(expect[3][1], -13);  // -13.95

    // With gain1 = 1 the strongest tier still scales by 0.9.
    img = levelWithQuads();
    applyDetailGains(img.data(), 2, 8, 1, 1.0f, 1.0f, 6);
    EXPECT_EQ(img[8 + 7], -27);  // -31 * 0.9 = -27.9
    EXPECT_EQ(img[8 + 5], -30);

    // Levels 2 .. gainMaxLevel: one tier, below -20; higher levels untouched.
    img = levelWithQuads();
    applyDetailGains(img.data(), 2, 8, 2, 1.0f, gain1, 2);
    EXPECT_EQ(img[8 + 1], -20);
    EXPECT_EQ(img[8 + 3], -10);
    EXPECT_EQ(img[8 + 7], -15);  // -15.5
    img = levelWithQuads();
    applyDetailGains(img.data(), 2, 8, 3, 1.0f, gain1, 2);
    EXPECT_EQ(img, levelWithQuads());

    // Level 0: every sample times gain0, truncated toward zero, low 16 bits kept.
    std::vector<short> l0 = {-3, 3, 20000, -7};
    applyDetailGains(l0.data(), 2, 2, 0, 0.5f, 9.0f, 6);
    EXPECT_EQ(l0, (std::vector<short>{-1, 1, 10000, -3}));
    l0 = {20000, 1, 2, 3};
    applyDetailGains(l0.data(), 2, 2, 0, 3.0f, 1.0f, 6);
    EXPECT_EQ(l0[0], static_cast<short>(60000 - 65536));
}

TEST(Pyramid, CollapseAddsWithWrapAndClampsOnlyLevelZero) {
    // reconstructCalculation works on its window only and wraps.
    std::vector<short> a = {30000, 1, 2, 3}, b = {10000, 10, 20, 30}, out(4, 0);
    reconstructCalculation(a.data(), b.data(), out.data(), 0, 1, 0, 1, 2, 1023);
    EXPECT_EQ(out, (std::vector<short>{static_cast<short>(40000 - 65536), 0, 0, 0}));

    // Three levels 8x8, 4x4, 2x2; the coarse ones all zero except level 1 at -50.
    Levels sizes(8, 8, 3);
    Pyramid<short> lap(sizes);
    for (int k = 0; k < 64; ++k) lap.levels[0][k] = static_cast<short>(k % 3 == 0 ? -5 : (k % 3 == 1 ? 3000 : 100));
    std::vector<short> level0(lap.levels[0], lap.levels[0] + 64);
    for (int k = 0; k < 16; ++k) lap.levels[1][k] = -50;
    reconstructLaplacianPyramid(&lap.levels, &sizes.pointers, 3, 1023);
    for (int k = 0; k < 16; ++k) EXPECT_EQ(lap.levels[1][k], -50);  // not clamped
    std::vector<short> up(64);
    int remainder[2] = {0, 0};
    std::vector<short> minus50(16, -50);
    imageUpSample(minus50.data(), up.data(), 4, 4, 0, 0, remainder, 1);
    for (int k = 0; k < 64; ++k) {
        const int sum = level0[k] + up[k];
        EXPECT_EQ(lap.levels[0][k], sum < 0 ? 0 : (sum > 2046 ? 2046 : sum)) << k;
    }
}

TEST(Pyramid, DownSamplingKeepsTopLeftQuadsOfTheLowPass) {
    const int h = 20, w = 28, oh = 10, ow = 14;
    std::vector<short> src = smoothFrame(h, w), smooth(h * w);
    lowPassFilteringForBayer_short(src.data(), smooth.data(), w, h);
    std::vector<short> out(oh * ow, -1);
    imageDownSample_short(src.data(), out.data(), h, w, oh, ow, 1);
    for (int r = 0; r < oh; ++r)
        for (int c = 0; c < ow; ++c)
            ASSERT_EQ(out[r * ow + c], smooth[(r / 2 * 4 + r % 2) * w + c / 2 * 4 + c % 2]) << r << "," << c;

    // An empty output is never written; odd output sizes stay inside their buffers.
    short sentinel = 5;
    imageDownSample_short(src.data(), &sentinel, h, w, 0, ow, 1);
    EXPECT_EQ(sentinel, 5);
    std::vector<short> odd(9 * 13);
    imageDownSample_short(src.data(), odd.data(), h, w, 9, 13, 1);
    EXPECT_EQ(odd[8 * 13 + 12], out[8 * ow + 12]);

    // The mask pyramid marks every nonzero sample with 255.
    Levels sizes(16, 16, 3);
    Pyramid<unsigned short> mask(sizes);
    for (int y = 4; y < 8; ++y)
        for (int x = 4; x < 8; ++x) mask.levels[0][y * 16 + x] = 900;
    gaussianPyramid_tmp(mask.levels[0], &mask.levels, 16, 16, 3);
    int marked = 0;
    for (int i = 1; i < 3; ++i)
        for (size_t k = 0; k < sizes.samples(i); ++k) {
            const unsigned short v = mask.levels[i][k];
            EXPECT_TRUE(v == 0 || v == 255);
            marked += v == 255;
        }
    EXPECT_GT(marked, 0);
}

}  // namespace

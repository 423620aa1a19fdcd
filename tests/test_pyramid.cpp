#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "hdr/bayer_filter.h"
#include "hdr/pyramid.h"
#include "hdr/pyramid_rows.h"
#include "imgcore/border_filter.h"
#include "support/fast_paths.h"

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

TEST(Pyramid, UpSamplingKeepsConstantsIncludingOddHalfRemainders) {
    // Zero insertion times 4 and the binomial (sum 256) restore a constant level
    // exactly, also in the repeated remainder rows and columns of an odd half
    // (750 x 14 halves to 374 x 6, remainder {2, 2}).
    for (int extra = 0; extra < 4; ++extra) {
        const int h = 374, w = 6;
        int remainder[2] = {(extra & 1) * 2, extra & 2};
        const int H2 = 2 * h + remainder[0], W2 = 2 * w + remainder[1];
        std::vector<short> src(h * w, -300), out(static_cast<size_t>(H2) * W2, 1);
        imageUpSample(src.data(), out.data(), h, w, 2 * w, 2 * W2, remainder, 1);
        for (short v : out) ASSERT_EQ(v, -300) << remainder[0] << "," << remainder[1];
    }
}

// The separable up-sampler (each compilation) must equal the plain
// zero-insert-and-filter path bit for bit.
TEST(Pyramid, FastUpSampleMatchesReferenceOnRandomData) {
    std::mt19937 rng(12345);
    int cases = 0;
    for (int h = 2; h <= 14; h += 2) {
        for (int w : {2, 4, 6, 8, 10, 14, 16, 18, 30, 34, 46, 66}) {
            for (int extra = 0; extra < 4; ++extra) {
                int remainder[2] = {(extra & 1) * 2, (extra & 2)};
                const int H2 = 2 * h + remainder[0], W2 = 2 * w + remainder[1];
                const int srcStride = w + (cases % 3);  // samples; padded rows now and then
                const int dstStride = W2 + (cases % 2) * 5;
                const int range = cases % 2 == 0 ? 32767 : 1023;
                std::vector<short> src = fasttest::randomSamples<short>(rng, static_cast<size_t>(h) * srcStride,
                                                                        -range, range);
                std::vector<short> plain(static_cast<size_t>(H2) * dstStride, 1);
                imageUpSampleReference(src.data(), plain.data(), h, w, 2 * srcStride, 2 * dstStride, remainder);
                for (KernelIsa isa : fasttest::availableIsas()) {
                    std::vector<short> fast(plain.size(), 1);
                    pyramid_rows::UpSampledRows up(src.data(), h, w, 2 * srcStride, remainder[0], remainder[1], isa);
                    for (int y = 0; y < H2; ++y) up.row(y, fast.data() + static_cast<size_t>(y) * dstStride);
                    ASSERT_EQ(fast, plain) << h << "x" << w << " remainder " << remainder[0] << "," << remainder[1]
                                           << " " << fasttest::isaName(isa);
                }
                std::vector<short> dispatched(plain.size(), 1);
                imageUpSample(src.data(), dispatched.data(), h, w, 2 * srcStride, 2 * dstStride, remainder, 0);
                ASSERT_EQ(dispatched, plain);
                ++cases;
            }
        }
    }
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
    // An empty output is never written.
    std::vector<short> src = smoothFrame(20, 28);
    short sentinel = 5;
    imageDownSample_short(src.data(), &sentinel, 20, 28, 0, 14, 1);
    EXPECT_EQ(sentinel, 5);

    // Filtering only the kept quads (each compilation) against the low-pass of the
    // whole level then decimation: random and extreme samples, odd output sizes,
    // sides down to the smallest the fast path takes.
    std::mt19937 rng(3);
    for (int height : {4, 6, 10, 22, 31}) {
        for (int width = 4; width <= 37; width += 3) {
            for (int outHeight : {height / 2, (height / 2) | 1}) {
                const int outWidth = (width / 2) - ((width / 2) % 2 == 0 ? 1 : 0);  // odd widths too
                if (2 * outHeight > height || outWidth < 1) continue;
                std::vector<short> s = fasttest::randomSamples<short>(rng, width * height, -32768, 32767);
                std::vector<unsigned short> u = fasttest::randomSamples<unsigned short>(rng, width * height, 0, 65535);
                std::vector<short> sPlain(outHeight * outWidth);
                std::vector<unsigned short> uPlain(outHeight * outWidth);
                imageDownSamplePlain(s.data(), sPlain.data(), height, width, outHeight, outWidth);
                imageDownSamplePlain(u.data(), uPlain.data(), height, width, outHeight, outWidth);
                for (KernelIsa isa : fasttest::availableIsas()) {
                    std::vector<short> sFast(sPlain.size());
                    std::vector<unsigned short> uFast(uPlain.size());
                    pyramid_rows::downSampleKept<short>(s.data(), sFast.data(), height, width, outHeight, outWidth,
                                                        isa);
                    pyramid_rows::downSampleKept<unsigned short>(u.data(), uFast.data(), height, width, outHeight,
                                                                 outWidth, isa);
                    ASSERT_EQ(sFast, sPlain) << width << "x" << height << " " << fasttest::isaName(isa);
                    ASSERT_EQ(uFast, uPlain) << width << "x" << height << " " << fasttest::isaName(isa);
                }
            }
        }
    }

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

// The banded Laplacian construction and collapse against the whole-image plain
// definitions: random frames with odd-half levels, detail gains that are and are
// not exactly 1 (the fast path skips unit gains), levels down to 2 x 2.
TEST(Pyramid, BandedLaplacianAndCollapseMatchPlainDefinitions) {
    std::mt19937 rng(21);
    struct Case {
        int h, w, levels, shallow;
        float gain0, gain1;
    };
    for (Case c : {Case{92, 124, 6, 4, 1.0f, 1.0f}, Case{46, 60, 4, 2, 0.8f, 1.3f}, Case{22, 30, 3, 3, 1.0f, 0.7f},
                   Case{14, 10, 2, 2, 2.0f, 1.0f}}) {
        Levels sizes(c.h, c.w, c.levels);
        const std::vector<short> frame = fasttest::randomSamples<short>(rng, sizes.samples(0), -400, 1400);
        Pyramid<short> fast(sizes), plain(sizes);
        std::copy(frame.begin(), frame.end(), fast.levels[0]);
        std::copy(frame.begin(), frame.end(), plain.levels[0]);
        std::vector<short> fastResidual(sizes.samples(c.shallow - 1) + 1, 0), plainResidual(fastResidual);
        laplacianPyramid(fast.levels[0], &fast.levels, fastResidual.data(), c.w, c.h, c.levels, c.shallow, c.gain0,
                         c.gain1, 3);
        laplacianPyramidPlain(&plain.levels, plainResidual.data(), c.w, c.h, c.levels, c.shallow, c.gain0, c.gain1,
                              3);
        for (int i = 0; i < c.levels; ++i)
            ASSERT_EQ(fast.storage[i], plain.storage[i]) << c.h << "x" << c.w << " @" << i;
        ASSERT_EQ(fastResidual, plainResidual);

        reconstructLaplacianPyramid(&fast.levels, &sizes.pointers, c.levels, 1023);
        reconstructLaplacianPyramidPlain(&plain.levels, &sizes.pointers, c.levels, 1023);
        for (int i = 0; i < c.levels; ++i) ASSERT_EQ(fast.storage[i], plain.storage[i]) << "collapse @" << i;
    }
}

}  // namespace

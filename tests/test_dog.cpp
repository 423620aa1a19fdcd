#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "features/dog.h"
#include "features/gauss3x3.h"
#include "support/feature_test_images.h"

namespace {

using Bytes = std::vector<unsigned char>;

bool onFrame(int x, int y, int w, int h) { return x == 0 || y == 0 || x == w - 1 || y == h - 1; }

TEST(Gauss3x3, KernelFromSigma) {
    EXPECT_EQ(gauss3x3SideWeight(1.5f), 78);  // kernel 78/100/78
    EXPECT_EQ(gauss3x3SideWeight(0.2f), 0);   // identity
    EXPECT_EQ(gauss3x3SideWeight(0.3f), 0);
    EXPECT_EQ(gauss3x3SideWeight(0.31f), 1);
    EXPECT_EQ(gauss3x3SideWeight(0.0f), 0);
    EXPECT_EQ(gauss3x3SideWeight(1e6f), 85);  // flat limit: 85/86/85
    EXPECT_EQ(gauss3x3SideWeight(std::numeric_limits<float>::quiet_NaN()), 0);

    // qnGauss3x3Filter(1.5) is the blur with {78, 100, 78}.
    const int w = 23, h = 17;
    Bytes src = randomBytes(w * h, 1);
    Bytes viaSigma(w * h, 0xAB), viaKernel(w * h, 0xAB);
    const unsigned char k[3] = {78, 100, 78};
    EXPECT_EQ(qnGauss3x3Filter(src.data(), viaSigma.data(), w, h, 1.5f), 0);
    EXPECT_EQ(gauss3x3_u8(src.data(), viaKernel.data(), w, h, 0, 0, k), 0);
    EXPECT_EQ(viaSigma, viaKernel);
}

TEST(Gauss3x3, TruncatesAndKeepsUniformImages) {
    // A lone 255: centre 100*100*255 / 65536 = 38.9, truncated to 38; its
    // horizontal neighbour 78*100*255 / 65536 = 30.3 -> 30; diagonal 23.6 -> 23.
    const int w = 5, h = 5;
    Bytes src(w * h, 0), dst(w * h, 0xAB);
    src[2 * w + 2] = 255;
    const unsigned char k[3] = {78, 100, 78};
    ASSERT_EQ(gauss3x3_u8(src.data(), dst.data(), w, h, 0, 0, k), 0);
    EXPECT_EQ(dst[2 * w + 2], 38);
    EXPECT_EQ(dst[2 * w + 3], 30);
    EXPECT_EQ(dst[1 * w + 2], 30);
    EXPECT_EQ(dst[1 * w + 1], 23);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            if (onFrame(x, y, w, h)) {
                EXPECT_EQ(dst[y * w + x], 0xAB);
            }

    // Uniform images blur to themselves: v*256*256 >> 16 = v.
    for (int v : {0, 1, 128, 254, 255}) {
        Bytes flat(12 * 6, static_cast<unsigned char>(v)), out(12 * 6, 0);
        ASSERT_EQ(qnGauss3x3Filter(flat.data(), out.data(), 12, 6, 1.5f), 0);
        for (int y = 1; y < 5; ++y)
            for (int x = 1; x < 11; ++x) EXPECT_EQ(out[y * 12 + x], v);
    }

    // The horizontal pass wraps in 16 bits when a kernel sums above 256:
    // 3*255*255 = 195075 -> 64003; 3*255*64003 >> 16 = 747 -> stored as 235.
    Bytes bright(4 * 3, 255), out(4 * 3, 0);
    const unsigned char heavy[3] = {255, 255, 255};
    ASSERT_EQ(gauss3x3_u8(bright.data(), out.data(), 4, 3, 0, 0, heavy), 0);
    EXPECT_EQ(out[1 * 4 + 1], 235);
}

TEST(Gauss3x3, IdentityCopiesOnlyTheInterior) {
    const int w = 11, h = 7;
    Bytes src = randomBytes(w * h, 2);
    Bytes dst(w * h, 0xAB);
    EXPECT_EQ(qnGauss3x3Filter(src.data(), dst.data(), w, h, 0.2f), 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) EXPECT_EQ(dst[y * w + x], onFrame(x, y, w, h) ? 0xAB : src[y * w + x]);

    EXPECT_EQ(qnGauss3x3Filter(nullptr, dst.data(), w, h, 0.2f), -2);  // the copy's status
    EXPECT_EQ(qnGauss3x3Filter(nullptr, dst.data(), w, h, 1.5f), -1);  // the blur's status

    // Degenerate sizes write nothing on either path.
    Bytes tiny(4, 0xAB);
    for (float sigma : {0.2f, 1.5f})
        for (int side : {0, 1, 2}) {
            EXPECT_EQ(qnGauss3x3Filter(src.data(), tiny.data(), side, 2, sigma), 0);
            EXPECT_EQ(qnGauss3x3Filter(src.data(), tiny.data(), 2, side, sigma), 0);
        }
    EXPECT_EQ(tiny, Bytes(4, 0xAB));
}

// The vectorised passes against the per-pixel definition, on widths on both
// sides of the 8/16-lane blocks (including widths below 10), heights below 3,
// padded strides and arbitrary kernels.
TEST(Gauss3x3, MatchesPlainDefinition) {
    const unsigned char kernels[][3] = {{78, 100, 78}, {1, 254, 1}, {85, 86, 85}, {13, 200, 43}, {255, 17, 255}};
    std::uint32_t seed = 10;
    for (int w : {1, 2, 3, 4, 5, 7, 9, 10, 13, 16, 17, 24, 31, 32, 33, 67}) {
        for (int h : {1, 2, 3, 4, 9}) {
            for (int pad : {0, 3}) {
                const int stride = pad == 0 ? 0 : w + pad;
                const int rowBytes = w + pad;
                const Bytes src = randomBytes(static_cast<std::size_t>(rowBytes) * h, ++seed);
                const Bytes fill = randomBytes(static_cast<std::size_t>(rowBytes) * h, ++seed);
                for (const auto& k : kernels) {
                    Bytes fast = fill, plain = fill;
                    ASSERT_EQ(gauss3x3_u8(src.data(), fast.data(), w, h, stride, stride, k), 0);
                    ASSERT_EQ(gauss3x3U8Plain(src.data(), plain.data(), w, h, stride, stride, k), 0);
                    ASSERT_EQ(fast, plain) << "width " << w << " height " << h << " pad " << pad;
                    if (h < 3 || w < 3) {
                        EXPECT_EQ(fast, fill);
                    }
                }
            }
        }
    }
    Bytes d(16, 7);
    const unsigned char k[3] = {78, 100, 78};
    EXPECT_EQ(gauss3x3_u8(nullptr, d.data(), 4, 4, 0, 0, k), -1);
    EXPECT_EQ(gauss3x3_u8(d.data(), nullptr, 4, 4, 0, 0, k), -1);
    EXPECT_EQ(gauss3x3_u8(d.data(), d.data(), 4, 4, 0, 0, nullptr), -1);
    EXPECT_EQ(d, Bytes(16, 7));
}

TEST(DoG, IsCoarseBlurMinusFineBlurWithZeroBorder) {
    for (int w : {5, 17, 29}) {
        const int h = 13;
        const Bytes src = randomBytes(static_cast<std::size_t>(w) * h, 40 + w);
        Bytes blur(static_cast<std::size_t>(w) * h, 0);
        ASSERT_EQ(qnGauss3x3Filter(const_cast<unsigned char*>(src.data()), blur.data(), w, h, 1.5f), 0);
        std::vector<short> dog(static_cast<std::size_t>(w) * h, 999), rev(dog);
        qnDoG(const_cast<unsigned char*>(src.data()), dog.data(), 0.2f, 1.5f, w, h);
        qnDoG(const_cast<unsigned char*>(src.data()), rev.data(), 1.5f, 0.2f, w, h);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const int i = y * w + x;
                const int want = onFrame(x, y, w, h) ? 0 : blur[i] - src[i];
                ASSERT_EQ(dog[i], want) << x << "," << y;
                ASSERT_EQ(rev[i], -want);
            }
    }
    std::vector<short> untouched(4, 999);
    Bytes src(4, 9);
    qnDoG(src.data(), untouched.data(), 0.2f, 1.5f, 0, 4);
    qnDoG(src.data(), untouched.data(), 0.2f, 1.5f, 4, -1);
    EXPECT_EQ(untouched, std::vector<short>(4, 999));
}

TEST(DoG, ImageDifference) {
    const int w = 19, h = 3;
    Bytes a = randomBytes(w * h, 7), b = randomBytes(w * h, 8);
    a[0] = 0;
    b[0] = 255;
    a[1] = 255;
    b[1] = 0;
    std::vector<short> d(w * h, 0);
    qnImgDiff(a.data(), b.data(), d.data(), w, h);
    EXPECT_EQ(d[0], -255);
    EXPECT_EQ(d[1], 255);
    for (int i = 0; i < w * h; ++i) EXPECT_EQ(d[i], a[i] - b[i]);
    std::vector<short> none(w, 5);
    qnImgDiff(a.data(), b.data(), none.data(), w, 0);
    EXPECT_EQ(none, std::vector<short>(w, 5));
}

// ---- per-cell histogram thresholds ----

constexpr int kW = 40, kH = 40, kCell = 10;  // 4x4 cells of 10x10 pixels

struct Thresholds {
    float neg[16];
    float pos[16];
    explicit Thresholds(float fill) {
        for (int i = 0; i < 16; ++i) neg[i] = pos[i] = fill;
    }
};

// Fills cell (gx, gy) of a kW x kH response through f(local x, local y).
template <typename F>
void fillCell(std::vector<short>& dog, int gx, int gy, F f) {
    for (int y = 0; y < kCell; ++y)
        for (int x = 0; x < kCell; ++x) dog[(gy * kCell + y) * kW + gx * kCell + x] = static_cast<short>(f(x, y));
}

int histogram(std::vector<short>& dog, Thresholds& t, int width = kW, int height = kH, int step = 2) {
    return qnGetHistogram(dog.data(), -8.0f, 8.0f, 2.0f, width, height, step, 0.02f, -2.0f, 2.0f, t.neg, t.pos);
}

TEST(Histogram, ThresholdsFromCellDistributions) {
    std::vector<short> dog(kW * kH, 0);
    // Cell 0: everything at -7 (first bin): -8 + (25*0.02*2)/25 = -7.96.
    fillCell(dog, 0, 0, [](int, int) { return -7; });
    // Cell 1: everything exactly at hi, which still counts (last bin): 8 - 0.04.
    fillCell(dog, 1, 0, [](int, int) { return 8; });
    // Cell 2: one sample in 25 at -7 and one at 5, the rest 0: the thresholds sit
    // binWidth*frac*N/count = 1.0 inside the outer edges of those bins.
    fillCell(dog, 2, 0, [](int x, int y) { return x == 4 && y == 4 ? -7 : (x == 8 && y == 2 ? 5 : 0); });
    // Cell 3: each sampled row is 0, then 100 (out of range), then 7s; the row
    // ends at the 100, so the 7s are never seen.
    fillCell(dog, 3, 0, [](int x, int) { return x == 0 ? 0 : (x == 2 ? 100 : 7); });
    // Cell 4: the first sample of row 0 is below lo; the 7s after it are skipped.
    fillCell(dog, 0, 1, [](int x, int y) { return y != 0 ? 0 : (x == 0 ? -9 : 7); });
    // Cell 5: strong values only on odd rows and columns, which step 2 never samples.
    fillCell(dog, 1, 1, [](int x, int y) { return (x % 2 == 1 || y % 2 == 1) ? -100 : 0; });

    Thresholds t(0.0f);
    ASSERT_EQ(histogram(dog, t), 0);
    EXPECT_NEAR(t.neg[0], -7.96f, 1e-5);
    EXPECT_EQ(t.pos[0], 2.0f);
    EXPECT_EQ(t.neg[1], -2.0f);
    EXPECT_NEAR(t.pos[1], 7.96f, 1e-5);
    EXPECT_NEAR(t.neg[2], -7.0f, 1e-5);
    EXPECT_NEAR(t.pos[2], 5.0f, 1e-5);
    for (int c = 3; c < 16; ++c) {
        EXPECT_EQ(t.neg[c], -2.0f) << c;
        EXPECT_EQ(t.pos[c], 2.0f) << c;
    }

    // "More than" the fraction: 2 samples in 100 (step 1) do not qualify, 3 do:
    // -8 + (100*0.02*2)/3.
    std::vector<short> dense(kW * kH, 0);
    fillCell(dense, 0, 0, [](int x, int y) { return y == 0 && x < 2 ? -7 : 0; });
    fillCell(dense, 1, 0, [](int x, int y) { return y == 0 && x < 3 ? -7 : 0; });
    Thresholds d(0.0f);
    ASSERT_EQ(histogram(dense, d, kW, kH, 1), 0);
    EXPECT_EQ(d.neg[0], -2.0f);
    EXPECT_NEAR(d.neg[1], -8.0f + 4.0f / 3.0f, 1e-5);
}

TEST(Histogram, ThresholdsAreNeverLessExtremeThanTheCaps) {
    std::vector<short> dog(64 * 48);
    TestRng rng(3);
    for (auto& v : dog) v = static_cast<short>(rng.uniform(0, 9) == 0 ? rng.uniform(-20, 20) : rng.uniform(-3, 3));
    Thresholds t(0.0f);
    ASSERT_EQ(histogram(dog, t, 64, 48), 0);
    for (int c = 0; c < 16; ++c) {
        EXPECT_LE(t.neg[c], -2.0f);
        EXPECT_GE(t.pos[c], 2.0f);
    }
}

TEST(Histogram, FailuresKeepEarlierCellsAndSkipLaterOnes) {
    std::vector<short> dog(kW * kH, 0);
    fillCell(dog, 1, 0, [](int, int) { return -7; });
    fillCell(dog, 1, 1, [](int, int) { return 50; });  // cell 5: nothing in range
    Thresholds t(99.0f);
    EXPECT_EQ(histogram(dog, t), -1);
    EXPECT_EQ(t.neg[0], -2.0f);
    EXPECT_NEAR(t.neg[1], -7.96f, 1e-5);
    for (int c = 2; c < 5; ++c) EXPECT_EQ(t.pos[c], 2.0f);
    for (int c = 5; c < 16; ++c) {
        EXPECT_EQ(t.neg[c], 99.0f) << c;
        EXPECT_EQ(t.pos[c], 99.0f) << c;
    }

    // Too small, no samples per cell, no bins, no step: -1 with nothing written.
    std::vector<short> zeros(kW * kH, 0);
    Thresholds u(99.0f);
    EXPECT_EQ(histogram(zeros, u, kW, 3), -1);
    EXPECT_EQ(histogram(zeros, u, 3, kH), -1);
    EXPECT_EQ(histogram(zeros, u, kW, kH, 0), -1);
    EXPECT_EQ(qnGetHistogram(zeros.data(), 1.0f, 1.0f, 2.0f, kW, kH, 2, 0.02f, -2.0f, 2.0f, u.neg, u.pos), -1);
    EXPECT_EQ(qnGetHistogram(zeros.data(), -8.0f, 8.0f, std::nanf(""), kW, kH, 2, 0.02f, -2.0f, 2.0f, u.neg, u.pos),
              -1);
    for (int c = 0; c < 16; ++c) EXPECT_EQ(u.neg[c], 99.0f);
}

}  // namespace

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "features/dog.h"
#include "features/gauss3x3.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes randomBytes(std::size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    Bytes v(n);
    for (auto& b : v) b = static_cast<unsigned char>(rng() >> 24);
    return v;
}

bool onFrame(int x, int y, int w, int h) { return x == 0 || y == 0 || x == w - 1 || y == h - 1; }

TEST(Gauss3x3, KernelTruncationAndIdentity) {
    EXPECT_EQ(gauss3x3SideWeight(1.5f), 78);  // 78/100/78
    EXPECT_EQ(gauss3x3SideWeight(0.3f), 0);
    EXPECT_EQ(gauss3x3SideWeight(0.31f), 1);
    EXPECT_EQ(gauss3x3SideWeight(NAN), 0);

    // A lone 255 through 78/100/78: 100*100*255/65536 = 38.9 -> 38, beside it
    // 78*100*255/65536 = 30.3 -> 30, diagonal 23.6 -> 23; the frame is kept.
    Bytes src(25, 0), dst(25, 0xAB);
    src[12] = 255;
    ASSERT_EQ(qnGauss3x3Filter(src.data(), dst.data(), 5, 5, 1.5f), 0);
    EXPECT_EQ(dst[12], 38);
    EXPECT_EQ(dst[13], 30);
    EXPECT_EQ(dst[7], 30);
    EXPECT_EQ(dst[6], 23);
    for (int i = 0; i < 25; ++i) EXPECT_EQ(dst[i], onFrame(i % 5, i / 5, 5, 5) ? 0xAB : dst[i]);

    // Uniform images blur to themselves (v*65536 >> 16).
    Bytes flat(12 * 6, 254), out(12 * 6, 0);
    ASSERT_EQ(qnGauss3x3Filter(flat.data(), out.data(), 12, 6, 1.5f), 0);
    for (int i = 0; i < 72; ++i) EXPECT_EQ(out[i], onFrame(i % 12, i / 12, 12, 6) ? 0 : 254);

    // Sigma 0.2: interior copy, frame untouched.
    const Bytes img = randomBytes(11 * 7, 2);
    Bytes copy(11 * 7, 0xAB);
    ASSERT_EQ(qnGauss3x3Filter(const_cast<unsigned char*>(img.data()), copy.data(), 11, 7, 0.2f), 0);
    for (int i = 0; i < 77; ++i) EXPECT_EQ(copy[i], onFrame(i % 11, i / 11, 11, 7) ? 0xAB : img[i]);

    // Status pass-through; fewer than 3 rows or columns write nothing.
    EXPECT_EQ(qnGauss3x3Filter(nullptr, copy.data(), 11, 7, 0.2f), -2);
    EXPECT_EQ(qnGauss3x3Filter(nullptr, copy.data(), 11, 7, 1.5f), -1);
    Bytes tiny(4, 0xAB);
    for (float sigma : {0.2f, 1.5f})
        for (int side : {0, 1, 2}) {
            EXPECT_EQ(qnGauss3x3Filter(src.data(), tiny.data(), side, 2, sigma), 0);
            EXPECT_EQ(qnGauss3x3Filter(src.data(), tiny.data(), 2, side, sigma), 0);
        }
    EXPECT_EQ(tiny, Bytes(4, 0xAB));
}

// The vectorised passes against the per-pixel definition: widths on both sides
// of the 8/16-lane blocks (also below 10), heights below 3, padded strides and
// kernels whose horizontal sums wrap in 16 bits.
TEST(Gauss3x3, MatchesPlainDefinition) {
    const unsigned char kernels[][3] = {{78, 100, 78}, {1, 254, 1}, {13, 200, 43}, {255, 17, 255}};
    unsigned seed = 10;
    for (int w : {1, 2, 3, 5, 9, 10, 13, 16, 17, 31, 33, 67}) {
        for (int h : {1, 2, 3, 9}) {
            for (int pad : {0, 3}) {
                const std::size_t n = static_cast<std::size_t>(w + pad) * h;  // exact size: ASan sees overruns
                const Bytes src = randomBytes(n, ++seed), fill = randomBytes(n, ++seed);
                for (const auto& k : kernels) {
                    Bytes fast = fill, plain = fill;
                    ASSERT_EQ(gauss3x3_u8(src.data(), fast.data(), w, h, pad ? w + pad : 0, pad ? w + pad : 0, k), 0);
                    ASSERT_EQ(gauss3x3U8Plain(src.data(), plain.data(), w, h, pad ? w + pad : 0, pad ? w + pad : 0, k),
                              0);
                    ASSERT_EQ(fast, plain) << "width " << w << " height " << h << " pad " << pad;
                }
            }
        }
    }
    Bytes d(16, 7);
    EXPECT_EQ(gauss3x3_u8(d.data(), d.data(), 4, 4, 0, 0, nullptr), -1);
    EXPECT_EQ(d, Bytes(16, 7));
}

TEST(DoG, IsCoarseBlurMinusFineBlurWithZeroBorder) {
    const int w = 29, h = 13;
    Bytes src = randomBytes(w * h, 40);
    Bytes blur(w * h, 0);
    ASSERT_EQ(qnGauss3x3Filter(src.data(), blur.data(), w, h, 1.5f), 0);
    std::vector<short> dog(w * h, 999), diff(w * h, 0);
    qnDoG(src.data(), dog.data(), 0.2f, 1.5f, w, h);
    qnImgDiff(blur.data(), src.data(), diff.data(), w, h);
    for (int i = 0; i < w * h; ++i) ASSERT_EQ(dog[i], onFrame(i % w, i / w, w, h) ? 0 : diff[i]) << i;
    Bytes lo(2, 0), hi(2, 255);
    std::vector<short> d(2, 0);
    qnImgDiff(lo.data(), hi.data(), d.data(), 2, 1);
    EXPECT_EQ(d[0], -255);
}

// ---- per-cell histogram thresholds on a 40x40 response: cells of 10x10 ----

constexpr int kW = 40;

template <typename F>
void fillCell(std::vector<short>& dog, int cell, F f) {
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 10; ++x)
            dog[((cell / 4) * 10 + y) * kW + (cell % 4) * 10 + x] = static_cast<short>(f(x, y));
}

int histogram(std::vector<short>& dog, float* neg, float* pos, int width = kW, int height = kW, int step = 2) {
    return qnGetHistogram(dog.data(), -8.0f, 8.0f, 2.0f, width, height, step, 0.02f, -2.0f, 2.0f, neg, pos);
}

TEST(Histogram, ThresholdsFromCellDistributions) {
    std::vector<short> dog(kW * kW, 0);
    fillCell(dog, 0, [](int, int) { return -7; });  // all in the first bin: -8 + (25*0.02*2)/25
    fillCell(dog, 1, [](int, int) { return 8; });   // exactly hi still counts, in the last bin
    // One sample in 25 at -7 and one at 5: 1.0 inside the outer edge of their bins.
    fillCell(dog, 2, [](int x, int y) { return x == 4 && y == 4 ? -7 : (x == 8 && y == 2 ? 5 : 0); });
    // 0, then out of range (100 or -9): the 7s after it in the row are never seen.
    fillCell(dog, 3, [](int x, int) { return x == 0 ? 0 : (x == 2 ? 100 : 7); });
    fillCell(dog, 4, [](int x, int y) { return y != 0 ? 0 : (x == 0 ? -9 : 7); });
    // Strong values only where step 2 never samples.
    fillCell(dog, 5, [](int x, int y) { return (x % 2 || y % 2) ? -100 : 0; });
    float neg[16] = {}, pos[16] = {};
    ASSERT_EQ(histogram(dog, neg, pos), 0);
    EXPECT_NEAR(neg[0], -7.96f, 1e-5);
    EXPECT_NEAR(pos[1], 7.96f, 1e-5);
    EXPECT_NEAR(neg[2], -7.0f, 1e-5);
    EXPECT_NEAR(pos[2], 5.0f, 1e-5);
    for (int c = 0; c < 16; ++c) {  // everything else at the caps
        EXPECT_EQ(neg[c], c == 0 || c == 2 ? neg[c] : -2.0f) << c;
        EXPECT_EQ(pos[c], c == 1 || c == 2 ? pos[c] : 2.0f) << c;
    }

    // "More than" the fraction: 2 samples in 100 (step 1) do not qualify, 3 do.
    std::vector<short> dense(kW * kW, 0);
    fillCell(dense, 0, [](int x, int y) { return y == 0 && x < 2 ? -7 : 0; });
    fillCell(dense, 1, [](int x, int y) { return y == 0 && x < 3 ? -7 : 0; });
    ASSERT_EQ(histogram(dense, neg, pos, kW, kW, 1), 0);
    EXPECT_EQ(neg[0], -2.0f);
    EXPECT_NEAR(neg[1], -8.0f + 4.0f / 3.0f, 1e-5);
}

TEST(Histogram, FailuresKeepEarlierCellsAndSkipLaterOnes) {
    std::vector<short> dog(kW * kW, 0);
    fillCell(dog, 1, [](int, int) { return -7; });
    fillCell(dog, 5, [](int, int) { return 50; });  // no in-range sample
    float neg[16], pos[16];
    std::fill(neg, neg + 16, 99.0f);
    std::fill(pos, pos + 16, 99.0f);
    EXPECT_EQ(histogram(dog, neg, pos), -1);
    EXPECT_NEAR(neg[1], -7.96f, 1e-5);
    for (int c = 0; c < 16; ++c) EXPECT_EQ(pos[c], c < 5 ? 2.0f : 99.0f) << c;

    // Too few rows or columns, no step, no bins: -1 and nothing written.
    std::fill(neg, neg + 16, 99.0f);
    EXPECT_EQ(histogram(dog, neg, pos, kW, 3), -1);
    EXPECT_EQ(histogram(dog, neg, pos, 3, kW), -1);
    EXPECT_EQ(histogram(dog, neg, pos, kW, kW, 0), -1);
    EXPECT_EQ(qnGetHistogram(dog.data(), 1.0f, 1.0f, 2.0f, kW, kW, 2, 0.02f, -2.0f, 2.0f, neg, pos), -1);
    EXPECT_EQ(qnGetHistogram(dog.data(), -8.0f, 8.0f, NAN, kW, kW, 2, 0.02f, -2.0f, 2.0f, neg, pos), -1);
    for (int c = 0; c < 16; ++c) EXPECT_EQ(neg[c], 99.0f);
}

}  // namespace

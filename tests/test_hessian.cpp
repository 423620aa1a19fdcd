#include <gtest/gtest.h>

#include <random>

#include "motion/hessian.h"

namespace {

void fromImage(unsigned char (&img)[25], float* h) { qnCalcHessianFromImg(img, 2, 2, 5, 5, h); }

TEST(Hessian, NeighbourhoodOverloadsAgree) {
    unsigned char g[9] = {10, 20, 30, 40, 50, 70, 90, 15, 5};
    float h[4];
    qnCalcHessian(g, h);
    EXPECT_EQ(h[0], 20.0f + 15.0f - 100.0f);
    EXPECT_EQ(h[3], 40.0f + 70.0f - 100.0f);
    EXPECT_EQ(h[1], (10.0f + 5.0f - 30.0f - 90.0f) * 0.25f);
    EXPECT_EQ(h[2], h[1]);

    std::mt19937 rng(1);
    for (int t = 0; t < 200; ++t) {
        unsigned char b[9];
        float f[9], hb[4], hf[4];
        for (int i = 0; i < 9; ++i) f[i] = b[i] = static_cast<unsigned char>(rng());
        qnCalcHessian(b, hb);
        qnCalcHessian(f, hf);
        for (int i = 0; i < 4; ++i) ASSERT_EQ(hb[i], hf[i]);
    }
}

TEST(Hessian, ImageFormCountsPixelBelowTwiceAndIgnoresTopRight) {
    // Centre at (2, 2) of a 5x5 image; neighbour offsets in (dx, dy).
    auto with = [](int dx, int dy, unsigned char value) {
        unsigned char img[25] = {};
        img[(2 + dy) * 5 + 2 + dx] = value;
        float h[4];
        fromImage(img, h);
        return std::vector<float>(h, h + 4);
    };
    EXPECT_EQ(with(1, -1, 200), std::vector<float>(4, 0.0f));        // top-right never enters
    EXPECT_EQ(with(0, -1, 8), std::vector<float>(4, 0.0f));          // nor does the pixel above
    EXPECT_EQ(with(0, 1, 8), (std::vector<float>{16, 0, 0, 0}));     // below counted twice
    EXPECT_EQ(with(-1, 0, 8), (std::vector<float>{0, 0, 0, 8}));     // along the row
    EXPECT_EQ(with(-1, -1, 8), (std::vector<float>{0, 2, 2, 0}));    // top-left
    EXPECT_EQ(with(-1, 1, 8), (std::vector<float>{0, -2, -2, 0}));   // bottom-left
    EXPECT_EQ(with(1, 1, 8), (std::vector<float>{0, 0, 0, 0}));      // bottom-right cancels
    EXPECT_EQ(with(0, 0, 8), (std::vector<float>{-16, 0, 0, -16}));  // centre
}

}  // namespace

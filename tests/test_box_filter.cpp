#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "motion/box_filter.h"

namespace {

// Clipped mean of the span [i - r, i + r] straight from the definition (sums of
// integers are exact in float, so any summation order gives the same value).
float clippedMean(const std::vector<float>& line, int i, int r) {
    const int n = static_cast<int>(line.size());
    float sum = 0.0f;
    int count = 0;
    for (int j = i - r; j <= i + r; ++j)
        if (j >= 0 && j < n) {
            sum += line[static_cast<size_t>(j)];
            ++count;
        }
    return sum * (1.0f / static_cast<float>(count));
}

TEST(BoxFilter, KernelSizesBecomeOddAndAtLeastThree) {
    unsigned char row[8] = {0, 0, 0, 50, 0, 0, 0, 0};
    float out[8];
    qnBoxfilterHor(row, out, 1, 8, 4);  // 5 wide
    EXPECT_EQ(out[1], 50.0f * (1.0f / 4.0f));
    EXPECT_EQ(out[3], 50.0f * (1.0f / 5.0f));
    EXPECT_EQ(out[5], 50.0f * (1.0f / 5.0f));
    EXPECT_EQ(out[6], 0.0f);
    for (int k : {1, 2, 3}) {
        qnBoxfilterHor(row, out, 1, 8, k);  // 3 wide
        EXPECT_EQ(out[2], 50.0f * (1.0f / 3.0f)) << k;
        EXPECT_EQ(out[4], 50.0f * (1.0f / 3.0f)) << k;
        EXPECT_EQ(out[1], 0.0f) << k;
    }
    unsigned char first[8] = {9, 3, 6, 100, 100, 100, 100, 100};
    qnBoxfilterHor(first, out, 1, 8, 7);  // first output: mean of r + 1 = 4 samples
    EXPECT_EQ(out[0], 118.0f * (1.0f / 4.0f));
}

TEST(BoxFilter, RunningSumsMatchClippedMeansForAllSizes) {
    std::mt19937 rng(3);
    for (int cols : {1, 2, 4, 5, 9, 16, 23}) {
        for (int rows : {1, 3, 7, 12}) {
            for (int k : {2, 4, 5, 9}) {
                const int r = ((k <= 3 ? 3 : k) | 1) / 2;
                std::vector<unsigned char> src(static_cast<size_t>(rows * cols));
                for (auto& v : src) v = static_cast<unsigned char>(rng());
                std::vector<float> hor(src.size());
                qnBoxfilterHor(src.data(), hor.data(), rows, cols, k);
                for (int y = 0; y < rows; ++y) {
                    std::vector<float> line(src.begin() + y * cols, src.begin() + (y + 1) * cols);
                    for (int x = 0; x < cols; ++x)
                        ASSERT_EQ(hor[static_cast<size_t>(y * cols + x)], clippedMean(line, x, r))
                            << rows << "x" << cols << " k=" << k << " at " << x << "," << y;
                }
                // Vertical pass on integer-valued floats, bytes out.
                std::vector<float> ints(src.begin(), src.end());
                std::vector<unsigned char> ver(src.size());
                qnBoxfilterVer(ints.data(), ver.data(), rows, cols, k);
                for (int x = 0; x < cols; ++x) {
                    std::vector<float> column;
                    for (int y = 0; y < rows; ++y) column.push_back(ints[static_cast<size_t>(y * cols + x)]);
                    for (int y = 0; y < rows; ++y)
                        ASSERT_EQ(ver[static_cast<size_t>(y * cols + x)], static_cast<unsigned char>(clippedMean(column, y, r)))
                            << rows << "x" << cols << " k=" << k << " at " << x << "," << y;
                }
            }
        }
    }
}

TEST(BoxFilter, BothPassesKeepFlatImagesAndSpreadAnImpulse) {
    const int rows = 9, cols = 11;
    std::vector<unsigned char> flat(rows * cols, 77), out(rows * cols, 0);
    qnBoxfilter(flat.data(), out.data(), rows, cols, Size{5, 3});
    for (unsigned char v : out) EXPECT_EQ(v, 77);

    std::vector<unsigned char> impulse(rows * cols, 0);
    impulse[4 * cols + 5] = 225;
    qnBoxfilter(impulse.data(), out.data(), rows, cols, Size{5, 3});  // 5 wide, 3 high
    for (int y = 0; y < rows; ++y)
        for (int x = 0; x < cols; ++x) {
            const bool inside = y >= 3 && y <= 5 && x >= 3 && x <= 7;
            EXPECT_EQ(out[static_cast<size_t>(y * cols + x)], inside ? 15 : 0) << x << "," << y;
        }
}

}  // namespace

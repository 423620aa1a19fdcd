#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "registration/black_level.h"

namespace {

TEST(BlackLevel, PatternTablePlacesLevelsByQuadSite) {
    int o[4];
    getBayerBLCorder(o, 0, 10, 11, 12, 13);
    EXPECT_EQ(std::vector<int>(o, o + 4), (std::vector<int>{10, 11, 12, 13}));
    getBayerBLCorder(o, 1, 10, 11, 12, 13);
    EXPECT_EQ(std::vector<int>(o, o + 4), (std::vector<int>{13, 11, 12, 10}));
    getBayerBLCorder(o, 2, 10, 11, 12, 13);
    EXPECT_EQ(std::vector<int>(o, o + 4), (std::vector<int>{11, 10, 13, 12}));
    for (int pattern : {3, 7, -1, 1000}) {
        getBayerBLCorder(o, pattern, 10, 11, 12, 13);
        EXPECT_EQ(std::vector<int>(o, o + 4), (std::vector<int>{11, 13, 10, 12})) << pattern;
    }
}

TEST(BlackLevel, BrighteningScalesAboutTheBlackLevelAndWraps) {
    int order[4] = {64, 64, 64, 64};
    // Sample 10 below black with gain 4 stays below black; 1023 with gain 40 wraps.
    std::vector<short> in = {54, 1023, 64, 100, 54, 1023, 64, 100};
    std::vector<short> out(in.size(), 0);
    enlightenOutput(in.data(), out.data(), 4.0f, 4, 2, order);
    EXPECT_EQ(out[0], 24);
    EXPECT_EQ(out[2], 64);
    EXPECT_EQ(out[3], 208);
    enlightenOutput(in.data(), out.data(), 40.0f, 4, 2, order);
    EXPECT_EQ(out[1], -27112);  // 38424 stored in 16 bits
    EXPECT_EQ(out[5], -27112);

    // Per-site levels follow the table, and in-place use sees the original input.
    int levels[4] = {0, 10, 20, 30};
    std::vector<short> quad = {100, 100, 100, 100};
    enlightenOutput(quad.data(), quad.data(), 2.0f, 2, 2, levels);
    EXPECT_EQ(quad, (std::vector<short>{200, 190, 180, 170}));

    // Gain 1.0 reproduces the input, truncation goes toward zero.
    std::vector<short> ramp = {0, 1, 500, 1023};
    std::vector<short> same(4);
    enlightenOutput(ramp.data(), same.data(), 1.0f, 2, 2, order);
    EXPECT_EQ(same, ramp);
    enlightenOutput(ramp.data(), same.data(), 1.5f, 2, 2, order);
    EXPECT_EQ(same[1], -30);  // (1 - 64) * 1.5 + 64 = -30.5 -> -30
}

TEST(BlackLevel, BrighteningWithNonFiniteGainIsDefined) {
    int order[4] = {64, 64, 64, 64};
    std::vector<short> in = {0, 64, 1023, 500};
    std::vector<short> out(4, 7);
    enlightenOutput(in.data(), out.data(), INFINITY, 2, 2, order);
    EXPECT_EQ(out[1], 0);  // 0 * inf is NaN: saturates to 0
    enlightenOutput(in.data(), out.data(), 1e30f, 2, 2, order);
    EXPECT_EQ(out[2], -1);  // INT_MAX, low 16 bits
}

TEST(BlackLevel, RemoveBlackClampsAtZeroPerSite) {
    int order[4] = {64, 60, 70, 80};
    std::vector<short> in = {100, 50, 70, 1023};
    std::vector<short> out(4);
    removeBLC(in.data(), out.data(), 2, 2, order);
    EXPECT_EQ(out, (std::vector<short>{36, 0, 0, 943}));
    removeBLC(in.data(), in.data(), 2, 2, order);
    EXPECT_EQ(in, out);
}

}  // namespace

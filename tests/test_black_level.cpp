#include <gtest/gtest.h>

#include <cmath>
#include <random>
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

// Row-wise brightening against the quad walk: gains from 0 up to the largest one
// the rows accept (negative ones too), every Bayer pattern's levels, samples at
// both ends of the 16-bit range, odd sizes, in place and apart.
TEST(BlackLevel, RowWiseBrighteningEqualsTheQuadWalk) {
    std::mt19937 rng(9);
    std::uniform_int_distribution<int> sample(-32768, 32767), small(0, 4095), large(-8388608, 8388608);
    auto level = [&](std::mt19937& r) { return r() % 4 == 0 ? large(r) : small(r); };  // large: gain 1 only
    const float gains[] = {1.0f, 0.0f, 1.37f, 4.0f, 40.0f, -3.25f, 16000.0f, 32000.0f};
    for (int w : {1, 2, 3, 8, 9, 17, 33})
        for (int h : {1, 2, 5})
            for (int pattern = 0; pattern < 4; ++pattern)
                for (float gain : gains) {
                    int order[4];
                    getBayerBLCorder(order, pattern, level(rng), 64, 64, level(rng));
                    if (!black_level_detail::brightenStaysInRange(gain, order)) continue;
                    std::vector<short> in(static_cast<size_t>(w) * h);
                    for (auto& v : in) v = static_cast<short>(sample(rng));
                    std::vector<short> want(in.size(), 5), got = want, inPlace = in, wantInPlace = in;
                    black_level_detail::brightenPlain(in.data(), want.data(), gain, w, h, order);
                    black_level_detail::brightenRows(in.data(), got.data(), gain, w, h, order);
                    ASSERT_EQ(got, want) << "w=" << w << " h=" << h << " gain=" << gain;
                    black_level_detail::brightenPlain(wantInPlace.data(), wantInPlace.data(), gain, w, h, order);
                    black_level_detail::brightenRows(inPlace.data(), inPlace.data(), gain, w, h, order);
                    ASSERT_EQ(inPlace, wantInPlace);
                }
    int order[4] = {64, 64, 64, 64};
    EXPECT_TRUE(black_level_detail::brightenStaysInRange(32000.0f, order));
    EXPECT_FALSE(black_level_detail::brightenStaysInRange(40000.0f, order));
    EXPECT_FALSE(black_level_detail::brightenStaysInRange(NAN, order));
    EXPECT_FALSE(black_level_detail::brightenStaysInRange(INFINITY, order));
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

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "hdr/tone_ops.h"
#include "support/fast_paths.h"

namespace {

using Frame = std::vector<short>;

// A frame of identical quads (a b / c d).
Frame quads(int width, int height, short a, short b, short c, short d) {
    Frame f(width * height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) f[y * width + x] = (y % 2 == 0) ? (x % 2 == 0 ? a : b) : (x % 2 == 0 ? c : d);
    return f;
}

TEST(WhiteBalance, GainsFollowThePatternAndClampAtWhite) {
    // Red gain 2.0 and blue gain 0.5 on a quad 600 100 / 200 300: the red site of pattern 0
    // reaches 1200 and is clamped to 1023.
    const short expected[4][4] = {
        {1023, 100, 200, 150},  // 0: red, 1, 1, blue
        {300, 100, 200, 600},   // 1: blue, 1, 1, red
        {600, 200, 100, 300},   // 2: 1, red, blue, 1
        {600, 50, 400, 300},    // 3: 1, blue, red, 1
    };
    for (int pattern = 0; pattern < 4; ++pattern) {
        Frame f = quads(4, 4, 600, 100, 200, 300);
        whiteBalance(f.data(), f.data(), 0, 4, 2.0f, 0.5f, 4, 1023, pattern);
        EXPECT_EQ(f, quads(4, 4, expected[pattern][0], expected[pattern][1], expected[pattern][2],
                           expected[pattern][3]))
            << "pattern " << pattern;
    }

    // Unknown codes zero the band and nothing else.
    for (int pattern : {5, -1}) {
        Frame f(4 * 6, 77), out(4 * 6, 9);
        whiteBalance(f.data(), out.data(), 2, 4, 2.0f, 0.5f, 4, 1023, pattern);
        for (int i = 0; i < 24; ++i) EXPECT_EQ(out[i], (i >= 8 && i < 16) ? 0 : 9) << pattern << " " << i;
    }
}

TEST(WhiteBalance, BandsCoverWholeQuadsAndOddSizesStayInside) {
    // Band [0, 1): the quad's second row equals rowEnd and is still processed.
    Frame f(4 * 4, 100);
    whiteBalance(f.data(), f.data(), 0, 1, 3.0f, 3.0f, 4, 1023, 0);
    EXPECT_EQ(f, Frame({300, 100, 300, 100, 100, 300, 100, 300, 100, 100, 100, 100, 100, 100, 100, 100}));
    // An empty band writes nothing.
    whiteBalance(f.data(), f.data(), 2, 2, 3.0f, 3.0f, 4, 1023, 0);
    EXPECT_EQ(f[8], 100);

    // Odd width: the last column takes the even-column gain and no sample beyond the
    // two rows is written (the sanitizer checks the buffer end).
    Frame odd(3 * 2, 10);
    whiteBalance(odd.data(), odd.data(), 0, 2, 2.0f, 4.0f, 3, 1023, 0);
    EXPECT_EQ(odd, Frame({20, 10, 20, 10, 40, 10}));

    // A NaN gain gives 0 at its sites, a huge one clamps at white, and the other sites are
    // unaffected by the slow conversion path.
    Frame g = quads(2, 2, 500, 500, 500, 500);
    whiteBalance(g.data(), g.data(), 0, 2, std::numeric_limits<float>::quiet_NaN(), 1e30f, 2, 1023, 0);
    EXPECT_EQ(g, Frame({0, 500, 500, 1023}));
}

TEST(GammaTable, EndpointsAndIdentityCurve) {
    for (float gamma : {0.5f, 0.65f, 0.85f, 1.0f, 2.0f}) {
        std::vector<short> table(1024 + 1, -7);
        createGammaTbl(table.data(), 1023, gamma);
        EXPECT_EQ(table[0], 0);
        EXPECT_EQ(table[1023], 1023);
        EXPECT_EQ(table[1024], -7) << "written past whiteLevel";
        for (int i = 1; i <= 1023; ++i) ASSERT_LE(table[i - 1], table[i]) << gamma;
        if (gamma == 1.0f) {
            for (int i = 0; i <= 1023; ++i) ASSERT_TRUE(table[i] == i || table[i] == i - 1) << i;
        }
    }
    std::vector<short> table(1024);
    createGammaTbl(table.data(), 1023, 0.5f);
    EXPECT_EQ(table[256], 511);  // sqrt(256 / 1023) * 1023 = 511.75

    short untouched = 5;
    createGammaTbl(&untouched, -1, 1.0f);
    EXPECT_EQ(untouched, 5);
}

TEST(RangeCompression, BelowKneeKeepsQuadsAndZeroMeanQuadsVanish) {
    // Brightest mean 500 below the knee 0.55 * 1023 = 562: positive means keep their
    // samples (ratio exactly 1.0f); a quad 1 1 / 1 0 has mean 3 >> 2 = 0 and is zeroed.
    Frame f = {500, 500, 10, 20, 1, 1, 500, 500, 30, 40, 1, 0,  //
               -8, -8, 7, 3, 2, 0, -8, -8, 1, 4, 0, 0};
    Frame out(f.size(), 99);
    dataRangeCompression(f.data(), out.data(), 6, 4, 1023, 0.7f, 0.55f);
    Frame expected = f;
    expected[4] = expected[5] = expected[10] = expected[11] = 0;  // the quad of mean 0
    expected[16] = expected[17] = expected[22] = expected[23] = 0;
    EXPECT_EQ(out, expected);
}

TEST(RangeCompression, BrightestQuadMapsToWhiteAboveKnee) {
    // Blend 1: top is the brightest mean 800, which maps to 1023 (ratio 1023 / 800);
    // a quad of mean 600 maps to trunc(512 * 89 / 289 + 511) = 668; the knee is 511.
    Frame f = {1000, 600, 600, 600, 400, 400,  //
               600, 1000, 600, 600, 400, 400};
    Frame inPlace = f;
    Frame out(f.size());
    dataRangeCompression(f.data(), out.data(), 6, 2, 1023, 1.0f, 0.5f);
    // 1000 * 1.27875 clamps at white, 600 * 1.27875 = 767.25; below the knee unchanged.
    EXPECT_EQ(out, Frame({1023, 767, 668, 668, 400, 400, 767, 1023, 668, 668, 400, 400}));
    dataRangeCompression(inPlace.data(), inPlace.data(), 6, 2, 1023, 1.0f, 0.5f);
    EXPECT_EQ(inPlace, out);

    // Only whole quads: an odd trailing row and column stay unwritten; no rows at all
    // writes nothing.
    Frame odd(5 * 3, 600), oddOut(5 * 3, -1);
    dataRangeCompression(odd.data(), oddOut.data(), 5, 3, 1023, 1.0f, 0.9f);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x) EXPECT_EQ(oddOut[y * 5 + x], (y < 2 && x < 4) ? 600 : -1) << y << "," << x;
    Frame none(4, -1);
    dataRangeCompression(odd.data(), none.data(), 2, 0, 1023, 1.0f, 0.5f);
    dataRangeCompression(odd.data(), none.data(), 2, 1, 1023, 1.0f, 0.5f);
    EXPECT_EQ(none, Frame(4, -1));
}

TEST(AlphaFusion, TruncatedBlendOnTheBandOnly) {
    Frame a(4 * 3, 3), b(4 * 3, 4);
    a[5] = -3, b[5] = -4;
    alphaFusion(a.data(), b.data(), a.data(), 1, 2, 4, 0.5f, 0.5f);
    EXPECT_EQ(a, Frame({3, 3, 3, 3, 3, -3, 3, 3, 3, 3, 3, 3}));  // 3.5 -> 3, -3.5 -> -3
    Frame dst(4 * 3, 0);
    alphaFusion(a.data(), b.data(), dst.data(), 2, 2, 4, 0.5f, 0.5f);
    EXPECT_EQ(dst, Frame(4 * 3, 0));
    // A NaN weight takes the saturating path: 0 instead of undefined behaviour.
    dst[0] = 9;
    alphaFusion(a.data(), b.data(), dst.data(), 0, 1, 4, std::numeric_limits<float>::quiet_NaN(), 0.5f);
    EXPECT_EQ(dst[0], 0);
}

TEST(GreenAttenuation, DarkGreensScaledRedAndBlueUntouched) {
    // White level 1000. Quad greens 240 and 260 average 0.25 of white: factor 0.98,
    // rounded half up (235.2 -> 235, 254.8 -> 255). Greens of 10 and 20 are dark
    // (0.96: 9.6 -> 10, 19.2 -> 19); greens of 500 and 700 are bright (unchanged).
    const short dark[2] = {10, 20}, mid[2] = {240, 260}, bright[2] = {500, 700};
    const short darkOut[2] = {10, 19}, midOut[2] = {235, 255};
    for (int pattern : {0, 1, 2, 3, 9}) {
        const bool diagonal = pattern >= 2;
        // Three quads side by side on a 6 x 2 frame; red and blue get distinct values.
        auto frame = [&](const short* g0, const short* g1, const short* g2) {
            const short* greens[3] = {g0, g1, g2};
            Frame f(6 * 2);
            for (int q = 0; q < 3; ++q) {
                const int c = 2 * q;
                const short red = static_cast<short>(900 + q), blue = static_cast<short>(30 + q);
                if (diagonal) {
                    f[c] = greens[q][0], f[c + 1] = red, f[6 + c] = blue, f[6 + c + 1] = greens[q][1];
                } else {
                    f[c] = red, f[c + 1] = greens[q][0], f[6 + c] = greens[q][1], f[6 + c + 1] = blue;
                }
            }
            return f;
        };
        Frame f = frame(dark, mid, bright);
        greenAttenuation(f.data(), f.data(), 6, 2, 1000, pattern);
        EXPECT_EQ(f, frame(darkOut, midOut, bright)) << "pattern " << pattern;
    }

    // Separate output: only the green sites are written.
    Frame src = {10, 100, 100, 10}, out(4, -1);
    greenAttenuation(src.data(), out.data(), 2, 2, 1000, 0);
    EXPECT_EQ(out, Frame({-1, 96, 96, -1}));
}

// The fast forms against the plain definitions on random and extreme samples of
// many sizes: the range compression's factor table (in place and not) against
// the per-quad factors, and the in-place row forms of white balance and green
// attenuation against the two-buffer loops.
TEST(ToneOps, FastFormsMatchPlainDefinitions) {
    std::mt19937 rng(31);
    for (int height : {1, 2, 3, 6}) {
        for (int width = 1; width <= 34; ++width) {
            const int n = width * height;
            for (int range : {2046, 32767}) {
                const Frame src = fasttest::randomSamples<short>(rng, n, range == 2046 ? 0 : -range, range);
                for (float blend : {0.7f, 0.0f, 1.0f}) {
                    Frame plain(n, 5), table(n, 5), inPlace = src, plainInPlace = src;
                    tone_detail::dataRangeCompressionPlain(src.data(), plain.data(), width, height, 1023, blend, 0.55f);
                    tone_detail::dataRangeCompressionPlain(plainInPlace.data(), plainInPlace.data(), width, height,
                                                           1023, blend, 0.55f);
                    dataRangeCompression(src.data(), table.data(), width, height, 1023, blend, 0.55f);
                    dataRangeCompression(inPlace.data(), inPlace.data(), width, height, 1023, blend, 0.55f);
                    ASSERT_EQ(table, plain) << width << "x" << height << " blend " << blend;
                    ASSERT_EQ(inPlace, plainInPlace) << width << "x" << height;
                    for (KernelIsa isa : fasttest::availableIsas()) {  // the in-place row form, each compilation
                        int brightest = 0, darkest = 1 << 30;
                        tone_detail::quadMeanRange(src.data(), width, 0, height / 2, &brightest, &darkest, isa);
                        const tone_detail::RangeCompressionTable factors(brightest, darkest, 1023, blend, 0.55f);
                        Frame rows = src;
                        factors.compressQuadRows(rows.data(), rows.data(), width, 0, height / 2, isa);
                        ASSERT_EQ(rows, plainInPlace) << width << "x" << height << " " << fasttest::isaName(isa);
                    }
                }
                for (int pattern : {0, 1, 2, 3, 5}) {
                    for (int white : {1023, 1000, 1}) {
                        Frame separate = src, inPlace = src;
                        greenAttenuation(const_cast<short*>(src.data()), separate.data(), width, height, white,
                                         pattern);
                        greenAttenuation(inPlace.data(), inPlace.data(), width, height, white, pattern);
                        ASSERT_EQ(inPlace, separate) << width << "x" << height << " white " << white;
                    }
                    // Whole quads only: the last quad row of an odd height reaches past the frame.
                    const int rows = height & ~1;
                    Frame separate = src, inPlace = src;
                    whiteBalance(const_cast<short*>(src.data()), separate.data(), 0, rows, 1.7f, 0.6f, width, 1023,
                                 pattern);
                    whiteBalance(inPlace.data(), inPlace.data(), 0, rows, 1.7f, 0.6f, width, 1023, pattern);
                    ASSERT_EQ(inPlace, separate) << width << "x" << height;
                }
            }
        }
    }
}

}  // namespace

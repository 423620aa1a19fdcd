#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "hdr/hdr_process.h"
#include "hdr/tone_ops.h"
#include "support/fast_paths.h"
#include "support/hdr_scene.h"

namespace {

using S16 = std::vector<short>;

S16 runHdr(S16 a, S16 b, S16 c, int width, int height, float ratio, std::array<int, 4> black,
           float redGain = 1.0f, float blueGain = 1.0f, int pattern = 0) {
    S16 out(a.size(), -12345);
    hdrProcess(a.data(), b.data(), c.data(), out.data(), redGain, blueGain, width, height, ratio, pattern,
               black.data());
    return out;
}

TEST(HdrParameter, LayoutAndDefaults) {
    static_assert(sizeof(Parameter) == 14 * 4, "fourteen 32-bit fields");
    static_assert(offsetof(Parameter, whiteLevel) == 12, "field order");
    static_assert(offsetof(Parameter, bayerPattern) == 24, "field order");
    static_assert(offsetof(Parameter, shallowLevelCount) == 40, "field order");
    static_assert(offsetof(Parameter, rangeCompressionRatio) == 52, "field order");
    Parameter p;
    std::memset(&p, 0x5A, sizeof p);
    initializeParameter(&p);
    EXPECT_EQ(p.laplacianGain0, 1.0f);
    EXPECT_EQ(p.laplacianGain1, 1.0f);
    EXPECT_EQ(p.laplacianGainMaxLevel, 6);
    EXPECT_EQ(p.whiteLevel, 1023);
    EXPECT_EQ(p.unused4, 0x5A5A5A5A);  // left as they were
    EXPECT_EQ(p.unused5, 0x5A5A5A5A);
    EXPECT_EQ(p.bayerPattern, 0);
    EXPECT_EQ(p.exposureCenter, 511);
    EXPECT_EQ(p.exposureWeightScale, 1.0f);
    EXPECT_EQ(p.reservedLevelCount, 10);
    EXPECT_EQ(p.shallowLevelCount, 6);
    EXPECT_EQ(p.pyramidBlendAlpha, 0.5f);
    EXPECT_EQ(p.rangeCompressionBlend, 0.7f);
    EXPECT_EQ(p.rangeCompressionRatio, 0.55f);
}

TEST(HdrStages, BracketGainsAndBlackLevelRemoval) {
    using hdr_detail::bracketGain;
    const std::vector<std::pair<float, std::array<float, 4>>> cases = {
        {8.0f, {2.0f, 2.0f, 4.0f, 8.0f}},
        {3.0f, {1.0f, 1.0f, 1.5f, 3.0f}},
        {1.5f, {1.0f, 1.0f, 1.0f, 1.5f}},
        {0.5f, {1.0f, 1.0f, 1.0f, 0.5f}},  // only the last member is not floored at 1
    };
    for (const auto& c : cases)
        for (int k = 0; k < 4; ++k) EXPECT_EQ(bracketGain(c.first, k, 4), c.second[k]) << c.first << " " << k;

    const int black[4] = {64, 60, 70, 80};
    S16 frame = {100, 100, 50, 2000, 171, 81, 69, 1000};  // 4 x 2
    hdr_detail::removeBlackLevelAndGain(frame.data(), 4, 2, 1.5f, black, 1023);
    EXPECT_EQ(frame, (S16{54, 60, 0, 1023, 151, 1, 0, 1023}));

    // The product keeps its low 16 bits before the signed clamp: 40 * 936 = 37440
    // reads as a negative sample and becomes 0.
    S16 wrapped = {1000, 1000, 1000, 1000};
    hdr_detail::removeBlackLevelAndGain(wrapped.data(), 2, 2, 40.0f, black, 1023);
    EXPECT_EQ(wrapped[0], 0);

    // Non-finite and huge caller gains convert with saturation instead of
    // undefined behaviour.
    for (float gain : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(), 1.0e30f}) {
        S16 f = {100, 200, 300, 400};
        hdr_detail::removeBlackLevelAndGain(f.data(), 2, 2, gain, black, 1023);
        for (short v : f) EXPECT_TRUE(v >= 0 && v <= 1023);
    }
}

TEST(HdrStages, GammaExponentsLevelCountsAndStripes) {
    EXPECT_EQ(hdr_detail::gammaExponent(0), 1.0f);
    EXPECT_EQ(hdr_detail::gammaExponent(1), 0.85f);
    EXPECT_EQ(hdr_detail::gammaExponent(2), 0.65f);
    EXPECT_EQ(hdr_detail::gammaExponent(3), 0.5f);
    EXPECT_EQ(1.0f / hdr_detail::gammaExponent(3), 2.0f);  // the inverse curve

    // The forward table of the brightest member and its inverse.
    std::vector<short> table(1024);
    createGammaTbl(table.data(), 1023, hdr_detail::gammaExponent(3));
    EXPECT_EQ(table[256], static_cast<short>(std::sqrt(256.0f / 1023.0f) * 1023.0f));
    S16 image = {-5, 0, 256, 1023, 5000};
    hdr_detail::mapThroughTable(image.data(), image.size(), table.data(), 1023);
    EXPECT_EQ(image, (S16{0, 0, table[256], 1023, 1023}));  // out-of-range samples read the end entries

    // Level count: floor(log2(half the smaller side)), at least 1.
    EXPECT_EQ(hdr_detail::levelCountForSize(4000, 3000), 10);
    EXPECT_EQ(hdr_detail::levelCountForSize(256, 192), 6);
    EXPECT_EQ(hdr_detail::levelCountForSize(64, 48), 4);
    EXPECT_EQ(hdr_detail::levelCountForSize(48, 64), 4);
    EXPECT_EQ(hdr_detail::levelCountForSize(100, 102), 5);  // width chosen when the halves compare <=
    EXPECT_EQ(hdr_detail::levelCountForSize(6, 4), 1);
    EXPECT_EQ(hdr_detail::levelCountForSize(2, 2), 1);
    auto sizes = hdr_detail::levelSizesFor(4000, 3000, 10);
    const int heights[10] = {3000, 1500, 750, 374, 186, 92, 46, 22, 10, 4};
    for (int i = 0; i < 10; ++i) EXPECT_EQ(sizes[i][0], heights[i]) << i;
    EXPECT_EQ(sizes[3][1], 500);
    for (int side : {4, 6, 10, 14, 30, 48, 94, 130, 3000})
        for (auto& s : hdr_detail::levelSizesFor(side, side, hdr_detail::levelCountForSize(side, side)))
            EXPECT_GE(s[0], 2) << side;

    // White-balance stripes start on even rows; unchanged when height / 4 is even.
    for (int height = 2; height <= 1004; height += 2) {
        int expectEnd = 0;
        for (int k = 0; k < 4; ++k) {
            const int start = hdr_detail::whiteBalanceStripeStart(height, k);
            ASSERT_EQ(start, expectEnd);
            ASSERT_EQ(start % 2, 0);
            expectEnd = hdr_detail::whiteBalanceStripeEnd(height, k);
            ASSERT_GE(expectEnd, start);
            if ((height / 4) % 2 == 0) {
                ASSERT_EQ(start, k * (height / 4));
            }
        }
        ASSERT_EQ(expectEnd, height);
    }
    EXPECT_EQ(hdr_detail::whiteBalanceStripeStart(20, 1), 4);
    EXPECT_EQ(hdr_detail::whiteBalanceStripeStart(20, 3), 14);

    // Balancing stripe by stripe equals balancing the frame at once (quads stay
    // whole), here with q = 5.
    const int width = 6, height = 20;
    S16 frame(width * height);
    for (int p = 0; p < width * height; ++p) frame[p] = static_cast<short>((p * 37) % 600);
    S16 whole = frame, striped = frame;
    whiteBalance(whole.data(), whole.data(), 0, height, 2.0f, 0.5f, width, 1023, 0);
    for (int k = 0; k < 4; ++k)
        whiteBalance(striped.data(), striped.data(), hdr_detail::whiteBalanceStripeStart(height, k),
                     hdr_detail::whiteBalanceStripeEnd(height, k), 2.0f, 0.5f, width, 1023, 0);
    EXPECT_EQ(striped, whole);
}

TEST(HdrStages, BlackLevelRestoreTakesTheScaleFromTheFirstLevel) {
    const int black[4] = {64, 60, 70, 80};
    // Scale 959 / 1023 for every site: 500 -> 468.72 plus the site's own level.
    S16 image = {500, 500, 0, 0, 500, 500, 0, 0};  // 4 x 2
    hdr_detail::restoreBlackLevel(image.data(), 4, 2, black, 1023);
    EXPECT_EQ(image, (S16{532, 528, 64, 60, 538, 548, 70, 80}));
    S16 bright = {2046, 2046, 2046, 2046};  // only the upper bound is clamped
    hdr_detail::restoreBlackLevel(bright.data(), 2, 2, black, 1023);
    EXPECT_EQ(bright, (S16{1023, 1023, 1023, 1023}));
}

// The driver's fused bands (each compilation) against the stage-by-stage plain
// order, before and after the pyramids: random and extreme samples, every pattern
// (5 writes zeros through white balance), gains that keep every conversion in
// range and gains that send the bands back to the stage functions.
TEST(HdrStages, FusedBandsMatchStageByStage) {
    std::mt19937 rng(5);
    const int width = 38, height = 14, n = width * height;
    const int black[4] = {64, 60, 70, 80};
    struct Gains {
        float red, blue, ratio;
    };
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (Gains g :
         {Gains{1.9f, 1.6f, 2.0f}, Gains{0.7f, 3.0f, 9.0f}, Gains{1e30f, nan, 0.5f}, Gains{0.0f, 1.0f, 1.0f}}) {
        for (int pattern : {0, 1, 2, 3, 5}) {
            std::vector<S16> raw(3);
            for (auto& f : raw) f = fasttest::randomSamples<short>(rng, n, -100, 1300);
            std::vector<short> table(1024);
            std::vector<S16> plain = {raw[2], raw[1], raw[0], raw[0]};
            hdr_detail::prepareFramesPlain({plain[0].data(), plain[1].data(), plain[2].data(), plain[3].data()}, width,
                                           height, g.ratio, black, g.red, g.blue, 1023, pattern, table.data());
            for (KernelIsa isa : fasttest::availableIsas()) {
                std::vector<S16> fused = {raw[2], raw[1], S16(n, 9), raw[0]};
                hdr_detail::prepareFramesFused({fused[0].data(), fused[1].data(), fused[2].data(), fused[3].data()},
                                               {fused[0].data(), fused[1].data(), fused[3].data(), fused[3].data()},
                                               width, height, g.ratio, black, g.red, g.blue, 1023, pattern,
                                               table.data(), isa);
                ASSERT_EQ(fused, plain) << "pattern " << pattern << " red " << g.red << " " << fasttest::isaName(isa);
            }

            Parameter tuning;
            initializeParameter(&tuning);
            tuning.bayerPattern = pattern;
            const S16 full = fasttest::randomSamples<short>(rng, n, 0, 2046);
            const S16 shallow = fasttest::randomSamples<short>(rng, n, 0, 2046);
            S16 plainFull = full, plainShallow = shallow, plainOut(n, 3);
            hdr_detail::toneStagesPlain(plainFull.data(), plainShallow.data(), plainOut.data(), width, height, g.red,
                                        g.blue, black, tuning, 2.0f, table.data());
            for (KernelIsa isa : fasttest::availableIsas()) {
                S16 fusedFull = full, fusedShallow = shallow, fusedOut(n, 4);
                hdr_detail::toneStagesFused(fusedFull.data(), fusedShallow.data(), fusedOut.data(), width, height,
                                            g.red, g.blue, black, tuning, 2.0f, table.data(), isa);
                ASSERT_EQ(fusedOut, plainOut) << "pattern " << pattern << " red " << g.red << " "
                                              << fasttest::isaName(isa);
            }
        }
    }
}

TEST(HdrProcess, FusedFrameKeepsShadowAndHighlightDetail) {
    const int width = 256, height = 192;
    const std::array<int, 4> black = {64, 64, 64, 64};
    const hdrtest::Scene scene = hdrtest::makeBracketScene(width, height);
    // frameA: long exposure (highlights clipped); frameB: half of it (still
    // clipped); frameC: a sixteenth (shadows at the noise floor).
    const S16 a = hdrtest::exposeRaw(scene, 900.0f, black, 2.0f, 1);
    const S16 b = hdrtest::exposeRaw(scene, 450.0f, black, 2.0f, 2);
    const S16 c = hdrtest::exposeRaw(scene, 56.25f, black, 2.0f, 3);

    // Measure: local contrast of the red sites of a textured patch (each quad
    // minus its one-period neighbourhood mean) correlated with the scene's
    // texture. Each single input loses one of the two patches.
    const double longShadow = hdrtest::textureCorrelation(a, scene, scene.shadowPatch);
    const double longHighlight = hdrtest::textureCorrelation(a, scene, scene.highlightPatch);
    const double shortShadow = hdrtest::textureCorrelation(c, scene, scene.shadowPatch);
    const double shortHighlight = hdrtest::textureCorrelation(c, scene, scene.highlightPatch);
    EXPECT_GT(longShadow, 0.8);
    EXPECT_LT(longHighlight, 0.05);
    EXPECT_LT(shortShadow, 0.3);
    EXPECT_GT(shortHighlight, 0.8);

    testing::internal::CaptureStdout();
    const S16 out = runHdr(a, b, c, width, height, 2.0f, black);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed.rfind("total use ", 0), 0u) << printed;
    EXPECT_NE(printed.find(" seconds\n"), std::string::npos) << printed;

    const double fusedShadow = hdrtest::textureCorrelation(out, scene, scene.shadowPatch);
    const double fusedHighlight = hdrtest::textureCorrelation(out, scene, scene.highlightPatch);
    EXPECT_GT(fusedShadow, 0.6) << "short " << shortShadow;
    EXPECT_GT(fusedHighlight, 0.6) << "long " << longHighlight;

    // Range and black level: nothing below the pedestal or above white; the
    // zero-radiance patch sits near the pedestal; tones keep their order.
    for (short v : out) ASSERT_TRUE(v >= 64 && v <= 1023) << v;
    const double blackMean = hdrtest::siteMean(out, width, scene.blackPatch, 0);
    const double shadowMean = hdrtest::siteMean(out, width, scene.shadowPatch, 0);
    const double highlightMean = hdrtest::siteMean(out, width, scene.highlightPatch, 0);
    EXPECT_LT(blackMean, 64 + 24);
    EXPECT_LT(blackMean, shadowMean);
    EXPECT_LT(shadowMean, highlightMean);

    // The output may be one of the inputs: it is written only at the end.
    S16 a2 = a, b2 = b, c2 = c;
    std::array<int, 4> black2 = black;
    testing::internal::CaptureStdout();
    hdrProcess(a2.data(), b2.data(), c2.data(), a2.data(), 1.0f, 1.0f, width, height, 2.0f, 0, black2.data());
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(a2, out);
}

TEST(HdrProcess, SmallFramesAndOddStripeHeights) {
    std::mt19937 rng(9);
    const std::array<int, 4> black = {64, 66, 62, 64};
    // 64x48: 4 levels, shallow depth capped; 6x4 and 4x6: one level; 2x2: no
    // halving possible; 24x20 and 8x20: q = 5, stripes start on even rows.
    for (auto size : {std::pair<int, int>{64, 48}, {6, 4}, {4, 6}, {2, 2}, {24, 20}, {8, 20}}) {
        const int width = size.first, height = size.second;
        S16 a(width * height), b(width * height), c(width * height);
        for (int p = 0; p < width * height; ++p) {
            a[p] = static_cast<short>(64 + rng() % 960);
            b[p] = static_cast<short>(64 + (a[p] - 64) / 2);
            c[p] = static_cast<short>(64 + (a[p] - 64) / 8);
        }
        testing::internal::CaptureStdout();
        const S16 out = runHdr(a, b, c, width, height, 2.0f, black, 1.8f, 1.4f, 1);
        const S16 again = runHdr(a, b, c, width, height, 2.0f, black, 1.8f, 1.4f, 1);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(out, again) << width << "x" << height;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const short v = out[y * width + x];
                ASSERT_GE(v, black[(y & 1) * 2 + (x & 1)]) << width << "x" << height;
                ASSERT_LE(v, 1023);
            }
    }

    // Caller floats that are not numbers do not lead to undefined conversions.
    testing::internal::CaptureStdout();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const S16 odd = runHdr(S16(480, 300), S16(480, 300), S16(480, 300), 24, 20, nan, black, nan, 0.0f);
    testing::internal::GetCapturedStdout();
    for (short v : odd) ASSERT_TRUE(v >= 62 && v <= 1023);

    // Odd sizes are refused without touching any buffer.
    S16 a(20, 500), out(20, -7);
    std::array<int, 4> bl = black;
    hdrProcess(a.data(), a.data(), a.data(), out.data(), 1.0f, 1.0f, 5, 4, 2.0f, 0, bl.data());
    EXPECT_EQ(out, S16(20, -7));
    EXPECT_EQ(a, S16(20, 500));
}

}  // namespace

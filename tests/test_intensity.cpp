#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "hdr/bayer_filter.h"
#include "hdr/intensity.h"
#include "support/fast_paths.h"

namespace {

std::vector<unsigned short> estimate(std::vector<short> frame, int width, int height, int pattern) {
    std::vector<unsigned short> out(frame.size(), 0xBEEF);
    singleImageIntensityEstimation(frame.data(), out.data(), height, width, 0.0f, 0.0f, pattern);
    return out;
}

TEST(Intensity, UniformFramesAndSaturation) {
    const int width = 8, height = 6;
    for (int pattern = 0; pattern < 4; ++pattern) {
        for (int v : {0, 1, 517, 1023, 1100, -40}) {
            const int expected = std::min(std::max(v, 0), 1023);
            for (unsigned short got : estimate(std::vector<short>(width * height, v), width, height, pattern))
                ASSERT_EQ(got, expected) << "pattern " << pattern << " value " << v;
        }
    }
}

TEST(Intensity, PureRedQuadsIncludingTheBorderRing) {
    // Red sites at 1000, all others 0 (pattern 0): every site sees R = 1000, G = B = 0, so
    // 0.8 * 299 + 0.2 * 1000 = 439.2. A border sample taken from a wrong site would
    // bring red into G or B on the outer ring.
    const int width = 10, height = 8;
    std::vector<short> frame(width * height, 0);
    for (int y = 0; y < height; y += 2)
        for (int x = 0; x < width; x += 2) frame[y * width + x] = 1000;
    for (unsigned short got : estimate(frame, width, height, 0)) ASSERT_EQ(got, 439);

    // The same frame read as pattern 1 has blue there: B = 1000 gives 0.8 * 114 + 200 = 291.2.
    EXPECT_EQ(estimate(frame, width, height, 1)[0], 291);
}

// Both fast forms (the row form over an extended copy, and the streamed estimation
// without one) against the per-pixel definition, in every compilation: all
// patterns, widths around every vector length, odd sizes, samples at the extremes.
TEST(Intensity, FastPathsMatchPlainDefinition) {
    std::mt19937 rng(7);
    const int sizes[][2] = {{2, 2}, {4, 1}, {1, 3}, {6, 5}, {13, 4}, {18, 9}, {33, 14}, {34, 3}, {64, 6}};
    for (const auto& wh : sizes) {
        const int width = wh[0], height = wh[1], stride = width + 2;
        for (int range : {1200, 32767}) {
            std::vector<short> frame = fasttest::randomSamples<short>(rng, width * height, -range, range);
            std::vector<short> ext(static_cast<size_t>(stride) * (height + 2));
            imageExtensionForBayer_short(frame.data(), ext.data(), 1, height, width);
            for (int pattern = 0; pattern < 4; ++pattern) {
                std::vector<unsigned short> plain(frame.size(), 1);
                intensity_detail::calculateLumaPlain(ext.data(), plain.data(), 1, height + 1, 1, width + 1, 1, stride,
                                                     width, pattern);
                EXPECT_EQ(estimate(frame, width, height, pattern), plain) << width << "x" << height;
                for (KernelIsa isa : fasttest::availableIsas()) {
                    std::vector<unsigned short> rows(frame.size(), 2), streamed(frame.size(), 3);
                    // Odd column starts too: the row form begins on either site.
                    intensity_detail::calculateLumaRows(ext.data(), rows.data(), 1, height + 1, 1, 2, 1, stride,
                                                        width, pattern, isa);
                    intensity_detail::calculateLumaRows(ext.data(), rows.data(), 1, height + 1, 2, width + 1, 1,
                                                        stride, width, pattern, isa);
                    ASSERT_EQ(rows, plain) << width << "x" << height << " pattern " << pattern << " "
                                           << fasttest::isaName(isa);
                    if (width >= 2 && height >= 2) {
                        intensity_detail::estimateIntensityStreamed(frame.data(), streamed.data(), height, width,
                                                                    pattern, isa);
                        ASSERT_EQ(streamed, plain) << width << "x" << height << " pattern " << pattern << " "
                                                   << fasttest::isaName(isa);
                    }
                }
            }
        }
    }
}

TEST(Intensity, UnsupportedPatternsWriteNothingAndFrameListIsBounded) {
    const int width = 6, height = 4;
    std::vector<short> frame(width * height, 300);
    for (int pattern : {4, 5, -1})
        for (unsigned short v : estimate(frame, width, height, pattern)) ASSERT_EQ(v, 0xBEEF) << pattern;

    // Two frames, a count of five: both frames done, nothing beyond the lists touched.
    std::vector<short> a(width * height, 100), b(width * height, 900);
    std::vector<unsigned short> ia(a.size()), ib(b.size());
    std::vector<short*> frames = {a.data(), b.data()};
    std::vector<unsigned short*> intensities = {ia.data(), ib.data()};
    intensityEstimation(&frames, &intensities, width, height, 5, 2, 3, 2);
    EXPECT_EQ(ia, std::vector<unsigned short>(a.size(), 100));
    EXPECT_EQ(ib, std::vector<unsigned short>(b.size(), 900));
}

}  // namespace

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "imgcore/gauss5x5.h"
#include "registration/sharpness.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr int kW = 12, kH = 10;

// A burst of flat guides: with the blur border left at 0, a flat guide of value v
// scores v * borderPixels / pixels, so scores are proportional to the values.
struct Burst {
    std::vector<Bytes> images;
    std::vector<unsigned char*> ptrs;
    std::vector<char> flags;
    explicit Burst(std::vector<int> values) : flags(values.size(), 9) {
        for (int v : values) images.emplace_back(kW * kH, static_cast<uint8_t>(v));
        for (auto& im : images) ptrs.push_back(im.data());
    }
    std::vector<char> run(int reference, float ratio) {
        getClearestFrame(ptrs.data(), static_cast<int>(ptrs.size()), &reference, flags.data(), ratio, kW, kH);
        return flags;
    }
};

TEST(Sharpness, ScoreCountsBorderWithFullGuideValue) {
    Bytes guide(8 * 8, 10), blur(8 * 8, 0);
    EXPECT_EQ(guideSharpness(guide.data(), blur.data(), 8, 8), 7.5f);  // 48 border pixels * 10 / 64
}

// The integer shortcut of the score's sum against the float sum in pixel order:
// lengths around vector widths, totals just below and above 2^24 (where the
// float sum starts rounding and the plain sum must be taken).
TEST(Sharpness, DifferenceSumEqualsTheFloatSumInPixelOrder) {
    std::mt19937 rng(4);
    for (std::size_t n : {std::size_t{1}, std::size_t{15}, std::size_t{33}, std::size_t{1000}, std::size_t{65793},
                          std::size_t{65794}, std::size_t{200000}}) {
        std::vector<unsigned char> a(n), b(n);
        for (std::size_t i = 0; i < n; ++i) {
            a[i] = n >= 65793 ? 255 : static_cast<unsigned char>(rng());  // 65793 * 255 is just above 2^24
            b[i] = n >= 65793 ? static_cast<unsigned char>(rng() % 2) : static_cast<unsigned char>(rng());
        }
        const float plain = sharpness_detail::differenceSumPlain(a.data(), b.data(), n);
        const float fast = sharpness_detail::differenceSum(a.data(), b.data(), n);
        ASSERT_EQ(std::memcmp(&plain, &fast, sizeof plain), 0) << n << ": " << plain << " vs " << fast;
    }
}

TEST(Sharpness, ReferenceClearlySharperOrDegenerateRejectsAllOthers) {
    using F = std::vector<char>;
    // Reference 1.03x sharper than the best other frame: every frame from 3 up.
    EXPECT_EQ(Burst({50, 50, 103, 100, 100}).run(2, 0.5f), (F{9, 9, 0, 1, 1}));
    // All scores 0: NaN margin, every normal frame but the reference flagged.
    EXPECT_EQ(Burst({0, 0, 0, 0, 0}).run(2, 0.5f), (F{9, 9, 0, 1, 1}));
    // Fewer than three frames, or no such reference: nothing written.
    EXPECT_EQ(Burst({1, 2}).run(2, 0.5f), (F{9, 9}));
    EXPECT_EQ(Burst({1, 2, 3, 4}).run(4, 0.5f), (F{9, 9, 9, 9}));
    EXPECT_EQ(Burst({1, 2, 3, 4}).run(-1, 0.5f), (F{9, 9, 9, 9}));
}

TEST(Sharpness, RelativeRejectionAgainstSharpestOtherFrame) {
    using F = std::vector<char>;
    // Margin 0 with a tie between frames 3 and 4: frame 3 (lower index) is the
    // best and is never written; frame 4 is compared with it.
    EXPECT_EQ(Burst({0, 0, 100, 100, 100, 60}).run(2, 1.5f), (F{9, 9, 9, 9, 1, 1}));
    EXPECT_EQ(Burst({0, 0, 100, 100, 100, 60}).run(2, 0.7f), (F{9, 9, 9, 9, 0, 1}));
    EXPECT_EQ(Burst({0, 0, 100, 100, 100, 60}).run(2, 0.0f), (F{9, 9, 9, 9, 0, 0}));
    // Reference within 2% (102 vs 100): relative branch.
    EXPECT_EQ(Burst({0, 0, 102, 100, 40}).run(2, 0.5f), (F{9, 9, 9, 9, 1}));
    // Reference score 0, others positive: margin -inf, relative branch.
    EXPECT_EQ(Burst({0, 0, 0, 50, 20}).run(2, 0.5f), (F{9, 9, 9, 9, 1}));
    // Reference elsewhere: frame 2 competes and wins the tie.
    EXPECT_EQ(Burst({0, 0, 100, 100, 100}).run(3, 1.5f), (F{9, 9, 9, 9, 1}));
}

// Plain definition of the edge test on an already blurred image.
Bytes plainEdges(const Bytes& b, int w, int h, int threshold) {
    Bytes m(b.size(), 0);
    if (h < 11 || w < 18) return m;
    for (int y = 5; y <= h - 6; ++y)
        for (int x = 5; x <= w - 6; ++x) {
            auto at = [&](int yy, int xx) { return static_cast<int>(b[yy * w + xx]); };
            const int16_t gx = static_cast<int16_t>(at(y - 1, x - 1) + 2 * at(y, x - 1) + at(y + 1, x - 1) -
                                                    at(y - 1, x + 1) - 2 * at(y, x + 1) - at(y + 1, x + 1));
            const int16_t gy = static_cast<int16_t>(at(y - 1, x - 1) + 2 * at(y - 1, x) + at(y - 1, x + 1) -
                                                    at(y + 1, x - 1) - 2 * at(y + 1, x) - at(y + 1, x + 1));
            const uint32_t mag = static_cast<uint32_t>(gx * gx + gy * gy);
            m[y * w + x] = mag >= static_cast<uint32_t>(threshold * threshold) ? 255 : 0;
        }
    return m;
}

TEST(EdgeMask, MatchesPlainDefinitionForEveryWidth) {
    const uint8_t k[5] = {1, 2, 4, 2, 1};
    std::mt19937 rng(5);
    for (int w : {11, 17, 18, 19, 24, 25, 26, 27, 28, 32, 33, 36, 41})
        for (int h : {10, 11, 14})
            for (int threshold : {5, 40}) {
                Bytes src(static_cast<size_t>(w) * h);
                for (auto& v : src) v = static_cast<uint8_t>(rng() % 64);
                Bytes blurred = src;
                gauss5x5_u8(blurred.data(), blurred.data(), w, h, w, w, k);
                Bytes mask(src.size(), 0x5A);
                edgeDetection(src.data(), mask.data(), w, h, threshold);
                ASSERT_EQ(mask, plainEdges(blurred, w, h, threshold)) << "w=" << w << " h=" << h;
            }
}

TEST(EdgeMask, FlatAndStepGuides) {
    const int w = 24, h = 12;
    Bytes flat(w * h, 130), mask(w * h, 1);
    edgeDetection(flat.data(), mask.data(), w, h, 5);
    EXPECT_EQ(mask, Bytes(w * h, 0));

    // A step 100 -> 105 at column 12 blurs to ... 100 101 103 104 105 ... from
    // column 10: |gx| = 12, 12, 8 at columns 11, 12, 13 and 4 at 10 and 14.
    Bytes step(w * h, 100);
    for (int y = 0; y < h; ++y)
        for (int x = 12; x < w; ++x) step[y * w + x] = 105;
    auto edgeColumns = [&](int threshold) {
        edgeDetection(step.data(), mask.data(), w, h, threshold);
        std::vector<int> cols;
        for (int x = 0; x < w; ++x) {
            for (int y = 5; y < h - 5; ++y) EXPECT_EQ(mask[y * w + x], mask[5 * w + x]);
            if (mask[5 * w + x] == 255) cols.push_back(x);
        }
        for (int x = 0; x < w; ++x) EXPECT_EQ(mask[x] + mask[4 * w + x] + mask[(h - 5) * w + x], 0);
        return cols;
    };
    EXPECT_EQ(edgeColumns(5), (std::vector<int>{11, 12, 13}));
    EXPECT_EQ(edgeColumns(-5), (std::vector<int>{11, 12, 13}));
    EXPECT_EQ(edgeColumns(12), (std::vector<int>{11, 12}));
    EXPECT_EQ(edgeColumns(13), (std::vector<int>{}));
}

}  // namespace

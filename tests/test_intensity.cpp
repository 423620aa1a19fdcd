#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "hdr/intensity.h"

namespace {

// Source index a neighbour at p (one outside the image at most) reads: the same colour
// site two samples inward, or the only sample of a side of one.
int fold(int p, int n) {
    if (p >= n) return fold(p - 2, n);
    if (p < 0) {
        int s = p + 2;
        while (s >= n && s - 2 >= 0) s -= 2;
        return s < n ? s : n - 1;
    }
    return p;
}

// Intensity of one pixel written out from the definition on source coordinates.
unsigned short referenceIntensity(const std::vector<short>& f, int width, int height, int y, int x, int pattern) {
    auto at = [&](int yy, int xx) { return static_cast<int>(f[fold(yy, height) * width + fold(xx, width)]); };
    static const int redRow[4] = {0, 1, 0, 1}, redCol[4] = {0, 1, 1, 0};
    const int ry = redRow[pattern], rx = redCol[pattern];
    const int py = y & 1, px = x & 1;
    const int cross = (at(y - 1, x) + at(y + 1, x) + at(y, x - 1) + at(y, x + 1)) / 4;
    const int diag = (at(y - 1, x - 1) + at(y - 1, x + 1) + at(y + 1, x - 1) + at(y + 1, x + 1)) / 4;
    const int horiz = (at(y, x - 1) + at(y, x + 1)) / 2, vert = (at(y - 1, x) + at(y + 1, x)) / 2;
    int R, G, B;
    if (py == ry && px == rx) {
        R = at(y, x), G = cross, B = diag;
    } else if (py != ry && px != rx) {
        B = at(y, x), G = cross, R = diag;
    } else if (py == ry) {  // green on a red row
        G = at(y, x), R = horiz, B = vert;
    } else {
        G = at(y, x), B = horiz, R = vert;
    }
    const double luma = (double)G * 0.587 + (double)R * 0.299 + (double)B * 0.114;
    float v = (float)luma * 0.8f + (float)std::max({R, G, B}) * 0.2f;
    v = std::min(std::max(v, 0.0f), 1023.0f);
    return static_cast<unsigned short>(v);
}

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

TEST(Intensity, MatchesDefinitionForAllPatternsAndSmallSizes) {
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> sample(-50, 1200);
    const int sizes[][2] = {{2, 2}, {4, 1}, {1, 3}, {6, 5}, {13, 4}, {18, 9}, {33, 14}};
    for (const auto& wh : sizes) {
        const int width = wh[0], height = wh[1];
        std::vector<short> frame(width * height);
        for (short& v : frame) v = static_cast<short>(sample(rng));
        for (int pattern = 0; pattern < 4; ++pattern) {
            const std::vector<unsigned short> got = estimate(frame, width, height, pattern);
            for (int y = 0; y < height; ++y)
                for (int x = 0; x < width; ++x)
                    ASSERT_EQ(got[y * width + x], referenceIntensity(frame, width, height, y, x, pattern))
                        << width << "x" << height << " pattern " << pattern << " at " << y << "," << x;
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

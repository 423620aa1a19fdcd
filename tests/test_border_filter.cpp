#include <gtest/gtest.h>

#include <vector>

#include "imgcore/border_filter.h"

namespace {

using zel::cpp::imgproc::foldTapIndex;
using zel::cpp::imgproc::multiChannelFilterBorderCopy_v00;

int filter(const short* src, short* dst, int w, int h, const int* kernel, int radius, int stepY, int stepX,
           bool round = false, int srcStride = 0, int dstStride = 0) {
    return multiChannelFilterBorderCopy_v00<short, int>(src, dst, w, h, srcStride, dstStride, kernel, radius, stepY,
                                                         stepX, round);
}

std::vector<short> ramp(int w, int h) {
    std::vector<short> v(static_cast<size_t>(w) * h);
    for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<short>(100 + 7 * i);
    return v;
}

TEST(BorderFilter, ErrorCodesLeaveTheOutputAlone) {
    const int k[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
    std::vector<short> src = ramp(6, 6), dst(36, -9);
    EXPECT_EQ(filter(nullptr, dst.data(), 6, 6, k, 1, 1, 1), -2);
    EXPECT_EQ(filter(src.data(), nullptr, 6, 6, k, 1, 1, 1), -2);
    EXPECT_EQ(filter(src.data(), dst.data(), 6, 6, nullptr, 1, 1, 1), -2);
    EXPECT_EQ(filter(src.data(), dst.data(), 1, 6, k, 2, 1, 1), -4);  // radius > width
    EXPECT_EQ(filter(src.data(), dst.data(), 6, 1, k, 2, 1, 1), -4);  // radius > height
    EXPECT_EQ(filter(src.data(), dst.data(), 5, 5, k, 1, 2, 2), -4);  // neither side a multiple of its step
    EXPECT_EQ(filter(src.data(), dst.data(), 6, 0, k, 0, 1, 1), -4);
    EXPECT_EQ(filter(src.data(), dst.data(), 6, 6, k, 1, 0, 1), -4);
    for (short v : dst) EXPECT_EQ(v, -9);
    // One side being a multiple of its step is enough.
    EXPECT_EQ(filter(src.data(), dst.data(), 5, 6, k, 1, 2, 2), 0);
    EXPECT_EQ(filter(src.data(), dst.data(), 6, 5, k, 1, 2, 2), 0);
    EXPECT_EQ(filter(src.data(), dst.data(), 6, 6, k, 1, 2, 2), 0);
    EXPECT_NE(dst[0], -9);
}

// A one-hot kernel copies the tap it selects, which exposes the border moves: out of
// range by -d the tap moves by +step*radius, past the far edge by -step*radius.
TEST(BorderFilter, BorderTapsFoldOntoTheSameColour) {
    const int w = 10, h = 8, radius = 2;
    const std::vector<short> src = ramp(w, h);
    for (int stepY : {1, 2}) {
        const int stepX = 2;
        for (int ty = 0; ty < 5; ++ty) {
            for (int tx = 0; tx < 5; ++tx) {
                int k[25] = {};
                k[ty * 5 + tx] = 3;
                std::vector<short> dst(w * h);
                ASSERT_EQ(filter(src.data(), dst.data(), w, h, k, radius, stepY, stepX), 0);
                for (int y = 0; y < h; ++y) {
                    int sy = y + (ty - 2) * stepY;
                    if (sy < 0) sy += radius * stepY;
                    if (sy >= h) sy -= radius * stepY;
                    for (int x = 0; x < w; ++x) {
                        int sx = x + (tx - 2) * stepX;
                        if (sx < 0) sx += radius * stepX;
                        if (sx >= w) sx -= radius * stepX;
                        ASSERT_EQ((sx - x) % 2, 0);
                        ASSERT_EQ(dst[y * w + x], src[sy * w + sx]) << stepY << " " << ty << tx << " at " << y << "," << x;
                    }
                }
            }
        }
    }
}

TEST(BorderFilter, TruncatingDivisionRoundingStridesAndInPlace) {
    const int box[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
    // A kernel of sum 9 reading two taps of output (1, 1).
    const int oneHot5[9] = {0, 0, 0, 0, 5, 0, 0, 0, 4};  // sum 9: 5*centre + 4*bottom-right
    std::vector<short> img(16, 0);
    img[5] = 2;   // centre of output (1,1) has value 2, its bottom-right (2,2) is 1
    img[10] = 1;  // 5*2 + 4*1 = 14 -> 14/9 = 1 (trunc), (14+4)/9 = 2 (rounded)
    std::vector<short> out(16);
    ASSERT_EQ(filter(img.data(), out.data(), 4, 4, oneHot5, 1, 1, 1, false), 0);
    EXPECT_EQ(out[5], 1);
    ASSERT_EQ(filter(img.data(), out.data(), 4, 4, oneHot5, 1, 1, 1, true), 0);
    EXPECT_EQ(out[5], 2);
    img[5] = -2;
    img[10] = -1;  // -14/9 -> -1 toward zero (not -2)
    ASSERT_EQ(filter(img.data(), out.data(), 4, 4, oneHot5, 1, 1, 1, false), 0);
    EXPECT_EQ(out[5], -1);
    // The offset is added whatever the sign: (-14 + 4) / 9 -> -1, not the nearest -2.
    ASSERT_EQ(filter(img.data(), out.data(), 4, 4, oneHot5, 1, 1, 1, true), 0);
    EXPECT_EQ(out[5], -1);

    // A zero kernel sum divides by 1.
    const int diff[9] = {0, 0, 0, 0, 1, -1, 0, 0, 0};
    const std::vector<short> r = ramp(4, 4);
    ASSERT_EQ(filter(r.data(), out.data(), 4, 4, diff, 1, 1, 1), 0);
    EXPECT_EQ(out[5], -7);

    // Padded strides give the same result as packed rows; in place equals out of place.
    const int w = 6, h = 6;
    const std::vector<short> src = ramp(w, h);
    std::vector<short> packed(w * h);
    ASSERT_EQ(filter(src.data(), packed.data(), w, h, box, 1, 2, 2), 0);
    std::vector<short> paddedSrc(9 * h, 0), paddedDst(11 * h, 77);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) paddedSrc[y * 9 + x] = src[y * w + x];
    ASSERT_EQ(filter(paddedSrc.data(), paddedDst.data(), w, h, box, 1, 2, 2, false, 18, 22), 0);
    std::vector<short> inPlace = src;
    ASSERT_EQ(filter(inPlace.data(), inPlace.data(), w, h, box, 1, 2, 2), 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            EXPECT_EQ(paddedDst[y * 11 + x], packed[y * w + x]);
            EXPECT_EQ(inPlace[y * w + x], packed[y * w + x]);
        }
    EXPECT_EQ(paddedDst[6], 77);  // padding untouched
}

// Where one border move stays inside, foldTapIndex is exactly that move; where it
// does not (images smaller than the filter reach), it still lands inside on the
// same phase.
TEST(BorderFilter, FoldIndexOnSmallImagesStaysInsideAndKeepsPhase) {
    for (int n = 1; n <= 12; ++n)
        for (int step = 1; step <= 3; ++step)
            for (int radius = 0; radius <= 3; ++radius)
                for (int p = -step * radius; p < n + step * radius; ++p) {
                    const int got = foldTapIndex(p, n, step, radius);
                    ASSERT_GE(got, 0);
                    ASSERT_LT(got, n);
                    int once = p < 0 ? p + step * radius : (p >= n ? p - step * radius : p);
                    if (once >= 0 && once < n) {
                        ASSERT_EQ(got, once);
                    } else if (n >= step) {
                        ASSERT_EQ(((got - p) % step + step) % step, 0) << n << " " << step << " " << p;
                    }
                }

    // A 2x2 and a 2x6 Bayer image under the radius-2, step-2 binomial: every tap of a
    // site stays on that site, so a constant-per-site image comes back unchanged.
    int binomial[25];
    const int b[5] = {1, 4, 6, 4, 1};
    for (int i = 0; i < 25; ++i) binomial[i] = b[i / 5] * b[i % 5];
    for (int w : {2, 6}) {
        std::vector<short> src(2 * w), dst(2 * w);
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < w; ++x) src[y * w + x] = static_cast<short>(10 * (y * 2 + x % 2) + 3);
        ASSERT_EQ(filter(src.data(), dst.data(), w, 2, binomial, 2, 2, 2), 0);
        EXPECT_EQ(dst, src);
    }
}

}  // namespace

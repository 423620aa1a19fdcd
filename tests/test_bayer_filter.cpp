#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "hdr/bayer_filter.h"
#include "support/fast_paths.h"

namespace {

// Source index that extended position P (border b, offset d) repeats on a side of n
// samples, for sides of at least d samples.
int foldedIndex(int P, int b, int d, int n) {
    int p = P - b;
    while (p < 0) p += d;
    while (p >= n) p -= d;
    return p;
}

TEST(BayerExtension, BorderSamplesRepeatSameColourSites) {
    const int width = 10, height = 6;
    std::vector<short> src(width * height);
    for (int i = 0; i < width * height; ++i) src[i] = static_cast<short>(i);  // value encodes position

    for (int border : {0, 1, 2, 4}) {
        const int d = std::max(border, 2), stride = width + 2 * border;
        std::vector<short> ext(stride * (height + 2 * border), -1);
        imageExtensionForBayer_short(src.data(), ext.data(), border, height, width);
        for (int Y = 0; Y < height + 2 * border; ++Y)
            for (int X = 0; X < stride; ++X) {
                const int sy = foldedIndex(Y, border, d, height), sx = foldedIndex(X, border, d, width);
                // d is even here, so the folded index keeps the Bayer phase.
                ASSERT_EQ(ext[Y * stride + X], sy * width + sx) << "border " << border << " at " << Y << "," << X;
            }
    }
    // Border 1 takes the corner from two samples inward on both axes.
    std::vector<short> ext((width + 2) * (height + 2));
    imageExtensionForBayer_short(src.data(), ext.data(), 1, height, width);
    EXPECT_EQ(ext[0], src[1 * width + 1]);

    // Float variant: offset 2 whatever the border, so border 3 keeps the phase too.
    std::vector<float> fsrc(src.begin(), src.end());
    const int b = 3, fstride = width + 2 * b;
    std::vector<float> fext(fstride * (height + 2 * b), -1.0f);
    EXPECT_EQ(imageExtenForIntenEst(fsrc.data(), fext.data(), b, height, width), 0ull);
    for (int Y = 0; Y < height + 2 * b; ++Y)
        for (int X = 0; X < fstride; ++X)
            ASSERT_EQ(fext[Y * fstride + X], foldedIndex(Y, b, 2, height) * width + foldedIndex(X, b, 2, width));
}

TEST(BayerExtension, SidesShorterThanOffsetStayInBoundsAndInitialised) {
    // Every sample of the extended image must come from the source, with the Bayer phase
    // kept on sides of at least two samples. The sanitizer build checks the bounds.
    struct Case {
        int border, height, width;
    };
    for (Case cs : {Case{4, 2, 2}, Case{4, 2, 6}, Case{4, 3, 1}, Case{1, 1, 1}, Case{2, 1, 3}, Case{3, 2, 2}}) {
        std::vector<unsigned short> src(cs.width * cs.height);
        for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<unsigned short>(i);
        const int stride = cs.width + 2 * cs.border;
        std::vector<unsigned short> ext(stride * (cs.height + 2 * cs.border), 0xFFFF);
        imageExtensionForBayer_ushort(src.data(), ext.data(), cs.border, cs.height, cs.width);
        for (int Y = 0; Y < cs.height + 2 * cs.border; ++Y)
            for (int X = 0; X < stride; ++X) {
                const int v = ext[Y * stride + X];
                ASSERT_LT(v, cs.width * cs.height) << cs.border << " " << cs.height << "x" << cs.width;
                const int sy = v / cs.width, sx = v % cs.width;
                // An odd border above 2 is its own offset and shifts the phase by design.
                const bool phaseKept = cs.border <= 2 || cs.border % 2 == 0;
                if (phaseKept && cs.height >= 2) {
                    EXPECT_EQ((sy - (Y - cs.border)) & 1, 0);
                }
                if (phaseKept && cs.width >= 2) {
                    EXPECT_EQ((sx - (X - cs.border)) & 1, 0);
                }
            }

        std::vector<float> fsrc(src.begin(), src.end());
        std::vector<float> fext(ext.size(), -1.0f);
        imageExtenForIntenEst(fsrc.data(), fext.data(), cs.border, cs.height, cs.width);
        for (int Y = 0; Y < cs.height + 2 * cs.border; ++Y)
            for (int X = 0; X < stride; ++X) {
                const int v = static_cast<int>(fext[Y * stride + X]);
                ASSERT_GE(v, 0);
                if (cs.height >= 2) {
                    EXPECT_EQ((v / cs.width - (Y - cs.border)) & 1, 0);
                }
                if (cs.width >= 2) {
                    EXPECT_EQ((v % cs.width - (X - cs.border)) & 1, 0);
                }
            }
    }
    // Empty images write nothing.
    std::vector<short> one(1, 7), ext(16, -3);
    imageExtensionForBayer_short(one.data(), ext.data(), 1, 0, 2);
    imageExtensionForBayer_short(one.data(), ext.data(), 1, 2, 0);
    for (short v : ext) EXPECT_EQ(v, -3);
}

TEST(BayerLowPass, ConstantStaysConstantAndImpulseGivesSameColourBinomial) {
    for (int height : {1, 2, 6, 8, 14}) {
        const int width = 10;
        std::vector<short> s(width * height, -517);
        lowPassFilteringForBayer_short(s.data(), s.data(), width, height);  // in place
        for (short v : s) ASSERT_EQ(v, -517) << height;
        std::vector<unsigned short> u(width * height, 65535), out(u.size());
        lowPassFilteringForBayer_ushort(u.data(), out.data(), width, height);
        for (unsigned short v : out) ASSERT_EQ(v, 65535) << height;
    }

    // An impulse of 256 spreads the (1,4,6,4,1) outer product over the sites two apart.
    const int width = 12, height = 10, y0 = 4, x0 = 6;
    std::vector<unsigned short> img(width * height, 0), out(img.size());
    img[y0 * width + x0] = 256;
    lowPassFilteringForBayer_ushort(img.data(), out.data(), width, height);
    const int taps[5] = {1, 4, 6, 4, 1};
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const int dy = y - y0, dx = x - x0;
            int expected = 0;
            if (dy % 2 == 0 && dx % 2 == 0 && std::abs(dy) <= 4 && std::abs(dx) <= 4)
                expected = taps[dy / 2 + 2] * taps[dx / 2 + 2];
            EXPECT_EQ(out[y * width + x], expected) << y << "," << x;
        }
}

TEST(BayerLowPass, FastPathsMatchPlainDefinitions) {
    // The separable integer low-pass against the float sums of the sparse-tap
    // definition: random and extreme samples (the sums reach 256 * 65535), widths
    // around every vector length, in place too.
    std::mt19937 rng(1234);
    for (int height : {1, 2, 5, 9}) {
        for (int width = 1; width <= 34; ++width) {
            const size_t n = static_cast<size_t>(width) * height;
            std::vector<short> s = fasttest::randomSamples<short>(rng, n, -32768, 32767), sFast(n), sPlain(n);
            lowPassFilteringForBayer_short(s.data(), sFast.data(), width, height);
            bayer_filter_detail::lowPassFilteringForBayerPlain(s.data(), sPlain.data(), width, height);
            ASSERT_EQ(sFast, sPlain) << width << "x" << height;
            lowPassFilteringForBayer_short(s.data(), s.data(), width, height);
            ASSERT_EQ(s, sPlain) << "in place " << width << "x" << height;

            std::vector<unsigned short> u = fasttest::randomSamples<unsigned short>(rng, n, 0, 65535), uFast(n),
                                        uPlain(n);
            lowPassFilteringForBayer_ushort(u.data(), uFast.data(), width, height);
            bayer_filter_detail::lowPassFilteringForBayerPlain(u.data(), uPlain.data(), width, height);
            ASSERT_EQ(uFast, uPlain) << width << "x" << height;
        }
    }

    // The loop-interchanged worker against the per-pixel one with arbitrary kernels:
    // negative, non-power-of-two taps make the float sums inexact, so any change of
    // accumulation order shows; taps on odd rows or columns must stay unused.
    std::uniform_int_distribution<int> tap(-2000, 2000);
    for (int radius : {4, 3, 1}) {
        int kernel[9][9];
        for (auto& row : kernel)
            for (int& k : row) k = tap(rng);
        kernel[radius][radius] = 0;  // a zero tap on the visited grid
        const int width = 23, height = 9, stride = width + 2 * radius;
        const size_t extended = static_cast<size_t>(stride) * (height + 2 * radius);
        std::vector<short> ext = fasttest::randomSamples<short>(rng, extended, -32768, 32767);
        std::vector<short> got(width * height, 5), want(width * height, 5);
        filteringProcess_short(ext.data(), kernel, got.data(), radius + 1, height + radius, radius,
                               width + radius - 2, radius, stride, width, 3.7f);
        bayer_filter_detail::filterSparseTapsPlain<short>(ext.data(), kernel, want.data(), radius + 1,
                                                          height + radius, radius, width + radius - 2, radius, stride,
                                                          width, 3.7f);
        EXPECT_EQ(got, want) << "radius " << radius;

        std::vector<unsigned short> uext(ext.begin(), ext.end()), ugot(width * height), uwant(width * height);
        filteringProcess_ushort(uext.data(), kernel, ugot.data(), radius, height + radius, radius, width + radius,
                                radius, stride, width, 3.7f);
        bayer_filter_detail::filterSparseTapsPlain<unsigned short>(uext.data(), kernel, uwant.data(), radius,
                                                                   height + radius, radius, width + radius, radius,
                                                                   stride, width, 3.7f);
        EXPECT_EQ(ugot, uwant) << "radius " << radius;
    }
}

TEST(BoxFilter, MeanInsideSourceOnTheRimAndInPlace) {
    const int width = 9, height = 7;
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> byte(0, 255);
    std::vector<unsigned char> src(width * height);
    for (auto& v : src) v = static_cast<unsigned char>(byte(rng));

    for (int radius : {1, 2, 3}) {
        std::vector<unsigned char> out(src.size(), 0), inPlace(src);
        conLowPassFiltering_uchar(src.data(), out.data(), width, height, radius);
        conLowPassFiltering_uchar(inPlace.data(), inPlace.data(), width, height, radius);
        EXPECT_EQ(inPlace, out);
        const int area = (2 * radius + 1) * (2 * radius + 1);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                int expected = src[y * width + x];
                if (y >= radius && y < height - radius && x >= radius && x < width - radius) {
                    int sum = 0;
                    for (int i = -radius; i <= radius; ++i)
                        for (int j = -radius; j <= radius; ++j) sum += src[(y + i) * width + x + j];
                    expected = sum / area;  // exact integer sums: the float path truncates the same
                }
                EXPECT_EQ(out[y * width + x], expected) << radius << " " << y << "," << x;
            }
    }
    // Windows larger than the image, or a negative radius: a plain copy.
    for (int radius : {-1, 4, 1 << 30}) {
        std::vector<unsigned char> out(src.size(), 0);
        conLowPassFiltering_uchar(src.data(), out.data(), width, height, radius);
        EXPECT_EQ(out, src) << radius;
    }
}

}  // namespace

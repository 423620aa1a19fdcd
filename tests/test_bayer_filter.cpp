#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "hdr/bayer_filter.h"

namespace {

// Source index that extended position P (border b, offset d) repeats on a side of n
// samples, for sides of at least d samples.
int foldedIndex(int P, int b, int d, int n) {
    int p = P - b;
    while (p < 0) p += d;
    while (p >= n) p -= d;
    return p;
}

struct Kernel9 {
    int k[9][9] = {};
};

Kernel9 binomialKernel() {
    const int taps[5] = {1, 4, 6, 4, 1};
    Kernel9 kernel;
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j < 5; ++j) kernel.k[2 * i][2 * j] = taps[i] * taps[j];
    return kernel;
}

// The low-pass by its definition: border-4 extension, then the sparse-tap worker over all rows.
template <typename T, typename Extend, typename Filter>
std::vector<T> lowPassByDefinition(const std::vector<T>& src, int width, int height, Extend extend, Filter filter) {
    std::vector<T> ext(static_cast<size_t>(width + 8) * (height + 8));
    std::vector<T> in(src);
    extend(in.data(), ext.data(), 4, height, width);
    Kernel9 kernel = binomialKernel();
    std::vector<T> out(src.size());
    filter(ext.data(), kernel.k, out.data(), 4, height + 4, 4, width + 4, 4, width + 8, width, 256.0f);
    return out;
}

// Per-pixel sparse-tap filter written out plainly, accumulation order i outer, j inner.
template <typename T>
void naiveSparseFilter(const T* ext, const Kernel9& kernel, T* dst, int rowStart, int rowEnd, int colStart,
                       int colEnd, int radius, int stride, int dstWidth, float norm) {
    for (int r = rowStart; r < rowEnd; ++r)
        for (int c = colStart; c < colEnd; ++c) {
            float sum = 0.0f;
            for (int i = -radius; i <= radius; i += 2)
                for (int j = -radius; j <= radius; j += 2)
                    sum += static_cast<float>(kernel.k[radius + i][radius + j] * ext[(r + i) * stride + c + j]);
            dst[(r - radius) * dstWidth + (c - radius)] = static_cast<T>(static_cast<int>(std::trunc(sum / norm)));
        }
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

TEST(BayerLowPass, FastPathMatchesSparseTapDefinition) {
    std::mt19937 rng(1234);
    const int sizes[][2] = {{2, 2}, {4, 6}, {13, 3}, {18, 7}, {27, 9}, {33, 17}, {40, 22}};
    for (const auto& wh : sizes) {
        const int width = wh[0], height = wh[1];
        std::uniform_int_distribution<int> full(-32768, 32767), wide(0, 65535), coin(0, 3);
        std::vector<short> s(width * height);
        std::vector<unsigned short> u(width * height);
        for (int i = 0; i < width * height; ++i) {
            // A quarter of the samples at the extremes so that the sums reach their limits.
            const int pick = coin(rng);
            s[i] = static_cast<short>(pick == 0 ? -32768 : pick == 1 ? 32767 : full(rng));
            u[i] = static_cast<unsigned short>(pick == 0 ? 0 : pick == 1 ? 65535 : wide(rng));
        }
        // A block of extreme values gives the extreme sums.
        for (int y = 0; y < std::min(height, 5); ++y)
            for (int x = 0; x < std::min(width, 5); ++x) s[y * width + x] = -32768, u[y * width + x] = 65535;

        const std::vector<short> sRef =
            lowPassByDefinition(s, width, height, imageExtensionForBayer_short, filteringProcess_short);
        std::vector<short> sOut(s.size());
        lowPassFilteringForBayer_short(s.data(), sOut.data(), width, height);
        EXPECT_EQ(sOut, sRef) << width << "x" << height;
        lowPassFilteringForBayer_short(s.data(), s.data(), width, height);
        EXPECT_EQ(s, sRef) << "in place " << width << "x" << height;

        const std::vector<unsigned short> uRef =
            lowPassByDefinition(u, width, height, imageExtensionForBayer_ushort, filteringProcess_ushort);
        std::vector<unsigned short> uOut(u.size());
        lowPassFilteringForBayer_ushort(u.data(), uOut.data(), width, height);
        EXPECT_EQ(uOut, uRef) << width << "x" << height;
    }
}

TEST(BayerLowPass, SparseTapWorkerKeepsTapOrderAndIgnoresOddTaps) {
    // A kernel with negative and non-power-of-two taps makes the float sums inexact, so
    // any change of accumulation order shows; taps on odd rows or columns must be unused.
    std::mt19937 rng(99);
    std::uniform_int_distribution<int> tap(-2000, 2000), sample(-32768, 32767);
    for (int radius : {4, 3, 1}) {
        Kernel9 kernel;
        for (auto& row : kernel.k)
            for (int& k : row) k = tap(rng);
        kernel.k[radius][radius] = 0;  // a zero tap on the visited grid
        const int width = 23, height = 9, stride = width + 2 * radius;
        std::vector<short> ext(stride * (height + 2 * radius));
        for (short& v : ext) v = static_cast<short>(sample(rng));
        std::vector<short> got(width * height, 5), want(width * height, 5);
        filteringProcess_short(ext.data(), kernel.k, got.data(), radius + 1, height + radius, radius,
                               width + radius - 2, radius, stride, width, 3.7f);
        naiveSparseFilter(ext.data(), kernel, want.data(), radius + 1, height + radius, radius, width + radius - 2,
                          radius, stride, width, 3.7f);
        EXPECT_EQ(got, want) << "radius " << radius;

        std::vector<unsigned short> uext(ext.begin(), ext.end()), ugot(width * height), uwant(width * height);
        filteringProcess_ushort(uext.data(), kernel.k, ugot.data(), radius, height + radius, radius, width + radius,
                                radius, stride, width, 3.7f);
        naiveSparseFilter(uext.data(), kernel, uwant.data(), radius, height + radius, radius, width + radius, radius,
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

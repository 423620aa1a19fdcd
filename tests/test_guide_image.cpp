#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "imgcore/gauss5x5.h"
#include "registration/black_level.h"
#include "registration/guide_image.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes randomBytes(std::mt19937& rng, size_t n) {
    Bytes v(n);
    for (auto& b : v) b = static_cast<uint8_t>(rng() & 0xff);
    return v;
}

// Plain per-pixel definition of the separable filter.
void plainGauss(const Bytes& s, Bytes& d, int w, int h, int ss, int ds, const uint8_t* k) {
    const unsigned S = k[0] + k[1] + k[2] + k[3] + k[4];
    const float recip = 1.0f / static_cast<float>(S * S);
    std::vector<uint16_t> t(static_cast<size_t>(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 2; x <= w - 3; ++x) {
            uint16_t acc = 0;
            for (int i = 0; i < 5; ++i) acc = static_cast<uint16_t>(acc + k[i] * s[y * ss + x - 2 + i]);
            t[y * w + x] = acc;
        }
    for (int y = 2; y <= h - 3; ++y)
        for (int x = 2; x <= w - 3; ++x) {
            uint32_t u = 0;
            for (int i = 0; i < 5; ++i) u += k[i] * static_cast<uint32_t>(t[(y - 2 + i) * w + x]);
            d[y * ds + x] = static_cast<uint8_t>(static_cast<unsigned>(static_cast<float>(u) * recip));
        }
}

const uint8_t kGauss[5] = {1, 2, 4, 2, 1};

TEST(Gauss5x5, MatchesPlainDefinitionForEveryWidthAndKeepsBorder) {
    std::mt19937 rng(7);
    // Includes widths below 12 and of the forms 8q+1 .. 8q+4 and 8q; the source
    // buffers are sized exactly so that a read past the last row end is caught.
    const uint8_t kernels[3][5] = {{1, 2, 4, 2, 1}, {3, 0, 255, 9, 1}, {200, 255, 250, 100, 90}};  // last wraps
    for (int w : {5, 6, 7, 9, 12, 16, 17, 20, 25, 33, 36, 37, 40})
        for (int h : {5, 6, 13})
            for (const auto& k : kernels)
                for (int pad : {0, 3}) {
                    const int ss = w + pad, ds = w + 2 * pad;
                    Bytes src = randomBytes(rng, static_cast<size_t>(ss) * (h - 1) + w);
                    Bytes got(static_cast<size_t>(ds) * (h - 1) + w, 0xA5), want = got;
                    ASSERT_EQ(gauss5x5_u8(src.data(), got.data(), w, h, pad ? ss : 0, pad ? ds : 0, k), 0);
                    plainGauss(src, want, w, h, ss, ds, k);
                    ASSERT_EQ(got, want) << "w=" << w << " h=" << h << " k0=" << int(k[0]) << " pad=" << pad;
                }
}

TEST(Gauss5x5, ConstantImageInPlaceDegenerateSizesAndNulls) {
    const int w = 11, h = 9;
    for (int v : {0, 77, 255}) {
        Bytes img(w * h, static_cast<uint8_t>(v)), out(w * h, 1);
        ASSERT_EQ(gauss5x5_u8(img.data(), out.data(), w, h, 0, 0, kGauss), 0);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const bool inside = y >= 2 && y < h - 2 && x >= 2 && x < w - 2;
                EXPECT_EQ(out[y * w + x], inside ? v : 1) << v << " at " << x << "," << y;
            }
        ASSERT_EQ(gauss5x5_u8(img.data(), img.data(), w, h, w, w, kGauss), 0);  // in place
        EXPECT_EQ(img, Bytes(w * h, static_cast<uint8_t>(v)));
    }

    for (auto [sw, sh] : {std::pair{4, 9}, std::pair{9, 4}, std::pair{0, 0}, std::pair{-3, 7}}) {
        Bytes src(64, 200), dst(64, 1);
        EXPECT_EQ(gauss5x5_u8(src.data(), dst.data(), sw, sh, 0, 0, kGauss), 0);
        EXPECT_EQ(dst, Bytes(64, 1));
    }
    Bytes a(25, 9), b(25, 1);
    const uint8_t zero[5] = {0, 0, 0, 0, 0};
    EXPECT_EQ(gauss5x5_u8(a.data(), b.data(), 5, 5, 0, 0, zero), 0);
    EXPECT_EQ(b[12], 0);  // the only interior pixel
    EXPECT_EQ(gauss5x5_u8(nullptr, b.data(), 5, 5, 0, 0, kGauss), -1);
    EXPECT_EQ(gauss5x5_u8(a.data(), nullptr, 5, 5, 0, 0, kGauss), -1);
    EXPECT_EQ(gauss5x5_u8(a.data(), b.data(), 5, 5, 0, 0, nullptr), -1);

}

TEST(GuideImage, BlockMeanGainClampAndLayout) {
    // 10 x 9 raw: a 2 x 2 guide packed at stride 2; extra columns and row ignored.
    const int w = 10, h = 9;
    std::vector<short> raw(w * h, 1000);
    auto setBlockSum = [&](int r, int c, int total) {
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 4; ++x) raw[(4 * r + y) * w + 4 * c + x] = 0;
        raw[4 * r * w + 4 * c] = static_cast<short>(total);
    };
    setBlockSum(0, 0, 127);      // mean 7
    setBlockSum(0, 1, 300 * 16);  // mean 300
    setBlockSum(1, 0, 1600);     // mean 100
    setBlockSum(1, 1, -65);      // mean -4 (toward zero); bits 2..9 of -4 are all ones

    std::vector<uint8_t> g(4 + 1, 0xEE);  // one guard byte
    bayer_to_8bit_gray(raw.data(), g.data(), w, h, 1, 0);
    EXPECT_EQ(g, (std::vector<uint8_t>{1, 75, 25, 255, 0xEE}));
    bayer_to_8bit_gray(raw.data(), g.data(), w, h, 4, 0);  // 1200 saturates to 1023
    EXPECT_EQ(g, (std::vector<uint8_t>{7, 255, 100, 252, 0xEE}));  // -16 >> 2 keeps 0xFC

    std::vector<uint8_t> untouched(4, 0xEE);
    bayer_to_8bit_gray(raw.data(), untouched.data(), w, 3, 1, 0);
    EXPECT_EQ(untouched, std::vector<uint8_t>(4, 0xEE));
}

// conImageBlur against its plain 25-tap form, both kernels, in place and apart,
// on random and saturated images; the quotient shortcut is checked for every sum.
TEST(GuideImage, ConImageBlurMatchesThePlainForm) {
    for (int sum = 0; sum <= 255 * 100; ++sum) {
        ASSERT_EQ(static_cast<int>(static_cast<float>(sum) / 100.0f), sum / 100) << sum;
        ASSERT_EQ(static_cast<int>(static_cast<float>(sum) / 25.0f), sum / 25) << sum;
    }
    std::mt19937 rng(11);
    for (int w : {5, 6, 13, 17, 24, 31, 33, 40})
        for (int h : {5, 9})
            for (float select : {510.0f, 510.5f, NAN}) {
                Bytes src = randomBytes(rng, static_cast<size_t>(w) * h);
                if (w == 17) src.assign(src.size(), 255);
                Bytes want = src, got(src.size(), 0xA5), plainApart(src.size(), 0xA5);
                guide_detail::blurPlain(want.data(), want.data(), w, h, select > 510.0f);
                guide_detail::blurPlain(src.data(), plainApart.data(), w, h, select > 510.0f);
                conImageBlur(src.data(), got.data(), w, h, select);
                for (int y = 0; y < h; ++y)  // the apart output keeps its border
                    for (int x = 0; x < w; ++x)
                        if (y < 2 || y >= h - 2 || x < 2 || x >= w - 2) plainApart[y * w + x] = src[y * w + x];
                conImageBlur(src.data(), src.data(), w, h, select);
                ASSERT_EQ(src, want) << "w=" << w << " h=" << h << " select=" << select;
                for (int y = 0; y < h; ++y)
                    for (int x = 0; x < w; ++x)
                        if (y >= 2 && y < h - 2 && x >= 2 && x < w - 2) ASSERT_EQ(got[y * w + x], want[y * w + x]);
                        else ASSERT_EQ(got[y * w + x], 0xA5);
                ASSERT_EQ(plainApart, want);
            }
    Bytes shortImg(20 * 4, 9), dst(20 * 4, 1);
    conImageBlur(shortImg.data(), dst.data(), 20, 4, 0.0f);
    EXPECT_EQ(dst, Bytes(20 * 4, 1));
}

// The one-pass guide of the driver against black-level removal into a copy and
// the guide of that copy: every Bayer pattern, levels at both ends of their range,
// samples at both ends of theirs, gains that wrap, widths with remainders.
TEST(GuideImage, GuideFromRawEqualsRemovalThenGuide) {
    std::mt19937 rng(12);
    std::uniform_int_distribution<int> sample(-32768, 32767), level(0, 32767), tenBits(0, 1023);
    for (int cols : {1, 2, 3, 7, 8, 9, 16, 17, 33})
        for (int extra : {0, 3}) {
            const int w = 4 * cols + extra, h = 8 + extra;
            std::vector<short> raw(static_cast<size_t>(w) * h);
            for (int pattern = 0; pattern < 4; ++pattern) {
                for (auto& v : raw) v = static_cast<short>(pattern % 2 ? sample(rng) : tenBits(rng));
                int order[4];
                const int levels[3] = {level(rng), pattern == 3 ? 32767 : 64, pattern == 2 ? 0 : level(rng)};
                getBayerBLCorder(order, pattern, levels[0], levels[1], levels[1], levels[2]);
                ASSERT_TRUE(guide_detail::blackLevelsFitSamples(order));
                for (int gain : {1, 3, 70000}) {
                    std::vector<short> corrected(raw.size());
                    removeBLC(raw.data(), corrected.data(), w, h, order);
                    Bytes want(static_cast<size_t>(cols) * (h / 4), 0), got = want;
                    bayer_to_8bit_gray(corrected.data(), want.data(), w, h, gain, 0);
                    guide_detail::guideFromRaw(raw.data(), order, got.data(), w, h, gain);
                    ASSERT_EQ(got, want) << "w=" << w << " pattern=" << pattern << " gain=" << gain;
                }
            }
        }
    int negative[4] = {64, -1, 64, 64}, large[4] = {64, 64, 32768, 64};
    EXPECT_FALSE(guide_detail::blackLevelsFitSamples(negative));
    EXPECT_FALSE(guide_detail::blackLevelsFitSamples(large));
}

TEST(GuideImage, HistogramEqualisationClipsAndSpreadsExcess) {
    // One gray level on 64 x 64: L = 48, excess 4048, share 15. Level 100 maps
    // to trunc((100 * 15 + 63) / 4096 * 255) = 97, not 255.
    Bytes flat(64 * 64, 100);
    histogram_equalization(flat.data(), flat.data(), 64, 64);
    EXPECT_EQ(flat, Bytes(64 * 64, 97));

    // Every level once on 16 x 16: nothing clipped, c[b] = (b + 1) / 256, which
    // maps every level onto itself (255 included).
    Bytes ramp(256), out(256, 0);
    for (int i = 0; i < 256; ++i) ramp[i] = static_cast<uint8_t>(255 - i);
    histogram_equalization(ramp.data(), out.data(), 16, 16);
    EXPECT_EQ(out, ramp);
}

}  // namespace

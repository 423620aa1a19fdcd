#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "hdr/fusion_weights.h"
#include "support/fast_paths.h"

namespace {

using U16 = std::vector<unsigned short>;

// Runs calculateWeight on four intensity maps; returns the weight maps. With
// `shared` the same list serves as input and output, as the HDR driver does.
std::vector<U16> weightsFor(std::vector<U16> maps, int width, int height, bool shared, float scale = 1.0f) {
    std::vector<U16> outputs(maps.size(), U16(maps[0].size(), 0xBEEF));
    std::vector<unsigned short*> in, out;
    for (size_t k = 0; k < maps.size(); ++k) {
        in.push_back(maps[k].data());
        out.push_back(shared ? maps[k].data() : outputs[k].data());
    }
    calculateWeight(&in, nullptr, &out, width, height, static_cast<int>(maps.size()), 511, 1023, nullptr, 0, scale);
    return shared ? maps : outputs;
}

int argmaxMidpoint(const U16& row, int count) {
    int best = *std::max_element(row.begin(), row.begin() + count);
    int first = -1, last = -1;
    for (int i = 0; i < count; ++i)
        if (row[i] == best) {
            if (first < 0) first = i;
            last = i;
        }
    return (first + last) / 2;
}

TEST(FusionWeights, CurvesPeakAtBothCentresAndFullWeightIsScaledBy255Over256) {
    // One row per intensity value; the last frame is at white (t = 1), where a
    // frame's weight is its plain curve.
    const int width = 1024, height = 4;
    U16 ramp(width * height), last(width * height, 1023), weight(width * height);
    for (int p = 0; p < width * height; ++p) ramp[p] = static_cast<unsigned short>(p % width);

    U16 noHighlight(width * height, 0), fullHighlight(width * height, 0x7FFF);  // low byte 255
    calculateSingleImageWeight(ramp.data(), weight.data(), 511, height, width, 1023, 0, 4, 1.0f, last.data(),
                               noHighlight.data());
    EXPECT_EQ(argmaxMidpoint(weight, width), 511);
    EXPECT_EQ(weight[511], 1019);  // 1.0 * 255 * 1023 >> 8: a full weight is whiteLevel * 255 / 256
    EXPECT_EQ(weight[3 * width + 511], 1019);
    EXPECT_LT(weight[0], 100);  // about exp(-2.5) at the ends
    EXPECT_GT(weight[0], 70);

    // A highlight value of 255 (only its low byte is read) selects the curve at
    // trunc(1.1 * 511) = 562.
    calculateSingleImageWeight(ramp.data(), weight.data(), 511, height, width, 1023, 0, 4, 1.0f, last.data(),
                               fullHighlight.data());
    EXPECT_EQ(argmaxMidpoint(weight, width), 562);
    EXPECT_EQ(weight[562], 1019);

    // The last frame at t = 1 gets the plain curve too.
    calculateSingleImageWeight(ramp.data(), weight.data(), 511, height, width, 1023, 3, 4, 1.0f, last.data(),
                               noHighlight.data());
    EXPECT_EQ(argmaxMidpoint(weight, width), 511);

    // createLUT: peak 1 at the centre, nothing written for a negative range.
    std::vector<float> table(1024, -7.0f);
    createLUT(table.data(), 1023, 1.0f, 511);
    EXPECT_EQ(table[511], 1.0f);
    EXPECT_FLOAT_EQ(table[0], std::exp(-10.0f * 511 * 511 / (1023.0f * 1023.0f)));
    std::fill(table.begin(), table.end(), -7.0f);
    createLUT(table.data(), -1, 1.0f, 0);
    EXPECT_EQ(table[0], -7.0f);
}

TEST(FusionWeights, ChunkedWellExposednessMatchesPlainDefinition) {
    std::mt19937 rng(13);
    for (float scale : {1.0f, 0.3f, 4.0f}) {
        std::vector<float> atCenter(1024), aboveCenter(1024);
        createLUT(atCenter.data(), 1023, scale, 511);
        createLUT(aboveCenter.data(), 1023, scale, 562);
        for (int width : {1, 7, 16, 33, 255, 257, 600}) {
            const int height = 3, n = width * height;
            U16 intensity(n), last(n), highlight(n);
            for (int p = 0; p < n; ++p) {
                intensity[p] = static_cast<unsigned short>(rng() % 1024);
                last[p] = static_cast<unsigned short>(p % 9 == 0 ? 613 + rng() % 3 : rng() % 1024);  // dark edge
                highlight[p] = static_cast<unsigned short>(rng() % 65536);  // high byte must be ignored
            }
            for (int frame : {0, 3}) {
                // The last frame's own intensity is the last intensity.
                const U16& own = frame == 3 ? last : intensity;
                U16 fast(n, 1), plain(n, 2);
                wellExposedness(const_cast<unsigned short*>(own.data()), fast.data(), 511, 0, height, width, 1023,
                                frame, 4, scale, last.data(), atCenter.data(), aboveCenter.data(), highlight.data());
                fusion_detail::wellExposednessPlain(own.data(), plain.data(), 0, n, 1023, frame == 3, last.data(),
                                                    atCenter.data(), aboveCenter.data(), highlight.data());
                ASSERT_EQ(fast, plain) << "width " << width << " frame " << frame << " scale " << scale;
                // In place over the intensities, as the driver runs it.
                U16 shared = own;
                U16 lastCopy = last;
                wellExposedness(shared.data(), shared.data(), 511, 0, height, width, 1023, frame, 4, scale,
                                frame == 3 ? shared.data() : lastCopy.data(), atCenter.data(), aboveCenter.data(),
                                highlight.data());
                ASSERT_EQ(shared, plain) << "in place, width " << width << " frame " << frame;
            }
        }
    }

    // Curves that are not numbers take the saturating path: dark pixels keep
    // their fixed weights, the others convert NaN to 0.
    std::vector<float> nanCurve(1024, std::nanf(""));
    U16 intensity = {100, 900}, last = {100, 900}, highlight = {0, 0}, weight(2, 7);
    wellExposedness(intensity.data(), weight.data(), 511, 0, 1, 2, 1023, 3, 4, 1.0f, last.data(), nanCurve.data(),
                    nanCurve.data(), highlight.data());
    EXPECT_EQ(weight, (U16{1023, 0}));
}

TEST(FusionWeights, DarkLastFrameCarriesEverything) {
    const int width = 32, height = 12;
    // Left half: last frame dark (500 < 0.6 * 1023); right half: bright.
    std::vector<U16> maps(4, U16(width * height));
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            int p = y * width + x;
            maps[0][p] = 300;
            maps[1][p] = 450;
            maps[2][p] = 700;
            maps[3][p] = x < width / 2 ? 500 : 1000;
        }

    // Before normalisation the last frame's weight is whiteLevel, the others 0.
    U16 weight(width * height), highlight(width * height, 0);
    for (int k = 0; k < 4; ++k) {
        calculateSingleImageWeight(maps[k].data(), weight.data(), 511, height, width, 1023, k, 4, 1.0f,
                                   maps[3].data(), highlight.data());
        EXPECT_EQ(weight[5 * width + 3], k == 3 ? 1023 : 0) << "frame " << k;
    }

    // After normalisation the last frame carries 1023. Away from the boundary the
    // 5x5 smoothing sees only equal values and keeps them.
    std::vector<U16> w = weightsFor(maps, width, height, false);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width / 2 - 2; ++x) {
            int p = y * width + x;
            ASSERT_EQ(w[3][p], 1023) << x << "," << y;
            ASSERT_EQ(w[0][p] + w[1][p] + w[2][p], 0) << x << "," << y;
        }
    // In the bright half every frame has a share and the shares add up to about 1023.
    for (int y = 0; y < height; ++y)
        for (int x = width / 2 + 2; x < width; ++x) {
            int p = y * width + x;
            int sum = w[0][p] + w[1][p] + w[2][p] + w[3][p];
            ASSERT_GE(sum, 1019);
            ASSERT_LE(sum, 1025);
            ASSERT_GT(w[2][p], w[0][p]);  // 700 is closer to the centre than 300
        }

    // Sharing the list between intensities and weights gives the same maps: the
    // last frame's intensities must survive until its own turn.
    std::vector<U16> shared = weightsFor(maps, width, height, true);
    EXPECT_EQ(shared, w);
}

TEST(FusionWeights, NormalisationSharesEvenlyAndRoundsHalvesAway) {
    // All weights 0 (a steep curve and intensities far from the centre): every
    // frame gets floor(1023 / 4) = 255.
    const int width = 10, height = 6;
    std::vector<U16> maps = {U16(width * height, 0), U16(width * height, 0), U16(width * height, 0),
                             U16(width * height, 1023)};
    std::vector<U16> w = weightsFor(maps, width, height, true, 1.0e4f);
    for (int k = 0; k < 4; ++k)
        for (unsigned short v : w[k]) ASSERT_EQ(v, 255);

    U16 weight = {0, 0, 1, 1, 2, 0};
    std::vector<int> sum = {0, 0, 2, 3, 3, 5};
    normalizeWeight(weight.data(), sum.data(), 0, 1, 3, 3, 1023);  // first row only
    EXPECT_EQ(weight[0], 341);                                     // floor(1023 / 3)
    EXPECT_EQ(weight[1], 341);
    EXPECT_EQ(weight[2], 512);  // 511.5 rounds away from zero
    EXPECT_EQ(weight[3], 1);    // second row untouched
    normalizeWeight(weight.data(), sum.data(), 1, 2, 3, 3, 1023);
    EXPECT_EQ(weight[3], 341);
    EXPECT_EQ(weight[4], 682);
    EXPECT_EQ(weight[5], 0);

    // The branch-free form against the plain definition on random data, widths
    // around every vector length, sums of 0 and weights equal to their sum.
    std::mt19937 rng(7);
    for (int cols = 1; cols <= 33; ++cols) {
        const int rows = 3;
        U16 wv(cols * rows);
        std::vector<int> sv(cols * rows);
        for (int p = 0; p < cols * rows; ++p) {
            wv[p] = static_cast<unsigned short>(rng() % (p % 5 == 0 ? 65536 : 1024));
            sv[p] = p % 7 == 0 ? 0 : p % 3 == 0 ? wv[p] : static_cast<int>(rng() % 4096) + wv[p];
        }
        U16 expected = wv;
        fusion_detail::normalizeWeightPlain(expected.data(), sv.data(), 0, rows, cols, 4, 1023);
        normalizeWeight(wv.data(), sv.data(), 0, rows, cols, 4, 1023);
        ASSERT_EQ(wv, expected) << "width " << cols;
    }
}

TEST(FusionWeights, HighlightMapRampsAndSteepens) {
    using fusion_detail::highlightValue;
    EXPECT_EQ(highlightValue(900, 500, 1023), 100);  // x = 0.8798, q = 100, kept
    EXPECT_EQ(highlightValue(900, 400, 1023), 175);  // q = 125 -> 3 * 125 - 200
    EXPECT_EQ(highlightValue(1023, 0, 1023), 255);   // capped
    EXPECT_EQ(highlightValue(716, 0, 1023), 0);      // at most 0.7 of the range: always 0
    EXPECT_EQ(highlightValue(700, 700, 1023), 0);
    // In the ramp (0.7, 0.8] the value grows from 0 towards q.
    int previous = 0;
    for (int a = 717; a <= 818; ++a) {
        int v = highlightValue(a, a - 400, 1023);
        ASSERT_GE(v, previous);
        ASSERT_LE(v, 100);
        previous = v;
    }
    EXPECT_GE(previous, 99);

    // The branch-free row form (each compilation) against the definition, for every
    // last-frame value of the range and beyond, and differences up to the maximum.
    for (int white : {1023, 255, 8, 7}) {
        U16 last, previous;
        for (int a = 0; a <= 1100; ++a)
            for (int b : {0, a / 3, a, 65535}) {
                last.push_back(static_cast<unsigned short>(a));
                previous.push_back(static_cast<unsigned short>(b));
            }
        last.push_back(65535);
        previous.push_back(0);
        for (KernelIsa isa : fasttest::availableIsas()) {
            U16 row(last.size());
            fusion_detail::highlightRow(last.data(), previous.data(), row.data(), static_cast<int>(row.size()), white,
                                        isa);
            for (size_t i = 0; i < row.size(); ++i)
                ASSERT_EQ(row[i], highlightValue(last[i], previous[i], white))
                    << last[i] << "," << previous[i] << " white " << white << " " << fasttest::isaName(isa);
        }
    }
}

TEST(FusionWeights, BinomialSmoothingMatchesPlainDefinition) {
    int kernel[5][5];
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j < 5; ++j) kernel[i][j] = fusion_detail::binomialKernel5x5[i][j];
    std::mt19937 rng(11);
    for (int width : {1, 2, 5, 8, 13, 16, 17, 33}) {
        const int height = 6, stride = width + 4;
        U16 extended(stride * (height + 4));
        for (auto& v : extended) v = static_cast<unsigned short>(rng() % 4 == 0 ? 65535 : rng() % 65536);
        U16 fast(width * height, 1), plain(width * height, 2);
        filteringProcessForWeight_ushort(extended.data(), kernel, fast.data(), 2, height + 2, 2, width + 2, 2, stride,
                                         width, 256.0f);
        fusion_detail::filterWeightRowsPlain(extended.data(), kernel, plain.data(), 2, height + 2, 2, width + 2, 2,
                                             stride, width, 256.0f);
        ASSERT_EQ(fast, plain) << "width " << width;
    }

    // The whole smoothing: in place equals out of place, constants stay constant,
    // and tiny frames are covered completely without leaving the buffers.
    for (auto size : {std::pair<int, int>{2, 2}, {6, 4}, {7, 3}, {24, 20}}) {
        const int width = size.first, height = size.second;
        U16 src(width * height);
        for (auto& v : src) v = static_cast<unsigned short>(rng() % 1024);
        U16 out(width * height, 0xBEEF), inPlace = src;
        lowPassFilteringForWeight_ushort(src.data(), out.data(), width, height);
        lowPassFilteringForWeight_ushort(inPlace.data(), inPlace.data(), width, height);
        EXPECT_EQ(out, inPlace) << width << "x" << height;
        U16 flat(width * height, 777);
        lowPassFilteringForWeight_ushort(flat.data(), flat.data(), width, height);
        for (unsigned short v : flat) ASSERT_EQ(v, 777) << width << "x" << height;
    }
}

// The streamed weights (each compilation) against the step-by-step definition:
// widths around every vector length, heights down to 2 (stripes of one row or
// none, halo rows from two stripes away), one to four frames, the lists shared or
// not, steep and flat curves.
TEST(FusionWeights, StreamedWeightsMatchPlainDefinition) {
    std::mt19937 rng(17);
    const int sizes[][2] = {{2, 2}, {33, 3}, {17, 5}, {8, 6}, {40, 13}, {9, 2}};
    for (const auto& wh : sizes) {
        const int width = wh[0], height = wh[1], n = width * height;
        for (int frames : {1, 2, 4}) {
            std::vector<U16> maps(frames);
            for (auto& m : maps) m = fasttest::randomSamples<unsigned short>(rng, n, 0, 1023);
            for (float scale : {1.0f, 40.0f}) {
                std::vector<U16> plain = maps;
                std::vector<unsigned short*> plainList;
                for (auto& m : plain) plainList.push_back(m.data());
                fusion_detail::calculateWeightPlain(&plainList, &plainList, width, height, frames, 511, 1023, scale);
                for (KernelIsa isa : fasttest::availableIsas()) {
                    std::vector<U16> shared = maps, separate(frames, U16(n, 0xBEEF));
                    std::vector<unsigned short*> sharedList, inList, outList;
                    for (auto& m : shared) sharedList.push_back(m.data());
                    for (auto& m : maps) inList.push_back(m.data());
                    for (auto& m : separate) outList.push_back(m.data());
                    ASSERT_TRUE(fusion_detail::calculateWeightStreamed(&sharedList, &sharedList, width, height, frames,
                                                                       511, 1023, scale, isa));
                    ASSERT_TRUE(fusion_detail::calculateWeightStreamed(&inList, &outList, width, height, frames, 511,
                                                                       1023, scale, isa));
                    ASSERT_EQ(shared, plain) << width << "x" << height << " frames " << frames << " "
                                             << fasttest::isaName(isa);
                    ASSERT_EQ(separate, plain) << width << "x" << height << " frames " << frames;
                }
            }
        }
    }
    // Where it does not apply it writes nothing and says so.
    U16 one(4, 7);
    std::vector<unsigned short*> list = {one.data()};
    EXPECT_FALSE(fusion_detail::calculateWeightStreamed(&list, &list, 4, 1, 1, 511, 1023, 1.0f, KernelIsa::Baseline));
    EXPECT_EQ(one, U16(4, 7));
}

}  // namespace

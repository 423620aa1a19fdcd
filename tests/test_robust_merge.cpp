// Pieces of the robust night merge: the merge weight, the noise estimates, the
// refined motion, and every fast form against its plain definition.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "burst_scenes.h"
#include "imgcore/simd_dispatch.h"
#include "registration/burst_analysis.h"
#include "registration/cubic_kernel.h"
#include "registration/noise_model.h"
#include "registration/plane_resample.h"
#include "registration/robust_alignment.h"
#include "registration/robust_merge.h"
#include "registration/robust_rows.h"
#include "registration/tile_motion.h"

namespace {

using namespace registration_detail;

TEST(RobustMerge, WeightFallsWithTheDifferenceAgainstTheNoise) {
    // expected 100 per unit of the statistic (16 quarter levels squared, no spread):
    // d2 = z * 1600.
    const float expected = 100.0f;
    struct Case {
        float z, weight;
    };
    for (const Case& c : {Case{0.0f, 1.0f}, Case{1.0f, 1.0f}, Case{1.6f, 1.0f}, Case{2.4f, 0.5f}, Case{3.2f, 0.0f},
                          Case{50.0f, 0.0f}})
        EXPECT_NEAR(mergeWeight(static_cast<int32_t>(c.z * 1600.0f), expected, 0.0f), c.weight, 1e-5) << "z " << c.z;
    // A resampled frame's own noise is smoothed: the same difference weighs more
    // where the expectation includes it.
    EXPECT_LT(mergeWeight(4000, expected, 0.0f), mergeWeight(4000, expected, 1.0f));
}

// A smooth ramp seen twice with independent noise of variance a * signal + b.
struct NoisyPair {
    int width = 256, height = 192;
    std::vector<short> first, second;
};

NoisyPair noisyPair(double a, double b) {
    NoisyPair p;
    std::mt19937 rng(11);
    std::normal_distribution<double> gauss(0.0, 1.0);
    for (auto* frame : {&p.first, &p.second}) {
        frame->resize(static_cast<size_t>(p.width) * p.height);
        for (int y = 0; y < p.height; ++y)
            for (int x = 0; x < p.width; ++x) {
                const double signal = 30.0 + 700.0 * x / p.width;
                const double v = 64.0 + signal + gauss(rng) * std::sqrt(a * signal + b);
                (*frame)[static_cast<size_t>(y) * p.width + x] = static_cast<short>(std::lround(std::min(std::max(v, 0.0), 1023.0)));
            }
    }
    return p;
}

TEST(RobustMerge, NoiseEstimatesFindTheNoiseOfTheFrames) {
    const int black[4] = {64, 64, 64, 64};
    for (double a : {1.0, 3.0}) {
        const NoisyPair p = noisyPair(a, 16.0);
        const TileGrid grid(p.width, p.height);
        TileField still;
        still.dx.assign(static_cast<size_t>(grid.count()), 0.0);
        still.dy = still.dx;
        still.refined.assign(still.dx.size(), 1);
        still.valid.assign(still.dx.size(), 1);
        NoiseModel fromPair, fromOne;
        ASSERT_TRUE(estimateNoise(p.first.data(), p.second.data(), p.width, p.height, still, black, fromPair));
        ASSERT_TRUE(estimateNoiseFromReference(p.first.data(), p.width, p.height, black, fromOne));
        for (const NoiseModel& m : {fromPair, fromOne}) {
            EXPECT_NEAR(m.a, a, 0.15 * a);
            EXPECT_NEAR(m.a * 400.0 + m.b, a * 400.0 + 16.0, 0.1 * (a * 400.0 + 16.0)) << "variance at level 400";
        }
    }
    // Nothing to estimate from: a frame too small for one block per level.
    const std::vector<short> tiny(16 * 8, 100);
    NoiseModel m;
    EXPECT_FALSE(estimateNoiseFromReference(tiny.data(), 16, 8, black, m));
}

// Random fields over a grid: shifts within a few quads, some tiles without source,
// a mixture of cubic and linear tiles.
TileField randomField(const TileGrid& grid, std::mt19937& rng) {
    std::uniform_real_distribution<double> shift(-3.0, 3.0);
    TileField f;
    for (int t = 0; t < grid.count(); ++t) {
        f.dx.push_back(shift(rng));
        f.dy.push_back(shift(rng));
        f.refined.push_back(1);
        f.valid.push_back(rng() % 9 != 0);
        f.detailed.push_back(rng() % 2);
    }
    return f;
}

std::vector<short> randomFrame(int width, int height, std::mt19937& rng) {
    std::vector<short> frame(static_cast<size_t>(width) * height);
    for (short& v : frame) v = static_cast<short>(60 + rng() % 700);
    return frame;
}

TEST(RobustMerge, FastResamplingEqualsPlainOverAnyColumnWindow) {
    std::mt19937 rng(3);
    for (int width : {68, 136, 200}) {
        const int height = 72;
        const TileGrid grid(width, height);
        const TileField field = randomField(grid, rng);
        const std::vector<short> frame = randomFrame(width, height, rng);
        const int qc = width / 2;
        std::vector<float> plain(static_cast<size_t>(width) * height);
        std::vector<unsigned char> plainValid(static_cast<size_t>(qc) * (height / 2));
        resampleRowsPlain(frame.data(), width, height, grid, field, 0, height, plain.data(), plainValid.data());
        for (int c0 : {0, 3, 33}) {
            const int c1 = std::min(qc, c0 + 40), rows0 = 6, rows1 = height - 2;
            if (c0 >= c1) continue;
            const int cw = c1 - c0;
            std::vector<float> fast(static_cast<size_t>(rows1 - rows0) * 2 * cw), h;
            std::vector<unsigned char> valid(static_cast<size_t>(rows1 - rows0) / 2 * cw);
            resampleRowsFast(frame.data(), width, height, grid, field, rows0, rows1, c0, c1, fast.data(), valid.data(), h);
            for (int y = rows0; y < rows1; ++y)
                for (int x = 2 * c0; x < 2 * c1; ++x)
                    ASSERT_EQ(fast[static_cast<size_t>(y - rows0) * 2 * cw + (x - 2 * c0)], plain[static_cast<size_t>(y) * width + x])
                        << width << " window " << c0 << " at " << x << "," << y;
            for (int qy = rows0 / 2; qy < rows1 / 2; ++qy)
                for (int qx = c0; qx < c1; ++qx)
                    ASSERT_EQ(valid[static_cast<size_t>(qy - rows0 / 2) * cw + (qx - c0)], plainValid[static_cast<size_t>(qy) * qc + qx]);
        }
    }
}

TEST(RobustMerge, FastMergeEqualsPlainForEveryWorkerCount) {
    std::mt19937 rng(7);
    for (int width : {136, 264}) {
        const int height = 136;
        const TileGrid grid(width, height);
        const std::vector<short> reference = randomFrame(width, height, rng);
        std::vector<std::vector<short>> frames;
        std::vector<TileField> fields;
        for (int k = 0; k < 4; ++k) {
            // Frames close to the reference (so that weights vary) and one unrelated.
            std::vector<short> f = reference;
            for (short& v : f) v = static_cast<short>(std::min(1023, std::max(0, v + static_cast<int>(rng() % 41) - 20)));
            if (k == 3) f = randomFrame(width, height, rng);
            frames.push_back(f);
            fields.push_back(randomField(grid, rng));
        }
        // Frame 1 in place: mostly accepted, so that the weights take every value.
        std::fill(fields[1].dx.begin(), fields[1].dx.end(), 0.0);
        std::fill(fields[1].dy.begin(), fields[1].dy.end(), 0.0);
        auto run = [&](bool fast, int workers, std::vector<std::vector<short>>& out, std::vector<uint16_t>& merged,
                       std::vector<uint8_t>& map, std::vector<MergeFrame>& list) {
            out = frames;
            MergeSetup s;
            s.reference = reference.data();
            s.width = width;
            s.height = height;
            s.black[0] = 60, s.black[1] = 64, s.black[2] = 64, s.black[3] = 68;
            s.noiseA = 2.0f;
            s.noiseB = 9.0f;
            s.outputBits = 14;
            s.gain = 1.5f;
            merged.assign(reference.size(), 0);
            map.assign(reference.size() / 4, 0);
            s.output = merged.data();
            s.weightMap = map.data();
            s.workers = workers;
            list.clear();
            for (size_t k = 0; k < out.size(); ++k) {
                MergeFrame f;
                f.frame = out[k].data();
                f.field = &fields[k];
                f.merged = k > 0;  // frame 0 stands for a short exposure: aligned only
                list.push_back(f);
            }
            if (fast)
                robustMergeFast(s, list);
            else
                robustMergePlain(s, list);
        };
        std::vector<std::vector<short>> plainFrames, fastFrames;
        std::vector<uint16_t> plainMerged, fastMerged;
        std::vector<uint8_t> plainMap, fastMap;
        std::vector<MergeFrame> plainList, fastList;
        run(false, 1, plainFrames, plainMerged, plainMap, plainList);
        for (int workers : {1, 2, 3}) {
            run(true, workers, fastFrames, fastMerged, fastMap, fastList);
            EXPECT_EQ(fastMerged, plainMerged) << width << " workers " << workers;
            EXPECT_EQ(fastFrames, plainFrames);
            EXPECT_EQ(fastMap, plainMap);
            for (size_t k = 0; k < fastList.size(); ++k) {
                EXPECT_EQ(fastList[k].weightSum, plainList[k].weightSum);
                EXPECT_EQ(fastList[k].rejectedQuads, plainList[k].rejectedQuads);
                EXPECT_EQ(fastList[k].dataQuads, plainList[k].dataQuads);
            }
        }
        EXPECT_GT(plainList[3].rejectedQuads, 2 * plainList[1].rejectedQuads) << "the unrelated frame is rejected more";
    }
}

TEST(RobustMerge, RowKernelsGiveThePlainValuesOnEveryTarget) {
    KernelIsa isas[3];
    const int targets = supportedKernelIsas(isas);
    std::mt19937 rng(5);
    for (int n : {1, 7, 16, 17, 33, 67}) {
        std::vector<short> in(static_cast<size_t>(n) + 8), ref(static_cast<size_t>(n));
        std::vector<float> w[4], h[4], a(static_cast<size_t>(n)), acc(static_cast<size_t>(n)), exp(static_cast<size_t>(n)),
            spread(static_cast<size_t>(n));
        std::vector<int32_t> d[3];
        std::vector<unsigned char> valid(static_cast<size_t>(n));
        std::uniform_real_distribution<float> unit(-0.2f, 1.2f);
        for (short& v : in) v = static_cast<short>(rng() % 1024);
        for (short& v : ref) v = static_cast<short>(rng() % 1024);
        for (int k = 0; k < 4; ++k)
            for (int i = 0; i < n; ++i) {
                w[k].push_back(unit(rng));
                h[k].push_back(unit(rng) * 900.0f);
            }
        for (int k = 0; k < 3; ++k)
            for (int i = 0; i < n; ++i) d[k].push_back(static_cast<int32_t>(rng() % 5000));
        for (int i = 0; i < n; ++i) {
            a[static_cast<size_t>(i)] = unit(rng) * 1000.0f;
            acc[static_cast<size_t>(i)] = unit(rng) * 3000.0f;
            exp[static_cast<size_t>(i)] = 50.0f + unit(rng) * 100.0f;
            spread[static_cast<size_t>(i)] = unit(rng);
            valid[static_cast<size_t>(i)] = rng() % 3 != 0;
        }
        const float* wp[4] = {w[0].data(), w[1].data(), w[2].data(), w[3].data()};
        const float* hp[4] = {h[0].data(), h[1].data(), h[2].data(), h[3].data()};
        const int32_t black[2] = {60, 68};
        std::vector<int32_t> blackRow(static_cast<size_t>(n));
        for (int i = 0; i < n; ++i) blackRow[static_cast<size_t>(i)] = black[i & 1];
        for (int t = 0; t < targets; ++t) {
            const KernelIsa isa = isas[t];
            std::vector<float> out(static_cast<size_t>(n)), accOut = acc;
            std::vector<int32_t> iout(static_cast<size_t>(n));
            std::vector<short> sout(static_cast<size_t>(n));
            std::vector<uint16_t> uout(static_cast<size_t>(n));
            const short* src = in.data() + 2;
            cubicRow(isa, src, wp, out.data(), n);
            for (int i = 0; i < n; ++i) {
                const float taps[4] = {w[0][i], w[1][i], w[2][i], w[3][i]};
                ASSERT_EQ(out[i], cubicTaps(taps, src[i - 2], src[i], src[i + 2], src[i + 4])) << "cubicRow " << i;
            }
            linearRow(isa, src, wp, out.data(), n);
            for (int i = 0; i < n; ++i) {
                const float taps[4] = {0.0f, w[1][i], w[2][i], 0.0f};
                ASSERT_EQ(out[i], linearTaps(taps, src[i], src[i + 2])) << "linearRow " << i;
            }
            cubicColumn(isa, hp, wp, out.data(), n);
            for (int i = 0; i < n; ++i) {
                const float taps[4] = {w[0][i], w[1][i], w[2][i], w[3][i]};
                ASSERT_EQ(out[i], cubicTaps(taps, h[0][i], h[1][i], h[2][i], h[3][i])) << "cubicColumn " << i;
            }
            linearColumn(isa, hp, wp, out.data(), n);
            for (int i = 0; i < n; ++i) {
                const float taps[4] = {0.0f, w[1][i], w[2][i], 0.0f};
                ASSERT_EQ(out[i], linearTaps(taps, h[1][i], h[2][i])) << "linearColumn " << i;
            }
            squaredDifferenceRow(isa, a.data(), ref.data(), iout.data(), n);
            for (int i = 0; i < n; ++i) ASSERT_EQ(iout[i], squaredDifference(a[i], ref[i]));
            weightRow(isa, d[0].data(), d[1].data(), d[2].data(), exp.data(), spread.data(), valid.data(), out.data(), n);
            for (int i = 0; i < n; ++i)
                ASSERT_EQ(out[i], valid[i] ? mergeWeight((d[0][i] + d[1][i]) + d[2][i], exp[i], spread[i]) : 1.0f);
            accumulateRow(isa, accOut.data(), w[1].data(), a.data(), n);
            for (int i = 0; i < n; ++i) ASSERT_EQ(accOut[i], acc[i] + w[1][i] * a[i]);
            alignedRow(isa, a.data(), sout.data(), n);
            for (int i = 0; i < n; ++i) ASSERT_EQ(sout[i], alignedSample(a[i]));
            finishRow(isa, acc.data(), spread.data(), blackRow.data(), uout.data(), n, 1.75f, 12);
            for (int i = 0; i < n; ++i)
                ASSERT_EQ(uout[i], finishSample(mergedValue(acc[i], spread[i]), blackRow[i], 1.75f, 12)) << "finishRow " << i;
        }
    }
}

// The refined motion of a low-light burst against the motion it was rendered
// with, at every tile centre: well inside a tenth of a sample, where the cell
// models alone err by several tenths.
TEST(TileMotion, RefinedMotionMatchesTheTrueMotion) {
    kep::synth::SceneBurstOptions o;
    o.width = 640;
    o.height = 480;
    const kep::synth::SceneBurst s = kep::synth::makeSceneBurst(o);
    std::vector<std::vector<short>> frames = s.burst.frames;
    std::vector<short*> pointers;
    for (auto& f : frames) pointers.push_back(f.data());
    int black[4] = {64, 64, 64, 64};
    std::srand(1);
    BurstAnalysis a(pointers.data(), 8, o.width, o.height, 1, 0.0f, 0.9f, black);
    int usable = a.sharpCount();
    const RobustAlignment ra = alignBurstRobust(pointers.data(), 8, o.width, o.height, a, 1.0f, &usable);
    const TileGrid grid(o.width, o.height);
    double cellError = 0.0, refinedError = 0.0;
    int count = 0;
    for (int i = 3; i < 8; ++i) {
        ASSERT_TRUE(ra.aligned[static_cast<size_t>(i)]) << i;
        ASSERT_EQ(ra.fields[static_cast<size_t>(i)].refined[0], 1) << i;
        for (int t = 0; t < grid.count(); ++t) {
            const double x = 2.0 * grid.centreX(t % grid.tilesX) + 0.5, y = 2.0 * grid.centreY(t / grid.tilesX) + 0.5;
            double sx, sy;
            kep::synth::trueSourcePosition(s.burst.motions[static_cast<size_t>(i)], o.width, o.height, x, y, &sx, &sy);
            auto error = [&](const TileField& f) {
                const double ex = 2.0 * f.dx[static_cast<size_t>(t)] - (sx - x), ey = 2.0 * f.dy[static_cast<size_t>(t)] - (sy - y);
                return ex * ex + ey * ey;
            };
            cellError += error(ra.cellFields[static_cast<size_t>(i)]);
            refinedError += error(ra.fields[static_cast<size_t>(i)]);
            ++count;
        }
    }
    EXPECT_LT(std::sqrt(refinedError / count), 0.1);
    EXPECT_GT(std::sqrt(cellError / count), 2.0 * std::sqrt(refinedError / count));
}

}  // namespace

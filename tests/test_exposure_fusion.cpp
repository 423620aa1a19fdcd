#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

#include "hdr/exposure_fusion.h"
#include "hdr/pyramid.h"
#include "support/fast_paths.h"
#include "support/hdr_scene.h"

namespace {

using S16 = std::vector<short>;
using U16 = std::vector<unsigned short>;

// Owns a bracket, its weight maps and both accumulator pyramids, and runs
// exposureFusion on them.
struct FusionRun {
    int width, height, levelCount, shallowLevelCount;
    std::vector<std::array<int, 2>> sizes;
    std::vector<int*> levelSizes;
    std::vector<S16> frames;
    std::vector<U16> weights;
    std::vector<S16> full, shallow;

    FusionRun(int w, int h, int levels, int shallowLevels, std::vector<S16> bracket, std::vector<U16> weightMaps)
        : width(w), height(h), levelCount(levels), shallowLevelCount(shallowLevels),
          sizes(hdrtest::pyramidLevelSizes(w, h, std::max(levels, shallowLevels))), frames(std::move(bracket)),
          weights(std::move(weightMaps)) {
        for (auto& s : sizes) levelSizes.push_back(s.data());
        for (int i = 0; i < levels; ++i) full.emplace_back(size_t(sizes[i][0]) * sizes[i][1], 0);
        for (int i = 0; i < shallowLevels; ++i) shallow.emplace_back(size_t(sizes[i][0]) * sizes[i][1], 0);
    }

    void run() {
        std::vector<short*> f, fp, sp;
        std::vector<unsigned short*> w;
        for (auto& x : frames) f.push_back(x.data());
        for (auto& x : weights) w.push_back(x.data());
        for (auto& x : full) fp.push_back(x.data());
        for (auto& x : shallow) sp.push_back(x.data());
        exposureFusion(&w, &f, &fp, &sp, &levelSizes, height, width, 1.0f, 1.0f, static_cast<int>(f.size()),
                       levelCount, shallowLevelCount, 1.0f, 1.0f, 6, 1023);
    }

    S16 collapse(std::vector<S16>& pyramid, int levels) {
        std::vector<short*> p;
        for (auto& x : pyramid) p.push_back(x.data());
        reconstructLaplacianPyramid(&p, &levelSizes, levels, 1023);
        return pyramid[0];
    }
};

// A smooth raw frame (a gentle ramp): its Laplacian levels have no strongly
// negative quads, so the detail gains leave it alone and the pyramid collapses
// back to it exactly.
S16 smoothFrame(int width, int height, int offset) {
    S16 f(size_t(width) * height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) f[size_t(y) * width + x] = static_cast<short>(offset + 3 * x + 2 * y);
    return f;
}

TEST(ExposureFusion, FusionWorkerAddsTruncatedWeightedCoefficients) {
    // Row 0: the arithmetic; row 1 lies outside the stripe and stays untouched.
    S16 lap = {-77, 123, -100, 3, 1, 500, 9, 9, 9, 9, 9, 9};
    U16 weight = {1023, 0, 511, 512, 1023, 2046, 1023, 1023, 1023, 1023, 1023, 1023};
    S16 acc = {5, 42, 7, 0, 32767, -3, 1, 2, 3, 4, 5, 6};
    fusion(lap.data(), weight.data(), acc.data(), 0, 1, 6);
    EXPECT_EQ(acc[0], -72);     // weight 1023 adds the coefficient itself
    EXPECT_EQ(acc[1], 42);      // weight 0 adds nothing
    EXPECT_EQ(acc[2], -42);     // -49.95 + 7 truncated toward zero
    EXPECT_EQ(acc[3], 1);       // 1.5015 truncated
    EXPECT_EQ(acc[4], -32768);  // 32768 wraps to 16 bits
    EXPECT_EQ(acc[5], 997);     // weights above 1023 scale up (2.0 * 500 - 3)
    EXPECT_EQ(S16(acc.begin() + 6, acc.end()), (S16{1, 2, 3, 4, 5, 6}));
}

TEST(ExposureFusion, SingleLevelIsTheRunningWeightedSum) {
    const int width = 10, height = 6;
    std::mt19937 rng(3);
    std::vector<S16> frames(4, S16(width * height));
    std::vector<U16> weights(4, U16(width * height));
    for (int k = 0; k < 4; ++k)
        for (int p = 0; p < width * height; ++p) {
            frames[k][p] = static_cast<short>(rng() % 1024);
            weights[k][p] = static_cast<unsigned short>(rng() % 400);
        }
    FusionRun run(width, height, 1, 1, frames, weights);
    run.run();
    for (int p = 0; p < width * height; ++p) {
        // Frames in list order, each contribution truncated when it is added.
        int acc = 0;
        for (int k = 0; k < 4; ++k)
            acc = static_cast<int>((static_cast<float>(weights[k][p]) / 1023.0f) * static_cast<float>(frames[k][p]) +
                                   static_cast<float>(acc));
        ASSERT_EQ(run.full[0][p], acc) << p;
        ASSERT_EQ(run.shallow[0][p], acc) << p;  // a shallow depth of 1 fuses the frames themselves
    }
    EXPECT_EQ(run.frames, frames);  // one level: no Laplacian construction
}

TEST(ExposureFusion, FullWeightOnOneFrameReproducesItAtEveryDepth) {
    const int width = 64, height = 48, levels = 4;  // levels 48, 24, 12, 6 rows
    for (int chosen : {0, 2}) {
        std::vector<S16> frames;
        std::vector<U16> weights;
        for (int k = 0; k < 4; ++k) {
            frames.push_back(smoothFrame(width, height, 100 + 150 * k));
            weights.emplace_back(width * height, k == chosen ? 1023 : 0);
        }
        const S16 expected = frames[chosen];
        FusionRun run(width, height, levels, 3, frames, weights);
        run.run();
        EXPECT_EQ(run.collapse(run.full, levels), expected) << "frame " << chosen;
        EXPECT_EQ(run.collapse(run.shallow, 3), expected) << "frame " << chosen;
        // Each frame buffer now holds the finest band of its pyramid: small values.
        for (short v : run.frames[1]) ASSERT_LT(std::abs(v), 64);
    }

    // Identical frames with weights summing to 1023: the fused image is the frame
    // up to the truncation of the per-frame contributions.
    std::vector<S16> same(3, smoothFrame(width, height, 200));
    std::vector<U16> thirds = {U16(width * height, 341), U16(width * height, 341), U16(width * height, 341)};
    FusionRun split(width, height, levels, 2, same, thirds);
    split.run();
    S16 full = split.collapse(split.full, levels);
    S16 shallow = split.collapse(split.shallow, 2);
    for (int p = 0; p < width * height; ++p) {
        ASSERT_LE(std::abs(full[p] - same[0][p]), 3 * levels) << p;
        ASSERT_LE(std::abs(shallow[p] - same[0][p]), 3 * 2) << p;
    }
}

TEST(ExposureFusion, ShallowDepthIsCappedAtTheFullDepth) {
    const int width = 32, height = 24, levels = 3;
    std::mt19937 rng(5);
    std::vector<S16> frames(2, S16(width * height));
    std::vector<U16> weights(2, U16(width * height));
    for (int k = 0; k < 2; ++k)
        for (int p = 0; p < width * height; ++p) {
            frames[k][p] = static_cast<short>(rng() % 1024);
            weights[k][p] = static_cast<unsigned short>(k == 0 ? rng() % 1024 : 0);
        }
    for (int p = 0; p < width * height; ++p) weights[1][p] = static_cast<unsigned short>(1023 - weights[0][p]);

    // At the full depth the shallow residual is the full pyramid's coarsest
    // level; a deeper request behaves the same and leaves the extra level alone.
    for (int shallowLevels : {levels, levels + 1}) {
        FusionRun run(width, height, levels, shallowLevels, frames, weights);
        run.run();
        for (int i = 0; i < levels; ++i) EXPECT_EQ(run.shallow[i], run.full[i]) << "level " << i;
        if (shallowLevels > levels) {
            for (short v : run.shallow[levels]) ASSERT_EQ(v, 0);
        }
    }
}

// The one-pass-per-level fusion (each compilation, with and without the
// zero-accumulator promise) against the plain frame-by-frame definition: random
// frames and weights, odd-half level sizes, detail gains that are and are not 1,
// shallow depths from 1 to the full depth.
TEST(ExposureFusion, FusedLevelsMatchPlainDefinition) {
    std::mt19937 rng(11);
    struct Case {
        int width, height, levels, shallow;
        float gain0, gain1;
    };
    for (Case c : {Case{124, 92, 6, 4, 1.0f, 1.0f}, Case{60, 46, 4, 1, 0.9f, 1.2f}, Case{30, 22, 3, 3, 1.0f, 0.8f},
                   Case{34, 10, 1, 1, 1.0f, 1.0f}}) {
        std::vector<S16> frames;
        std::vector<U16> weights;
        for (int k = 0; k < 4; ++k) {
            frames.push_back(fasttest::randomSamples<short>(rng, size_t(c.width) * c.height, 0, 1023));
            weights.push_back(fasttest::randomSamples<unsigned short>(rng, size_t(c.width) * c.height, 0, 1023));
        }
        FusionRun plain(c.width, c.height, c.levels, c.shallow, frames, weights);
        {
            std::vector<short*> f, fp, sp;
            std::vector<unsigned short*> w;
            for (auto& x : plain.frames) f.push_back(x.data());
            for (auto& x : plain.weights) w.push_back(x.data());
            for (auto& x : plain.full) fp.push_back(x.data());
            for (auto& x : plain.shallow) sp.push_back(x.data());
            exposure_fusion_detail::exposureFusionPlain(&w, &f, &fp, &sp, &plain.levelSizes, c.height, c.width, 4,
                                                        c.levels, c.shallow, c.gain0, c.gain1, 3);
        }
        for (KernelIsa isa : fasttest::availableIsas()) {
            for (bool startAtZero : {false, true}) {
                FusionRun fast(c.width, c.height, c.levels, c.shallow, frames, weights);
                if (startAtZero) {  // garbage where the promise says nothing is read
                    for (auto& level : fast.full) std::fill(level.begin(), level.end(), short(-777));
                    for (auto& level : fast.shallow) std::fill(level.begin(), level.end(), short(555));
                }
                std::vector<short*> f, fp, sp;
                std::vector<unsigned short*> w;
                for (auto& x : fast.frames) f.push_back(x.data());
                for (auto& x : fast.weights) w.push_back(x.data());
                for (auto& x : fast.full) fp.push_back(x.data());
                for (auto& x : fast.shallow) sp.push_back(x.data());
                exposure_fusion_detail::exposureFusionInto(&w, &f, &fp, &sp, &fast.levelSizes, c.height, c.width, 4,
                                                           c.levels, c.shallow, c.gain0, c.gain1, 3, startAtZero, isa);
                ASSERT_EQ(fast.full, plain.full) << c.width << "x" << c.height << " " << fasttest::isaName(isa);
                ASSERT_EQ(fast.shallow, plain.shallow) << c.width << "x" << c.height;
                ASSERT_EQ(fast.frames, plain.frames) << c.width << "x" << c.height;
            }
        }
    }
}

}  // namespace

// The night path with options: its refusals, the mean mode as the night entry,
// deeper outputs, and the robust merge on bursts with known truth.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "burst_scenes.h"
#include "registration/night_process.h"
#include "support/pipeline_inputs.h"

namespace {

using pipeline_inputs::NightBurst;

const NightBurst& shakenBurst() {
    static const NightBurst burst = pipeline_inputs::makeNightBurst(
        640, 480, 3, {{2.5, -1.25}, {-3.0, 1.5}, {0, 0}, {1.75, 2.25}, {-2.5, -0.5}, {3.25, 1.0}, {-1.0, -2.75}}, 3, 9);
    return burst;
}

KepNightOptions defaults(int mode = KEP_MERGE_MEAN) {
    KepNightOptions o;
    kepNightDefaultOptions(&o);
    o.mergeMode = mode;
    o.sharpnessRatio = 0.5f;
    return o;
}

TEST(NightProcess, RefusesBadOptionsAndLeavesEveryBufferAlone) {
    const NightBurst& burst = shakenBurst();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    struct Case {
        const char* what;
        int expected;
        std::function<void(KepNightOptions&, int& count, int& width, int& height, int& overlap)> change;
    };
    const std::vector<Case> cases = {
        {"old options record", KEP_NIGHT_BAD_STRUCT_SIZE, [](auto& o, int&, int&, int&, int&) { o.structSize = 8; }},
        {"two frames", KEP_NIGHT_BAD_FRAME_COUNT, [](auto&, int& n, int&, int&, int&) { n = 2; }},
        {"width not a multiple of 4", KEP_NIGHT_BAD_SIZE, [](auto&, int&, int& w, int&, int&) { w = 638; }},
        {"height below 64", KEP_NIGHT_BAD_SIZE, [](auto&, int&, int&, int& h, int&) { h = 60; }},
        {"merge mode 2", KEP_NIGHT_BAD_MERGE_MODE, [](auto& o, int&, int&, int&, int&) { o.mergeMode = 2; }},
        {"11 output bits", KEP_NIGHT_BAD_OUTPUT_BITS, [](auto& o, int&, int&, int&, int&) { o.outputBits = 11; }},
        {"negative noise slope", KEP_NIGHT_BAD_NOISE_MODEL,
         [](auto& o, int&, int&, int&, int&) { o.noiseGiven = 1, o.noiseA = -1.0f, o.noiseB = 4.0f; }},
        {"NaN read noise", KEP_NIGHT_BAD_NOISE_MODEL,
         [nan](auto& o, int&, int&, int&, int&) { o.noiseGiven = 1, o.noiseA = 1.0f, o.noiseB = nan; }},
        {"zero noise", KEP_NIGHT_BAD_NOISE_MODEL,
         [](auto& o, int&, int&, int&, int&) { o.noiseGiven = 1, o.noiseA = 0.0f, o.noiseB = 0.0f; }},
        {"pattern 4", KEP_NIGHT_BAD_PATTERN, [](auto& o, int&, int&, int&, int&) { o.bayerPattern = 4; }},
        {"black 1024", KEP_NIGHT_BAD_BLACK_LEVEL, [](auto& o, int&, int&, int&, int&) { o.blackLevel[1] = 1024; }},
        {"NaN gain", KEP_NIGHT_BAD_PARAMETER, [nan](auto& o, int&, int&, int&, int&) { o.gain = nan; }},
        {"gray gain 0", KEP_NIGHT_BAD_PARAMETER, [](auto& o, int&, int&, int&, int&) { o.grayGain = 0; }},
        {"17 workers", KEP_NIGHT_BAD_PARAMETER, [](auto& o, int&, int&, int&, int&) { o.workers = 17; }},
        {"output is frame 3", KEP_NIGHT_OUTPUT_OVERLAPS, [](auto&, int&, int&, int&, int& v) { v = 1; }},
        {"frame 4 is frame 3", KEP_NIGHT_OUTPUT_OVERLAPS, [](auto&, int&, int&, int&, int& v) { v = 2; }},
    };
    for (const Case& c : cases) {
        KepNightOptions o = defaults(KEP_MERGE_ROBUST);
        int count = static_cast<int>(burst.frames.size()), width = burst.width, height = burst.height, overlap = 0;
        c.change(o, count, width, height, overlap);
        std::vector<std::vector<short>> frames = burst.frames;
        std::vector<short*> pointers;
        for (auto& f : frames) pointers.push_back(f.data());
        std::vector<uint16_t> output(frames[0].size(), 7);
        uint16_t* out = output.data();
        if (overlap == 1) out = reinterpret_cast<uint16_t*>(pointers[3]);
        if (overlap == 2) pointers[4] = pointers[3];
        KepNightResult r;
        r.structSize = sizeof(r);
        r.usableFrames = -5;
        EXPECT_EQ(kepNightProcess(pointers.data(), count, width, height, &o, out, &r), c.expected) << c.what;
        EXPECT_EQ(frames, burst.frames) << c.what;
        EXPECT_EQ(output, std::vector<uint16_t>(frames[0].size(), 7)) << c.what;
        EXPECT_EQ(r.usableFrames, -5) << c.what;
        EXPECT_STRNE(kepNightStatusText(c.expected), "unknown status") << c.what;
    }
    KepNightOptions o = defaults();
    KepNightResult r;
    r.structSize = sizeof(r);
    EXPECT_EQ(kepNightProcess(nullptr, 8, 640, 480, &o, nullptr, &r), KEP_NIGHT_NULL_ARGUMENT);
    EXPECT_EQ(kepNightProcess(nullptr, 8, 640, 480, nullptr, nullptr, nullptr), KEP_NIGHT_NULL_ARGUMENT);
}

TEST(NightProcess, MeanModeIsTheNightEntry) {
    struct Case {
        int pattern;
        float gain;  // 2.5 brightens past 32767 where the entry wraps around
    };
    for (const Case& c : {Case{0, 1.0f}, Case{2, 2.5f}}) {
        pipeline_inputs::NightParams p;
        p.bayerPattern = c.pattern;
        p.gain = c.gain;
        std::srand(1);
        const pipeline_inputs::NightResult expected = pipeline_inputs::runNight(shakenBurst(), p);
        KepNightOptions o = defaults();
        o.bayerPattern = c.pattern;
        o.gain = c.gain;
        std::srand(1);
        pipeline_inputs::NightProcessResult got = pipeline_inputs::runNightProcess(shakenBurst(), o);
        std::srand(1);
        const pipeline_inputs::NightResult again = pipeline_inputs::runNight(shakenBurst(), p);
        ASSERT_EQ(got.status, KEP_NIGHT_OK);
        ASSERT_EQ(again, expected) << "the entry itself is reproducible with the same rand() sequence";
        std::vector<short> output(got.output.begin(), got.output.end());
        EXPECT_EQ(output, expected.output) << "pattern " << c.pattern;
        EXPECT_EQ(got.frames, expected.frames);
        EXPECT_EQ(got.result.usableFrames, expected.usable);
        EXPECT_EQ(got.result.validTop, expected.zoom.top);
        EXPECT_EQ(got.result.validRight, expected.zoom.right);
        EXPECT_EQ(got.result.featurePoints, expected.zoom.pointCount);
        const std::vector<int> outcomes(got.result.frameOutcome, got.result.frameOutcome + 7);
        EXPECT_EQ(outcomes, (std::vector<int>{KEP_FRAME_ALIGNED_SHORT, KEP_FRAME_ALIGNED_SHORT, KEP_FRAME_REFERENCE,
                                              KEP_FRAME_MERGED, KEP_FRAME_MERGED, KEP_FRAME_MERGED, KEP_FRAME_MERGED}));
    }
}

TEST(NightProcess, DeeperOutputsKeepTheMergeAndScaleTheBlackLevel) {
    for (int mode : {KEP_MERGE_MEAN, KEP_MERGE_ROBUST}) {
        KepNightOptions o = defaults(mode);
        std::srand(1);
        const auto ten = pipeline_inputs::runNightProcess(shakenBurst(), o);
        o.outputBits = 16;
        std::srand(1);
        const auto sixteen = pipeline_inputs::runNightProcess(shakenBurst(), o);
        ASSERT_EQ(ten.status, KEP_NIGHT_OK);
        ASSERT_EQ(sixteen.status, KEP_NIGHT_OK);
        EXPECT_EQ(ten.frames, sixteen.frames) << "mode " << mode;
        int far = 0;
        for (size_t i = 0; i < ten.output.size(); ++i) far += std::abs(sixteen.output[i] / 64.0 - ten.output[i]) > 1.0;
        EXPECT_EQ(far, 0) << "mode " << mode;
        if (mode == KEP_MERGE_MEAN) {
            EXPECT_EQ(sixteen.output[0], 64 * 64) << "the border holds the scaled pedestal";
        }
    }
}

TEST(NightProcess, AlignOnlyLeavesTheOutputAndHandsBackAlignedFrames) {
    for (int mode : {KEP_MERGE_MEAN, KEP_MERGE_ROBUST}) {
        KepNightOptions o = defaults(mode);
        o.alignOnly = 1;
        const auto r = pipeline_inputs::runNightProcess(shakenBurst(), o);
        ASSERT_EQ(r.status, KEP_NIGHT_OK);
        EXPECT_EQ(r.output, std::vector<uint16_t>(r.output.size(), 0)) << "mode " << mode;
        EXPECT_EQ(r.frames[2], shakenBurst().frames[2]);
        EXPECT_NE(r.frames[3], shakenBurst().frames[3]);
    }
}

TEST(NightProcess, FallsBackToTheReferenceAtTheOutputDepth) {
    KepNightOptions o = defaults(KEP_MERGE_ROBUST);
    o.minFeatureCount = 100000;
    o.outputBits = 12;
    const auto r = pipeline_inputs::runNightProcess(shakenBurst(), o);
    ASSERT_EQ(r.status, KEP_NIGHT_OK);
    EXPECT_EQ(r.result.usableFrames, 1);
    EXPECT_EQ(r.result.frameOutcome[4], KEP_FRAME_NOT_ALIGNED);
    EXPECT_EQ(r.frames, shakenBurst().frames);
    for (size_t i = 0; i < r.output.size(); i += 97) ASSERT_EQ(r.output[i], 4 * shakenBurst().frames[2][i]);
}

TEST(NightProcess, RobustMergeOfIdenticalFramesIsTheFrame) {
    NightBurst burst = pipeline_inputs::makeNightBurst(320, 256, 5, std::vector<pipeline_inputs::Shift>(6, {0, 0}));
    KepNightOptions o = defaults(KEP_MERGE_ROBUST);
    o.minFeatureCount = 8;
    o.outputBits = 14;
    const auto r = pipeline_inputs::runNightProcess(burst, o);
    ASSERT_EQ(r.status, KEP_NIGHT_OK);
    ASSERT_EQ(r.result.usableFrames, 4);
    for (size_t i = 0; i < r.output.size(); ++i) ASSERT_EQ(r.output[i], 16 * burst.frames[2][i]) << i;
    for (int k = 3; k < 6; ++k) EXPECT_EQ(r.result.frameWeight[k], 1.0f);
    EXPECT_EQ(r.result.rejectedFraction, 0.0f);
}

// The robust merge against the mean and the reference alone, per region, on a
// burst with a subject that moves on its own.
TEST(NightProcess, RobustMergeKeepsAMovingSubjectWithoutGhosts) {
    using namespace kep::synth;
    SceneBurstOptions so;
    so.scene = BurstScene::MovingSubject;
    so.width = 640;
    so.height = 480;
    const SceneBurst s = makeSceneBurst(so);
    NightBurst burst;
    burst.width = so.width;
    burst.height = so.height;
    burst.frames = s.burst.frames;
    std::vector<short> merged[2];
    for (int mode : {KEP_MERGE_MEAN, KEP_MERGE_ROBUST}) {
        KepNightOptions o = defaults(mode);
        std::srand(1);
        const auto r = pipeline_inputs::runNightProcess(burst, o);
        ASSERT_EQ(r.status, KEP_NIGHT_OK);
        ASSERT_EQ(r.result.usableFrames, 6);
        merged[mode].assign(r.output.begin(), r.output.end());
        if (mode == KEP_MERGE_ROBUST) {
            EXPECT_GT(r.result.rejectedFraction, 0.01f) << "the subject is rejected somewhere";
            EXPECT_EQ(r.result.noiseEstimated, 1);
        }
    }
    const short* clean = s.burst.clean.data();
    auto psnr = [&](const short* a, Region region) { return regionPsnr(a, clean, s.regions, region); };
    const short* reference = s.burst.frames[2].data();
    EXPECT_GE(psnr(merged[1].data(), kRegionSubject), psnr(reference, kRegionSubject) - 0.5);
    EXPECT_GE(psnr(merged[1].data(), kRegionGhost), psnr(reference, kRegionGhost) + 2.0);
    EXPECT_GE(psnr(merged[1].data(), kRegionStatic), psnr(merged[0].data(), kRegionStatic) - 0.3);
    EXPECT_GE(psnr(merged[1].data(), kRegionStatic), psnr(reference, kRegionStatic) + 6.0);
}

}  // namespace

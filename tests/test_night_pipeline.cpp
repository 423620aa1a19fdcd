#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "registration/nocturn_entry.h"
#include "synthetic_scene.h"

namespace {

using kep::synth::Burst;
using kep::synth::BurstOptions;
using kep::synth::Scene;

constexpr int kWidth = 640;
constexpr int kHeight = 480;

struct NightRun {
    std::vector<short> output;
    std::vector<std::vector<short>> frames;  // the frames as the library left them
    int usable = -1;
    USERZOOM zoom{-1, -1, -1, -1, -1};
};

struct NightParams {
    int minFeatures = 30;
    int alignOnly = 0;
    float gain = 1.0f;
    float sharpnessRatio = 0.5f;
};

NightRun runNight(const Burst& burst, const NightParams& p = {}, short outputFill = 0) {
    NightRun run;
    run.frames = burst.frames;
    std::vector<short*> ptrs;
    for (auto& f : run.frames) ptrs.push_back(f.data());
    run.output.assign(static_cast<size_t>(burst.width) * burst.height, outputFill);
    qnNocturnPreProcess(ptrs.data(), run.output.data(), static_cast<int>(ptrs.size()), &run.usable, burst.width,
                        burst.height, 1, p.minFeatures, p.alignOnly, &run.zoom, 0, 64, 64, 64, 0.0f, 0.0f, p.gain, 1.0f,
                        0.0f, p.sharpnessRatio);
    return run;
}

const Scene& testScene() {
    static const Scene scene(kWidth, kHeight, 11);
    return scene;
}

Burst testBurst(int frames, uint32_t seed, double maxShift = 6.0, double maxAngle = 0.0015) {
    BurstOptions o;
    o.width = kWidth;
    o.height = kHeight;
    o.frames = frames;
    o.seed = seed;
    o.maxShift = maxShift;
    o.maxAngle = maxAngle;
    return kep::synth::makeNightBurst(testScene(), o);
}

double psnrInside(const std::vector<short>& a, const std::vector<short>& b, const USERZOOM& z) {
    return kep::synth::psnr(a.data(), b.data(), kWidth, z.left, z.top, z.right, z.bottom);
}

TEST(NightPipeline, AlignsAndMergesALowLightBurst) {
    for (uint32_t seed : {5u, 17u}) {
        const Burst burst = testBurst(8, seed);
        const NightRun run = runNight(burst);
        SCOPED_TRACE(seed);
        EXPECT_EQ(run.usable, 6);  // every normal frame aligned and merged
        EXPECT_GE(run.zoom.pointCount, 30);

        // The valid area leaves at least the fixed safety margins and lies inside the frame.
        const USERZOOM& z = run.zoom;
        EXPECT_GE(z.top, 10);
        EXPECT_GE(z.left, 10);
        EXPECT_LE(z.right, kWidth - 14);
        EXPECT_LE(z.bottom, kHeight - 14);
        EXPECT_GT(z.right - z.left, kWidth / 2);
        EXPECT_GT(z.bottom - z.top, kHeight / 2);

        // Everything outside the valid area holds the pedestal.
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x)
                if (y < z.top || y >= z.bottom || x < z.left || x >= z.right) {
                    ASSERT_EQ(run.output[static_cast<size_t>(y) * kWidth + x], 64) << x << "," << y;
                }

        // Aligned normal frames match the clean reference to within their noise.
        const double referencePsnr = psnrInside(burst.frames[2], burst.clean, z);
        for (int k = 3; k < 8; ++k) EXPECT_GT(psnrInside(run.frames[k], burst.clean, z), referencePsnr - 1.5) << k;

        // The merge is measurably closer to the clean scene than the reference alone.
        const double mergedPsnr = psnrInside(run.output, burst.clean, z);
        RecordProperty("psnr_gain_db_x100", static_cast<int>((mergedPsnr - referencePsnr) * 100));
        EXPECT_GT(mergedPsnr, referencePsnr + 3.0) << "reference " << referencePsnr << " dB, merge " << mergedPsnr;
    }
}

TEST(NightPipeline, FallsBackToTheReference) {
    const Burst burst = testBurst(8, 5);
    // Too few feature points: no alignment at all, frames untouched.
    NightRun run = runNight(burst, NightParams{100000, 0, 1.0f, 0.5f});
    EXPECT_EQ(run.output, burst.frames[2]);
    EXPECT_EQ(run.usable, 1);
    EXPECT_EQ(run.zoom.top, 0);
    EXPECT_EQ(run.zoom.left, 0);
    EXPECT_EQ(run.zoom.right, kWidth - 1);
    EXPECT_EQ(run.zoom.bottom, kHeight - 1);
    EXPECT_GT(run.zoom.pointCount, 0);
    EXPECT_EQ(run.frames, burst.frames);

    // Three frames: only the reference can be merged.
    const Burst three = testBurst(3, 9);
    run = runNight(three);
    EXPECT_EQ(run.output, three.frames[2]);
    EXPECT_EQ(run.usable, 1);
    EXPECT_EQ(run.zoom.right, kWidth - 1);
    EXPECT_EQ(run.frames, three.frames);
}

TEST(NightPipeline, FailedFeatureDetectionFallsBackEvenWithoutAMinimum) {
    // A frame only 12 rows high gives a guide too short for the response histogram,
    // so detection fails; with no minimum point count the driver must still fall
    // back instead of aligning against a grid that was never built.
    const int width = 640, height = 12;
    std::vector<short> frame(static_cast<size_t>(width) * height);
    for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<short>(64 + (i * 37) % 300);
    Burst burst;
    burst.width = width;
    burst.height = height;
    burst.frames.assign(5, frame);  // equally sharp: none is screened out
    testing::internal::CaptureStdout();
    const NightRun run = runNight(burst, NightParams{0, 0, 1.0f, 0.0f});
    EXPECT_NE(testing::internal::GetCapturedStdout().find("DoG histogram error"), std::string::npos);
    EXPECT_EQ(run.usable, 1);
    EXPECT_EQ(run.zoom.pointCount, 0);
    EXPECT_EQ(run.zoom.right, width - 1);
    EXPECT_EQ(run.zoom.bottom, height - 1);
    EXPECT_EQ(run.output, frame);
}

TEST(NightPipeline, AlignOnlyFillsZoomButLeavesTheOutput) {
    const Burst burst = testBurst(6, 23);
    const NightRun run = runNight(burst, NightParams{30, 1, 0.5f, 0.5f}, -5);
    EXPECT_EQ(run.usable, 4);
    EXPECT_GE(run.zoom.top, 10);
    // Frames were aligned and clamped, but nothing was averaged into the output,
    // and with gain below 1 the (untouched) work buffer is copied out as it was.
    EXPECT_EQ(run.output, std::vector<short>(run.output.size(), -5));
    EXPECT_NE(run.frames[3], burst.frames[3]);
}

TEST(NightPipeline, BlurredFrameIsLeftOutOfTheMerge) {
    Burst burst = testBurst(8, 31, 3.0, 0.0);
    // Frame 5 becomes a strong 9x9 box blur of itself, per Bayer site.
    std::vector<short>& f = burst.frames[5];
    const std::vector<short> original = f;
    for (int y = 8; y < kHeight - 8; ++y) {
        for (int x = 8; x < kWidth - 8; ++x) {
            int sum = 0;
            for (int dy = -8; dy <= 8; dy += 2)
                for (int dx = -8; dx <= 8; dx += 2) sum += original[static_cast<size_t>(y + dy) * kWidth + x + dx];
            f[static_cast<size_t>(y) * kWidth + x] = static_cast<short>(sum / 81);
        }
    }
    const NightRun run = runNight(burst, NightParams{30, 0, 1.0f, 0.9f});
    EXPECT_EQ(run.usable, 5);
    EXPECT_EQ(run.frames[5], burst.frames[5]);  // rejected before alignment: left untouched
}

}  // namespace

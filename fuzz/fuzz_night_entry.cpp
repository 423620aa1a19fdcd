// Night entry: fuzzer-chosen burst length, frame size within the contract (sides
// multiples of 4, width >= 400 so that the guide is at least 100 pixels wide),
// parameters (finite floats of any magnitude included) and frames. The frames are
// windows of a textured synthetic scene at fuzzer-chosen offsets, short exposures
// darker, plus fuzzer noise, so that registration gets past feature detection.
// Every buffer is exactly width x height samples.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "fuzz_support.h"
#include "registration/nocturn_entry.h"
#include "synthetic_scene.h"

namespace {

constexpr int kMaxWidth = 512, kMaxHeight = 96, kMaxOffset = 32;
constexpr int kSceneWidth = kMaxWidth + kMaxOffset + 2, kSceneHeight = kMaxHeight + kMaxOffset + 2;

const std::vector<short>& sceneRaw() {
    static const std::vector<short> raw = [] {
        const kep::synth::Scene scene(kSceneWidth, kSceneHeight, 7);
        return kep::synth::renderRaw(scene, kep::synth::Motion{}, kep::synth::RenderOptions{});
    }();
    return raw;
}

float consumeParameter(FuzzedDataProvider& fdp, float lo, float hi) {
    return fdp.ConsumeIntegralInRange<int>(0, 7) == 0 ? fdp.ConsumeFloatingPoint<float>()
                                                        : fdp.ConsumeFloatingPointInRange<float>(lo, hi);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider fdp(data, size);
    const int frameCount = fdp.ConsumeIntegralInRange<int>(3, 10);
    const int width = 400 + 4 * fdp.ConsumeIntegralInRange<int>(0, (kMaxWidth - 400) / 4);
    const int height = 4 * fdp.ConsumeIntegralInRange<int>(1, kMaxHeight / 4);
    const int grayGain = fdp.ConsumeIntegralInRange<int>(-2, 64);
    const int minFeatureCount = fdp.ConsumeIntegralInRange<int>(-10, 200);
    const int alignOnly = fdp.ConsumeBool() ? 1 : 0;
    const int bayerPattern = fdp.ConsumeIntegralInRange<int>(0, 7);
    int black[3];
    for (int& b : black) b = fdp.ConsumeIntegralInRange<int>(0, 128);
    const float gain = consumeParameter(fdp, 0.0f, 8.0f);
    const float alignTuning = consumeParameter(fdp, 0.0f, 3.0f);
    const float blurSelect = consumeParameter(fdp, 0.0f, 1000.0f);
    const float sharpnessRatio = consumeParameter(fdp, 0.0f, 1.5f);
    const int outputFrame = fdp.ConsumeIntegralInRange<int>(-3, frameCount - 1);  // < 0: separate buffer

    const std::vector<short>& scene = sceneRaw();
    const size_t samples = static_cast<size_t>(width) * height;
    std::vector<fuzz::TightBuffer<short>> frames;
    std::vector<short*> pointers;
    for (int k = 0; k < frameCount; ++k) {
        const int ox = fdp.ConsumeIntegralInRange<int>(0, kMaxOffset), oy = fdp.ConsumeIntegralInRange<int>(0, kMaxOffset);
        const bool halfStep = fdp.ConsumeBool();  // average with the window one sample to the right
        const int divisor = k == 0 ? 8 : k == 1 ? 4 : 1;
        frames.emplace_back(samples);
        short* f = frames.back().data();
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const short* s = &scene[static_cast<size_t>(y + oy) * kSceneWidth + x + ox];
                const int v = halfStep ? (s[0] + s[1] + 1) / 2 : s[0];
                f[static_cast<size_t>(y) * width + x] = static_cast<short>((v - 64) / divisor + 64);
            }
        pointers.push_back(f);
    }
    // Fuzzer noise over the frames, as many samples as there are bytes left.
    for (size_t i = 0; fdp.remaining_bytes() > 0; ++i) {
        const int noise = fdp.ConsumeIntegralInRange<int>(-16, 16);
        short& v = pointers[i % frameCount][(i * 7919) % samples];
        v = static_cast<short>(std::clamp(v + noise, 0, 1023));
    }

    fuzz::TightBuffer<short> separate(samples);
    short* output = outputFrame >= 0 ? pointers[static_cast<size_t>(outputFrame)] : separate.data();
    int usable = -1;
    USERZOOM zoom{-1, -1, -1, -1, -1};
    qnNocturnPreProcess(pointers.data(), output, frameCount, &usable, width, height, grayGain, minFeatureCount,
                        alignOnly, &zoom, bayerPattern, black[0], black[1], black[2], 0.0f, 0.0f, gain, alignTuning,
                        blurSelect, sharpnessRatio);

    FUZZ_CHECK(usable >= 1 && usable <= std::min(frameCount - 2, 16));
    FUZZ_CHECK(zoom.pointCount >= 0);
    // Aligned frames are written back clamped to the 10-bit range; untouched ones were in it.
    for (int k = 0; k < frameCount; ++k) {
        if (k == outputFrame) continue;
        for (size_t i = 0; i < samples; ++i) FUZZ_CHECK(pointers[k][i] >= 0 && pointers[k][i] <= 1023);
    }
    return 0;
}

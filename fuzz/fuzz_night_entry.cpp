// Night entries: qnNocturnPreProcess, or (inputs of odd length) kepNightProcess
// with fuzzer-chosen options, bad ones included (both merge modes, every output
// depth, noise models, workers, a weight map, a missing output). Fuzzer-chosen
// burst length, frame size within the contract (sides multiples of 4, width >= 400
// so that the guide is at least 100 pixels wide), parameters (finite floats of any
// magnitude included) and frames. The frames are
// windows of a textured synthetic scene at fuzzer-chosen offsets, short exposures
// darker, plus fuzzer noise, so that registration gets past feature detection.
// Every buffer is exactly width x height samples.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "fuzz_support.h"
#include "registration/night_process.h"
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
    const bool withOptions = size % 2 == 1;
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
    KepNightOptions options;
    kepNightDefaultOptions(&options);
    if (withOptions) {
        options.bayerPattern = fdp.ConsumeIntegralInRange<int>(-1, 4);
        for (int k = 0; k < 3; ++k) options.blackLevel[k] = black[k] - (fdp.ConsumeIntegralInRange<int>(0, 15) == 0 ? 200 : 0);
        options.grayGain = grayGain;
        options.minFeatureCount = minFeatureCount;
        options.alignOnly = alignOnly;
        options.gain = gain;
        options.alignTuning = alignTuning;
        options.blurSelect = blurSelect;
        options.sharpnessRatio = sharpnessRatio;
        options.mergeMode = fdp.ConsumeIntegralInRange<int>(-1, 2);
        const int depths[] = {10, 12, 14, 16, 9, 11};
        options.outputBits = depths[fdp.ConsumeIntegralInRange<int>(0, 5)];
        options.noiseGiven = fdp.ConsumeBool() ? 1 : 0;
        options.noiseA = consumeParameter(fdp, 0.0f, 8.0f);
        options.noiseB = consumeParameter(fdp, 0.0f, 64.0f);
        options.workers = fdp.ConsumeIntegralInRange<int>(0, 3);
        if (fdp.ConsumeIntegralInRange<int>(0, 15) == 0) options.structSize = 4;
    }
    const bool withMap = withOptions && fdp.ConsumeBool();
    const bool noOutput = withOptions && fdp.ConsumeIntegralInRange<int>(0, 15) == 0;

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
    if (withOptions) {
        std::vector<std::vector<short>> before;
        for (short* f : pointers) before.emplace_back(f, f + samples);
        fuzz::TightBuffer<uint16_t> output(samples);
        for (size_t i = 0; i < samples; ++i) output.data()[i] = 7;
        fuzz::TightBuffer<uint8_t> map(samples / 4);
        options.weightMap = withMap ? map.data() : nullptr;
        uint16_t* out = noOutput ? nullptr
                        : outputFrame >= 0 ? reinterpret_cast<uint16_t*>(pointers[static_cast<size_t>(outputFrame)])
                                           : output.data();
        KepNightResult result;
        result.structSize = sizeof(result);
        const int status = kepNightProcess(pointers.data(), frameCount, width, height, &options, out, &result);
        FUZZ_CHECK(status <= 0 && status >= KEP_NIGHT_OUTPUT_OVERLAPS);
        if (status != KEP_NIGHT_OK) {
            // Refused: nothing written.
            for (int k = 0; k < frameCount; ++k) FUZZ_CHECK(std::equal(before[k].begin(), before[k].end(), pointers[k]));
            for (size_t i = 0; i < samples; ++i) FUZZ_CHECK(output.data()[i] == 7);
            return 0;
        }
        FUZZ_CHECK(result.usableFrames >= 1 && result.usableFrames <= std::min(frameCount - 2, 16));
        FUZZ_CHECK(result.rejectedFraction >= 0.0f && result.rejectedFraction <= 1.0f);
        for (int k = 0; k < frameCount; ++k)
            for (size_t i = 0; i < samples; ++i) FUZZ_CHECK(pointers[k][i] >= 0 && pointers[k][i] <= 1023);
        const bool wraps = options.mergeMode == KEP_MERGE_MEAN && options.outputBits == 10;
        if (!wraps && !options.alignOnly)
            for (size_t i = 0; i < samples; ++i) FUZZ_CHECK(output.data()[i] < (1u << options.outputBits));
        return 0;
    }
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

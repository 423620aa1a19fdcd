// HDR entry: fuzzer-chosen small frame sizes (even sides from 2, which covers
// frames with fewer pyramid levels than the shallow depth and with no level at all;
// now and then any size, which the entry refuses without touching a buffer), gains,
// exposure ratio (finite floats of any magnitude included), pattern, black levels,
// frames, and the output aliasing an input. Every buffer is exactly width x height.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <vector>

#include "fuzz_support.h"
#include "hdr/hdr_process.h"

namespace {

float consumeParameter(FuzzedDataProvider& fdp, float lo, float hi) {
    return fdp.ConsumeIntegralInRange<int>(0, 7) == 0 ? fdp.ConsumeFloatingPoint<float>()
                                                        : fdp.ConsumeFloatingPointInRange<float>(lo, hi);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider fdp(data, size);
    const bool anySize = fdp.ConsumeIntegralInRange<int>(0, 15) == 0;
    const int width = anySize ? fdp.ConsumeIntegralInRange<int>(-2, 97) : 2 * fdp.ConsumeIntegralInRange<int>(1, 48);
    const int height = anySize ? fdp.ConsumeIntegralInRange<int>(-2, 67) : 2 * fdp.ConsumeIntegralInRange<int>(1, 32);
    const float redGain = consumeParameter(fdp, 0.25f, 4.0f);
    const float blueGain = consumeParameter(fdp, 0.25f, 4.0f);
    const float exposureRatio = consumeParameter(fdp, 0.5f, 16.0f);
    const int bayerPattern = fdp.ConsumeIntegralInRange<int>(0, 3);
    int blackLevels[4];
    const bool wideBlack = fdp.ConsumeIntegralInRange<int>(0, 7) == 0;
    for (int& b : blackLevels) b = wideBlack ? fdp.ConsumeIntegralInRange<int>(-64, 1100) : fdp.ConsumeIntegralInRange<int>(0, 128);
    const int outputChoice = fdp.ConsumeIntegralInRange<int>(0, 5);  // 0..2 alias frame A, B, C

    const bool supported = width > 0 && height > 0 && width % 2 == 0 && height % 2 == 0;
    const size_t samples = width > 0 && height > 0 ? static_cast<size_t>(width) * height : 0;
    fuzz::TightBuffer<short> frames[3] = {fuzz::TightBuffer<short>(samples), fuzz::TightBuffer<short>(samples),
                                          fuzz::TightBuffer<short>(samples)};
    // Frame content: a fuzzer-seeded smooth ramp with fuzzer bytes on top, 10-bit.
    const int base = fdp.ConsumeIntegralInRange<int>(0, 1023), slope = fdp.ConsumeIntegralInRange<int>(-40, 40);
    for (int k = 0; k < 3; ++k)
        for (size_t i = 0; i < samples; ++i) {
            const int x = static_cast<int>(i % static_cast<size_t>(width)), y = static_cast<int>(i / static_cast<size_t>(width));
            const int v = (base + slope * (x + y)) * (k + 1) + (fdp.remaining_bytes() > 0 ? fdp.ConsumeIntegral<int8_t>() : 0);
            frames[k][i] = static_cast<short>(((v % 1024) + 1024) % 1024);
        }
    fuzz::TightBuffer<short> separate(samples);
    short* output = outputChoice < 3 ? frames[outputChoice].data() : separate.data();
    for (size_t i = 0; i < samples; ++i) separate[i] = 0x5A5A;
    const std::vector<short> before(frames[0].data(), frames[0].data() + samples);

    hdrProcess(frames[0].data(), frames[1].data(), frames[2].data(), output, redGain, blueGain, width, height,
               exposureRatio, bayerPattern, blackLevels);

    if (!supported) {
        for (size_t i = 0; i < samples; ++i) FUZZ_CHECK(frames[0][i] == before[i] && separate[i] == 0x5A5A);
    }
    return 0;
}

#include "registration/nocturn_entry.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "registration/black_level.h"
#include "registration/frame_registration.h"

namespace {

bool outputIsAFrame(short** frames, int frameCount, const short* output) {
    for (int i = 0; i < frameCount; ++i)
        if (frames[i] == output) return true;
    return false;
}

}  // namespace

extern "C" void qnNocturnPreProcess(short** frames, short* output, int frameCount, int* usableFrameCount, int width,
                                    int height, int grayGain, int minFeatureCount, int alignOnly, USERZOOM* zoom,
                                    int bayerPattern, int blackLevelR, int blackLevelG, int blackLevelB,
                                    float /*ignored0*/, float /*ignored1*/, float gain, float alignTuning,
                                    float blurSelect, float sharpnessRatio) {
    const long long samples = static_cast<long long>(width) * height;

    // The driver reads the reference throughout registration, so when the output
    // is one of the frames the merge goes into a temporary first.
    std::unique_ptr<short[]> temporary;
    short* work = output;
    if (frameCount >= 1 && outputIsAFrame(frames, frameCount, output)) {
        if (samples < 0 || samples * 2 > static_cast<long long>(PTRDIFF_MAX)) throw std::bad_alloc();
        temporary.reset(new short[static_cast<size_t>(samples)]);
        work = temporary.get();
    }

    // The single green level serves both the first-row and the second-row green.
    int blackLevelOrder[4] = {0, 0, 0, 0};
    getBayerBLCorder(blackLevelOrder, bayerPattern, blackLevelR, blackLevelG, blackLevelG, blackLevelB);

    qnFrameRegistration(frames, work, frameCount, usableFrameCount, width, height, grayGain, minFeatureCount, alignOnly,
                        zoom, alignTuning, blurSelect, sharpnessRatio, blackLevelOrder);

    if (gain >= 1.0f) {
        enlightenOutput(work, output, gain, width, height, blackLevelOrder);
    } else if (samples > 0 && work != output) {
        std::memcpy(output, work, static_cast<size_t>(samples) * sizeof(short));
    }
}

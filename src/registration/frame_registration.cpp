#include "registration/frame_registration.h"

#include <algorithm>
#include <cstring>

#include "diagnostics/platform_log.h"
#include "registration/frame_average.h"

namespace {

constexpr int kReferenceIndex = 2;
constexpr int kMaxMergedFrames = 16;

void setFullFrameZoom(USERZOOM* zoom, int width, int height) {
    zoom->top = 0;
    zoom->left = 0;
    zoom->right = width - 1;
    zoom->bottom = height - 1;
}

}  // namespace

void qnFrameRegistration(short** frames, short* output, int frameCount, int* usableFrameCount, int width,
                         int height, int /*grayGain*/, int minFeatureCount, int alignOnly, USERZOOM* zoom,
                         float /*alignTuning*/, float /*blurSelect*/, float /*sharpnessRatio*/,
                         int* /*blackLevelOrder*/) {
    logInfo("nocturn : enter frame registration");

    // No feature detection yet: the point count is 0, so any positive minimum
    // falls back to the reference. Otherwise frames are merged as they are, taken
    // as already aligned.
    const int pointCount = 0;
    const short* mergeList[kMaxMergedFrames] = {};
    int mergeCount = 0;
    for (int i = kReferenceIndex; i < frameCount && mergeCount < kMaxMergedFrames; ++i) mergeList[mergeCount++] = frames[i];
    *usableFrameCount = mergeCount;
    zoom->pointCount = pointCount;
    setFullFrameZoom(zoom, width, height);
    if (pointCount < minFeatureCount || mergeCount <= 1) {
        *usableFrameCount = 1;
        std::memcpy(output, frames[kReferenceIndex], static_cast<size_t>(width) * height * sizeof(short));
    } else if (!alignOnly) {
        frameAverage(mergeList, output, width, height, mergeCount);
    }

    logInfo("nocturn : exit frame registration");
}

#pragma once

#include "imgcore/kep_export.h"
#include "imgcore/types.h"

// Registration driver of the low-light path: aligns the burst onto frame 2 (the
// reference), writes the aligned frames back over the caller's frames, averages
// the usable frames into `output` and reports the valid area and the feature
// count in `zoom`. Falls back to the reference frame when registration is not
// worth doing. `blackLevelOrder` is the four-entry quad-order table.
KEP_API void qnFrameRegistration(short** frames, short* output, int frameCount, int* usableFrameCount, int width,
                                 int height, int grayGain, int minFeatureCount, int alignOnly, USERZOOM* zoom,
                                 float alignTuning, float blurSelect, float sharpnessRatio, int* blackLevelOrder);

namespace registration_detail {
// The alignment's inlier distance limit for a tuning value: 1.0 up to a tuning of
// 1, falling linearly to 0.1 at 2 and staying there (NaN included).
double inlierLimitFor(float alignTuning);

// What became of a frame; the values are those of the public KepFrameOutcome.
constexpr int kOutcomeReference = 0;
constexpr int kOutcomeMerged = 1;
constexpr int kOutcomeAlignedShort = 2;
constexpr int kOutcomeRejectedBlur = 3;
constexpr int kOutcomeRejectedAlignment = 4;
constexpr int kOutcomeNotAligned = 5;

// qnFrameRegistration, which also writes each frame's outcome into
// outcomes[frameCount] when outcomes is given. With alignOnly, output may be null
// (the reference is then not copied anywhere when registration falls back).
void registerBurst(short** frames, short* output, int frameCount, int* usableFrameCount, int width, int height,
                   int grayGain, int minFeatureCount, int alignOnly, USERZOOM* zoom, float alignTuning,
                   float blurSelect, float sharpnessRatio, int* blackLevelOrder, int* outcomes);
}  // namespace registration_detail

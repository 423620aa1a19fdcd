#pragma once

#include "imgcore/kep_export.h"
#include "imgcore/types.h"

// The C-linkage entry of the low-light multi-frame path.
//
// frames[frameCount]: the burst; frames 0 and 1 are short exposures, frame 2 the
//   reference, 3 and up further normal frames (3 to 18 frames). Every frame the
//   driver aligns is overwritten with its aligned version.
// output: receives the merged frame (may be one of the frames: the merge then goes
//   through a temporary). usableFrameCount: frames of index 2 and up merged.
// zoom: valid area of the merge and the reference's feature count.
// bayerPattern: 0 RGGB, 1 BGGR, 2 GRBG, anything else GBRG.
// The two floats after blackLevelB are accepted and ignored. gain >= 1.0
// brightens the merge about the black level; otherwise it is copied.
extern "C" KEP_API void qnNocturnPreProcess(short** frames, short* output, int frameCount, int* usableFrameCount,
                                            int width, int height, int grayGain, int minFeatureCount, int alignOnly,
                                            USERZOOM* zoom, int bayerPattern, int blackLevelR, int blackLevelG,
                                            int blackLevelB, float ignored0, float ignored1, float gain,
                                            float alignTuning, float blurSelect, float sharpnessRatio);

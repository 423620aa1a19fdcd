#pragma once

#include <string>
#include <vector>

#include "imgcore/types.h"

// What became of each frame of a burst after the night entry, told from what the
// library hands back: the frames it overwrote with their aligned versions, the
// merged frame, the usable-frame count and the valid area.
namespace kepraw {

enum class FrameOutcome {
    Reference,          // frame 2
    Merged,             // aligned and averaged into the result
    AlignedShort,       // frames 0 and 1: aligned and handed back, never averaged
    RejectedAlignment,  // aligned data written back, left out of the merge
    RejectedBlur,       // left untouched while the others were aligned: not sharp enough
    NotAligned,         // registration fell back before aligning anything
    Aligned,            // aligned; whether it was merged could not be told
};

const char* outcomeCode(FrameOutcome outcome);  // "merged", "rejected-alignment", ...
const char* outcomeText(FrameOutcome outcome);  // "merged", "rejected: alignment failed", ...

struct NightAnalysis {
    std::vector<FrameOutcome> outcomes;
    bool fellBack = false;  // the reference came back as the result
    std::string fallbackReason;
    bool mergeIdentified = false;
};

struct NightCall {
    const std::vector<std::vector<short>>* before;  // the frames handed to the library
    const std::vector<std::vector<short>>* after;   // the same buffers after the call
    const short* output;
    int width;
    int height;
    int usable;
    USERZOOM zoom;
    int minFeatureCount;
    float gain;
    int siteBlack[4];  // the entry's quad-order black table
};

// The merged frames are identified by recomputing the rounded-up mean of the
// candidate subsets over the valid area (and the brightening when gain >= 1) and
// keeping the one that reproduces the output exactly.
NightAnalysis analyseNightResult(const NightCall& call);

}  // namespace kepraw

#pragma once

#include <vector>

#include "registration/burst_analysis.h"
#include "registration/tile_motion.h"

// Alignment of the robust night merge: the per-cell models of every frame still in
// use (the same estimation, in the same order, as the mean path's alignment),
// turned into tile fields and refined for the normal frames.
namespace registration_detail {

struct RobustAlignment {
    std::vector<TileField> fields;  // per frame; empty where the frame is not aligned
    std::vector<char> aligned;      // per frame
    std::vector<TileField> cellFields;  // per frame: the fields of the cell models alone
    long long refinedTiles = 0, refinableTiles = 0;
};

// usable: frames of index 2 and up still in use; decremented for every normal
// frame whose estimation fails. The refinements run on up to `workers` threads.
RobustAlignment alignBurstRobust(short** frames, int frameCount, int width, int height, BurstAnalysis& analysis,
                                 float alignTuning, int* usable, int workers = 1);

}  // namespace registration_detail

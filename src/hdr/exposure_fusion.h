#pragma once

#include <vector>

#include "imgcore/kep_export.h"
#include "imgcore/simd_dispatch.h"

// Multi-scale exposure fusion: every frame of the bracket contributes its
// Laplacian pyramid, weighted level by level by the Gaussian pyramid of its
// weight map (1023 = 1.0), to two caller-owned accumulator pyramids at once, a
// full-depth one of `levelCount` levels and a shallow one of `shallowLevelCount`
// levels whose coarsest level is the frame's low-pass image at that depth.
//
// Contributions are truncated as they are added, so the order is part of the
// result: frames in list order, levels in increasing order, the shallow pyramid
// before the full one for each frame. Every level is accumulated by four
// workers on row stripes, joined before the next level.

// `levelSizes` holds {height, width} per level, level 0 the frame size; both
// accumulator pyramids must hold zero-filled levels of those sizes. Each frame
// buffer is used as level 0 of its own Laplacian pyramid and holds that finest
// band on return. `redGain`, `blueGain` and `whiteLevel` are not used.
//
// Depths outside the useful range: nothing is done for frameCount < 1 or
// levelCount < 1; the shallow depth is capped at levelCount (the shallow pyramid
// then equals the full one); with a shallow depth of 1 its only level is the
// weighted sum of the frames themselves; a shallow depth below 1 leaves the
// shallow pyramid untouched.
KEP_API void exposureFusion(std::vector<unsigned short*>* weights, std::vector<short*>* frames,
                            std::vector<short*>* fullPyramid, std::vector<short*>* shallowPyramid,
                            std::vector<int*>* levelSizes, int height, int width, float redGain, float blueGain,
                            int frameCount, int levelCount, int shallowLevelCount, float laplacianGain0,
                            float laplacianGain1, int laplacianGainMaxLevel, int whiteLevel);

// Worker body: accumulator = trunc((weight / 1023.0f) * laplacian + accumulator)
// in single precision, stored as the low 16 bits, over rows [rowStart, rowEnd)
// of a level `width` samples wide.
KEP_API void fusion(short* laplacian, unsigned short* weight, short* accumulator, int rowStart, int rowEnd,
                    int width);

// Internal pieces (not exported).
namespace exposure_fusion_detail {

// Plain definition of exposureFusion: frame after frame, the weight's Gaussian
// pyramid, the frame's Laplacian pyramid (the pyramid functions), then every level
// accumulated into the shallow and then the full pyramid on four workers.
void exposureFusionPlain(std::vector<unsigned short*>* weights, std::vector<short*>* frames,
                         std::vector<short*>* fullPyramid, std::vector<short*>* shallowPyramid,
                         std::vector<int*>* levelSizes, int height, int width, int frameCount, int levelCount,
                         int shallowLevelCount, float laplacianGain0, float laplacianGain1,
                         int laplacianGainMaxLevel);

// Fast path of exposureFusion in the compilation `isa` where it applies (even frame
// sides, level sizes that follow the halving rule from the frame size, levels of at
// least 2 x 2 below the finest), else the plain definition: the frame's Gaussian
// pyramids first, then each level differenced, gained and accumulated into both
// pyramids in one pass on four workers. One more promise from the caller is
// possible: when accumulatorsStartAtZero is set and exposureFusionSkipsZeroFill
// holds for the sizes, the accumulator pyramids need not be cleared beforehand (the
// first frame's contributions are stored instead of added to zeros, which gives the
// same values). Otherwise the pyramids must be zero-filled as for exposureFusion.
bool exposureFusionSkipsZeroFill(std::vector<int*>* levelSizes, int height, int width, int levelCount);
void exposureFusionInto(std::vector<unsigned short*>* weights, std::vector<short*>* frames,
                        std::vector<short*>* fullPyramid, std::vector<short*>* shallowPyramid,
                        std::vector<int*>* levelSizes, int height, int width, int frameCount, int levelCount,
                        int shallowLevelCount, float laplacianGain0, float laplacianGain1,
                        int laplacianGainMaxLevel, bool accumulatorsStartAtZero, KernelIsa isa);

}  // namespace exposure_fusion_detail

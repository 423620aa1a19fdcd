#include "hdr/exposure_fusion.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <vector>

#include "hdr/pyramid.h"
#include "imgcore/row_stripes.h"

namespace {

size_t levelArea(std::vector<int*>* levelSizes, int level) {
    const int* size = (*levelSizes)[level];
    return static_cast<size_t>(std::max(size[0], 0)) * static_cast<size_t>(std::max(size[1], 0));
}

// Adds one source level, weighted, into an accumulator level on four stripes.
void accumulateLevel(short* source, unsigned short* weight, short* accumulator, const int* size) {
    const int levelHeight = size[0];
    const int levelWidth = size[1];
    runOnFourStripes(levelHeight, [&](int rowStart, int rowEnd) {
        fusion(source, weight, accumulator, rowStart, rowEnd, levelWidth);
    });
}

}  // namespace

void fusion(short* laplacian, unsigned short* weight, short* accumulator, int rowStart, int rowEnd, int width) {
    if (rowEnd <= rowStart || width <= 0) return;
    const ptrdiff_t begin = static_cast<ptrdiff_t>(rowStart) * width;
    const ptrdiff_t end = static_cast<ptrdiff_t>(rowEnd) * width;
    for (ptrdiff_t p = begin; p < end; ++p) {
        // |value| <= 65535 / 1023 * 32768 + 32768, well inside the int range.
        const float value = (static_cast<float>(weight[p]) / 1023.0f) * static_cast<float>(laplacian[p]) +
                            static_cast<float>(accumulator[p]);
        accumulator[p] = static_cast<short>(static_cast<int>(value));
    }
}

void exposureFusion(std::vector<unsigned short*>* weights, std::vector<short*>* frames,
                    std::vector<short*>* fullPyramid, std::vector<short*>* shallowPyramid,
                    std::vector<int*>* levelSizes, int height, int width, float /*redGain*/, float /*blueGain*/,
                    int frameCount, int levelCount, int shallowLevelCount, float laplacianGain0,
                    float laplacianGain1, int laplacianGainMaxLevel, int /*whiteLevel*/) {
    if (frameCount < 1 || levelCount < 1) return;
    // The shallow pyramid cannot be deeper than the full one: at the full depth
    // its residual is the full pyramid's coarsest level and both pyramids agree.
    const int shallowLevels = std::max(std::min(shallowLevelCount, levelCount), 0);

    for (int k = 0; k < frameCount; ++k) {
        // Per-frame pyramids: level 0 is the frame's own weight map and frame
        // buffer, the coarser levels are private and zero-filled.
        std::vector<std::unique_ptr<unsigned short[]>> weightLevels(static_cast<size_t>(levelCount));
        std::vector<std::unique_ptr<short[]>> frameLevels(static_cast<size_t>(levelCount));
        std::vector<unsigned short*> weightPyramid(static_cast<size_t>(levelCount));
        std::vector<short*> framePyramid(static_cast<size_t>(levelCount));
        weightPyramid[0] = (*weights)[k];
        framePyramid[0] = (*frames)[k];
        for (int i = 1; i < levelCount; ++i) {
            const size_t area = levelArea(levelSizes, i);
            weightLevels[i].reset(new unsigned short[area]());
            frameLevels[i].reset(new short[area]());
            weightPyramid[i] = weightLevels[i].get();
            framePyramid[i] = frameLevels[i].get();
        }

        // The low-pass image at the shallow depth. The Laplacian construction
        // fills it for depths of 2 and more; at depth 1 it is the frame itself.
        std::unique_ptr<short[]> shallowResidual;
        if (shallowLevels >= 1) {
            const size_t area = levelArea(levelSizes, shallowLevels - 1);
            shallowResidual.reset(new short[area]);
            if (shallowLevels == 1) std::memcpy(shallowResidual.get(), (*frames)[k], area * sizeof(short));
        }

        gaussianPyramid((*weights)[k], &weightPyramid, width, height, levelCount, k);
        laplacianPyramid((*frames)[k], &framePyramid, shallowResidual.get(), width, height, levelCount,
                         shallowLevels, laplacianGain0, laplacianGain1, laplacianGainMaxLevel);

        for (int i = 0; i < shallowLevels; ++i) {
            short* source = i == shallowLevels - 1 ? shallowResidual.get() : framePyramid[i];
            accumulateLevel(source, weightPyramid[i], (*shallowPyramid)[i], (*levelSizes)[i]);
        }
        for (int i = 0; i < levelCount; ++i)
            accumulateLevel(framePyramid[i], weightPyramid[i], (*fullPyramid)[i], (*levelSizes)[i]);
    }
}

#include "hdr/exposure_fusion.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <vector>

#include "hdr/pyramid.h"
#include "hdr/pyramid_rows.h"
#include "imgcore/fast_paths.h"
#include "imgcore/row_stripes.h"
#include "imgcore/simd_dispatch.h"

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

// One weighted contribution added into two accumulators at once: each receives
// exactly the value fusion() would add (same expression, same order), the
// coefficient and its weight are read once. With Start set the accumulators are
// known to hold zeros and are not read: c + 0.0f is c for every finite c (and
// -0.0f + 0.0f truncates to the same 0), so the stored values are the same.
template <bool Start>
KEP_KERNEL_BODY void fuseRowTwice(const short* laplacian, const unsigned short* weight, short* first, short* second,
                                  int n) {
    for (int x = 0; x < n; ++x) {
        const float c = (static_cast<float>(weight[x]) / 1023.0f) * static_cast<float>(laplacian[x]);
        if (Start) {
            first[x] = second[x] = static_cast<short>(static_cast<int>(c));
        } else {
            first[x] = static_cast<short>(static_cast<int>(c + static_cast<float>(first[x])));
            second[x] = static_cast<short>(static_cast<int>(c + static_cast<float>(second[x])));
        }
    }
}

template <bool Start>
KEP_KERNEL_BODY void fuseRow(const short* laplacian, const unsigned short* weight, short* accumulator, int n) {
    for (int x = 0; x < n; ++x) {
        const float c = (static_cast<float>(weight[x]) / 1023.0f) * static_cast<float>(laplacian[x]);
        accumulator[x] = static_cast<short>(static_cast<int>(Start ? c : c + static_cast<float>(accumulator[x])));
    }
}

// The level sizes must follow the halving rule from the frame size, as the pyramid
// functions compute them.
bool levelSizesFollowHalving(std::vector<int*>* levelSizes, int height, int width, int levelCount) {
    if (levelSizes == nullptr || static_cast<int>(levelSizes->size()) < levelCount) return false;
    int h = height, w = width;
    for (int i = 0; i < levelCount; ++i) {
        if ((*levelSizes)[i][0] != h || (*levelSizes)[i][1] != w) return false;
        h = halvedLevelSide(h);
        w = halvedLevelSide(w);
    }
    return true;
}

// What one level of one frame adds to the fused pyramids.
struct LevelJob {
    short* level;                // Gaussian level on entry, Laplacian level on return
    int h, w;
    const short* next;           // the next Gaussian level, or null for the coarsest level
    int hn, wn;
    const unsigned short* weight;
    short* full;
    short* shallow;              // null when the shallow pyramid is not this deep
    bool shallowTakesLowPass;    // the shallow pyramid's coarsest level: the Gaussian, before differencing
    int levelIndex;
    float gain0, gain1;
    int gainMaxLevel;
    bool start;                  // first frame onto accumulators known to be zero
    KernelIsa isa;
};

// Quad rows [quadStart, quadEnd) of one level, in one pass: the shallow low-pass
// contribution, the difference with the up-sampled next level, the detail gains of
// the quad row, then the contributions to both pyramids. Every sample receives the
// operations of the plain order (Laplacian construction, then shallow before full).
KEP_KERNEL_BODY void fuseQuadRowsBody(const LevelJob& job, int quadStart, int quadEnd) {
    if (quadEnd <= quadStart) return;
    const int w = job.w;
    std::unique_ptr<pyramid_rows::UpSampledRows> up;
    if (job.next != nullptr)
        up.reset(new pyramid_rows::UpSampledRows(job.next, job.hn, job.wn, 2 * static_cast<std::ptrdiff_t>(job.wn),
                                                 job.h - 2 * job.hn, w - 2 * job.wn, job.isa));
    std::vector<short> upRow(static_cast<std::size_t>(w));
    for (int q = quadStart; q < quadEnd; ++q) {
        const std::size_t quadOffset = static_cast<std::size_t>(2 * q) * w;
        short* rows = job.level + quadOffset;
        if (job.shallow != nullptr && job.shallowTakesLowPass)
            for (int r = 0; r < 2; ++r) {
                const std::size_t offset = quadOffset + static_cast<std::size_t>(r) * w;
                if (job.start)
                    fuseRow<true>(rows + r * w, job.weight + offset, job.shallow + offset, w);
                else
                    fuseRow<false>(rows + r * w, job.weight + offset, job.shallow + offset, w);
            }
        if (up) {
            for (int r = 0; r < 2; ++r) {
                up->row(2 * q + r, upRow.data());
                short* row = rows + r * w;
                for (int x = 0; x < w; ++x) row[x] = static_cast<short>(row[x] - upRow[x]);
            }
            applyDetailGains(rows, 2, w, job.levelIndex, job.gain0, job.gain1, job.gainMaxLevel);
        }
        for (int r = 0; r < 2; ++r) {
            const std::size_t offset = quadOffset + static_cast<std::size_t>(r) * w;
            const bool both = job.shallow != nullptr && !job.shallowTakesLowPass;
            if (both && job.start)
                fuseRowTwice<true>(rows + r * w, job.weight + offset, job.full + offset, job.shallow + offset, w);
            else if (both)
                fuseRowTwice<false>(rows + r * w, job.weight + offset, job.full + offset, job.shallow + offset, w);
            else if (job.start)
                fuseRow<true>(rows + r * w, job.weight + offset, job.full + offset, w);
            else
                fuseRow<false>(rows + r * w, job.weight + offset, job.full + offset, w);
        }
    }
}

KEP_ROW_KERNEL(fuseQuadRows, (const LevelJob& job, int quadStart, int quadEnd), (job, quadStart, quadEnd))

// Fast path of exposureFusion: the frame's Gaussian pyramids are built first (the
// down-sampling reads each level before it is differenced, as in the plain
// order), then every level is differenced, gained and accumulated in one pass on
// four workers. Per-frame levels are allocated once and reused frame after frame.
// Requires even frame sides, level sizes that follow the halving rule and a
// separable up-sampling at every level but the coarsest.
bool fusedPyramidsApply(std::vector<int*>* levelSizes, int height, int width, int levelCount) {
    if (height % 2 != 0 || width % 2 != 0 || !levelSizesFollowHalving(levelSizes, height, width, levelCount))
        return false;
    for (int i = 0; i + 1 < levelCount; ++i) {
        const int* size = (*levelSizes)[i];
        const int* next = (*levelSizes)[i + 1];
        if (next[0] < 2 || next[1] < 2 || !pyramid_rows::keptQuadDownSampleApplies(size[0], size[1], next[0], next[1]))
            return false;
    }
    return true;
}

void exposureFusionFast(std::vector<unsigned short*>* weights, std::vector<short*>* frames,
                        std::vector<short*>* fullPyramid, std::vector<short*>* shallowPyramid,
                        std::vector<int*>* levelSizes, int frameCount, int levelCount, int shallowLevels,
                        float gain0, float gain1, int gainMaxLevel, bool accumulatorsStartAtZero, KernelIsa isa) {
    std::vector<std::unique_ptr<unsigned short[]>> weightLevels(static_cast<size_t>(levelCount));
    std::vector<std::unique_ptr<short[]>> frameLevels(static_cast<size_t>(levelCount));
    for (int i = 1; i < levelCount; ++i) {
        weightLevels[i].reset(new unsigned short[levelArea(levelSizes, i)]);
        frameLevels[i].reset(new short[levelArea(levelSizes, i)]);
    }
    for (int k = 0; k < frameCount; ++k) {
        std::vector<unsigned short*> weightPyramid(static_cast<size_t>(levelCount));
        std::vector<short*> framePyramid(static_cast<size_t>(levelCount));
        weightPyramid[0] = (*weights)[k];
        framePyramid[0] = (*frames)[k];
        for (int i = 1; i < levelCount; ++i) {
            weightPyramid[i] = weightLevels[i].get();
            framePyramid[i] = frameLevels[i].get();
        }
        for (int i = 0; i + 1 < levelCount; ++i) {
            const int* size = (*levelSizes)[i];
            const int* next = (*levelSizes)[i + 1];
            pyramid_rows::downSampleKept<unsigned short>(weightPyramid[i], weightPyramid[i + 1], size[0], size[1],
                                                         next[0], next[1], isa);
            pyramid_rows::downSampleKept<short>(framePyramid[i], framePyramid[i + 1], size[0], size[1], next[0],
                                                next[1], isa);
        }
        for (int i = 0; i < levelCount; ++i) {
            LevelJob job;
            job.level = framePyramid[i];
            job.h = (*levelSizes)[i][0];
            job.w = (*levelSizes)[i][1];
            const bool coarsest = i == levelCount - 1;
            job.next = coarsest ? nullptr : framePyramid[i + 1];
            job.hn = coarsest ? 0 : (*levelSizes)[i + 1][0];
            job.wn = coarsest ? 0 : (*levelSizes)[i + 1][1];
            job.weight = weightPyramid[i];
            job.full = (*fullPyramid)[i];
            job.shallow = i < shallowLevels ? (*shallowPyramid)[i] : nullptr;
            job.shallowTakesLowPass = i == shallowLevels - 1;
            job.levelIndex = i;
            job.gain0 = gain0;
            job.gain1 = gain1;
            job.gainMaxLevel = gainMaxLevel;
            job.start = accumulatorsStartAtZero && k == 0;
            job.isa = isa;
            runOnFourStripes(job.h / 2,
                             [&](int quadStart, int quadEnd) { fuseQuadRows(isa, job, quadStart, quadEnd); });
        }
    }
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
    if (kUseFastPaths)
        exposure_fusion_detail::exposureFusionInto(weights, frames, fullPyramid, shallowPyramid, levelSizes, height,
                                                   width, frameCount, levelCount, shallowLevelCount, laplacianGain0,
                                                   laplacianGain1, laplacianGainMaxLevel, false, bestKernelIsa());
    else
        exposure_fusion_detail::exposureFusionPlain(weights, frames, fullPyramid, shallowPyramid, levelSizes, height,
                                                    width, frameCount, levelCount, shallowLevelCount, laplacianGain0,
                                                    laplacianGain1, laplacianGainMaxLevel);
}

bool exposure_fusion_detail::exposureFusionSkipsZeroFill(std::vector<int*>* levelSizes, int height, int width,
                                                int levelCount) {
    return kUseFastPaths && fusedPyramidsApply(levelSizes, height, width, levelCount);
}

void exposure_fusion_detail::exposureFusionInto(std::vector<unsigned short*>* weights, std::vector<short*>* frames,
                                       std::vector<short*>* fullPyramid, std::vector<short*>* shallowPyramid,
                                       std::vector<int*>* levelSizes, int height, int width, int frameCount,
                                       int levelCount, int shallowLevelCount, float laplacianGain0,
                                       float laplacianGain1, int laplacianGainMaxLevel, bool accumulatorsStartAtZero,
                                       KernelIsa isa) {
    if (frameCount >= 1 && levelCount >= 1 && fusedPyramidsApply(levelSizes, height, width, levelCount)) {
        const int shallowLevels = std::max(std::min(shallowLevelCount, levelCount), 0);
        exposureFusionFast(weights, frames, fullPyramid, shallowPyramid, levelSizes, frameCount, levelCount,
                           shallowLevels, laplacianGain0, laplacianGain1, laplacianGainMaxLevel,
                           accumulatorsStartAtZero, isa);
        return;
    }
    exposureFusionPlain(weights, frames, fullPyramid, shallowPyramid, levelSizes, height, width, frameCount,
                        levelCount, shallowLevelCount, laplacianGain0, laplacianGain1, laplacianGainMaxLevel);
}

void exposure_fusion_detail::exposureFusionPlain(std::vector<unsigned short*>* weights, std::vector<short*>* frames,
                                                 std::vector<short*>* fullPyramid,
                                                 std::vector<short*>* shallowPyramid, std::vector<int*>* levelSizes,
                                                 int height, int width, int frameCount, int levelCount,
                                                 int shallowLevelCount, float laplacianGain0, float laplacianGain1,
                                                 int laplacianGainMaxLevel) {
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

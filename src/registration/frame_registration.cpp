#include "registration/frame_registration.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "diagnostics/platform_log.h"
#include "imgcore/fast_paths.h"
#include "imgcore/simd_clones.h"
#include "registration/burst_analysis.h"
#include "registration/frame_average.h"
#include "registration/motion_alignment.h"

namespace {

using registration_detail::BurstAnalysis;
using registration_detail::kReferenceIndex;

constexpr int kMaxMergedFrames = 16;
constexpr int kBorderFillValue = 64;  // pedestal of 10-bit sensors, deliberately fixed
constexpr int kWhiteLevel = 1023;

void setFullFrameZoom(USERZOOM* zoom, int width, int height) {
    zoom->top = 0;
    zoom->left = 0;
    zoom->right = width - 1;
    zoom->bottom = height - 1;
}

void copyFrame(const short* src, short* dst, int width, int height) {
    std::memcpy(dst, src, static_cast<size_t>(width) * height * sizeof(short));
}

KEP_SIMD_CLONES
void writeBackClamped(const short* __restrict aligned, short* __restrict frame, size_t samples) {
    for (size_t k = 0; k < samples; ++k) frame[k] = static_cast<short>(std::min(std::max<int>(aligned[k], 0), kWhiteLevel));
}

void fillRows(short* output, int width, int fromRow, int toRow) {
    for (int r = fromRow; r < toRow; ++r) std::fill(output + static_cast<size_t>(r) * width, output + static_cast<size_t>(r + 1) * width, kBorderFillValue);
}

// Everything outside [top, bottom) x [left, right) gets the fixed pedestal value.
void fillBorder(short* output, int width, int height, const USERZOOM& zoom) {
    const int top = std::clamp(zoom.top, 0, height), bottom = std::clamp(zoom.bottom, top, height);
    const int left = std::clamp(zoom.left, 0, width), right = std::clamp(zoom.right, left, width);
    fillRows(output, width, 0, top);
    for (int r = top; r < bottom; ++r) {
        short* row = output + static_cast<size_t>(r) * width;
        std::fill(row, row + left, kBorderFillValue);
        std::fill(row + right, row + width, kBorderFillValue);
    }
    fillRows(output, width, bottom, height);
}

bool outputApartFromFrames(short** frames, int frameCount, const short* output, int width, int height) {
    const size_t samples = static_cast<size_t>(width) * height;
    const auto lo = reinterpret_cast<std::uintptr_t>(output);
    const auto hi = reinterpret_cast<std::uintptr_t>(output + samples);
    for (int i = 0; i < frameCount; ++i) {
        const auto a = reinterpret_cast<std::uintptr_t>(frames[i]);
        const auto b = reinterpret_cast<std::uintptr_t>(frames[i] + samples);
        if (a < hi && lo < b) return false;
    }
    return true;
}

struct ValidBox {
    int top, bottom, left, right;  // in quads (two raw samples)
};

// Aligns every frame still in use onto the reference and writes it back over the
// caller's frame. Returns the number of usable frames left.
int alignFrames(short** frames, BurstAnalysis& a, int usable, int width, int height, double inlierLimit,
                ValidBox& box, short* scratch) {
    const int g = width / 4, gh = height / 4;
    const int pointCount = a.pointCount();
    const size_t samples = static_cast<size_t>(width) * height;
    char* rejectFlags = a.rejectFlags();
    // One raw alignment buffer for all frames: the caller's scratch when given, else
    // a buffer of our own. (The alignment's spare gray buffer is never read, so
    // none is allocated for it.)
    std::unique_ptr<short[]> owned(scratch != nullptr ? nullptr : new short[samples]);
    short* const alignedBuffer = scratch != nullptr ? scratch : owned.get();
    // The plain form fills the buffer with -1 before every alignment. The fast form
    // lets the alignment write every sample itself (-1 where the warp has no
    // source), which leaves the same buffer; it needs the warp's cells to tile the
    // whole raw frame.
    const bool alignmentFills = kUseFastPaths && width % 8 == 0 && height % 8 == 0;
    for (int i = 0; i < a.frameCount(); ++i) {
        if (i == kReferenceIndex || rejectFlags[i] == 1) continue;
        if (!alignmentFills) std::fill(alignedBuffer, alignedBuffer + samples, static_cast<short>(-1));
        int ambiguous = 0;
        motion_alignment_detail::alignImages(a.guide(i), a.referenceGuide(), a.points(), Size{6, 6}, pointCount, 2.0,
                                             inlierLimit, g, gh, frames[i], alignedBuffer, &box.top, &box.bottom,
                                             &box.left, &box.right, &rejectFlags[i], &ambiguous, pointCount, i,
                                             !alignmentFills, alignmentFills ? frames[i] : nullptr);
        if (i >= kReferenceIndex && rejectFlags[i] == 1) --usable;
        // The fast form has had the alignment write the frame back row by row.
        if (!alignmentFills) writeBackClamped(alignedBuffer, frames[i], samples);
    }
    return usable;
}

// Frames 2 .. frameCount-1 that are in the merge, in index order (at most 16).
int mergeList(short** frames, const char* rejectFlags, int frameCount, const short** list) {
    int length = 0;
    for (int i = kReferenceIndex; i < frameCount && length < kMaxMergedFrames; ++i)
        if (rejectFlags[i] != 1) list[length++] = frames[i];
    return length;
}

void reportOutcomes(const BurstAnalysis& a, const char* rejectFlags, bool aligned, int* outcomes) {
    using namespace registration_detail;
    for (int i = 0; i < a.frameCount(); ++i) {
        int o;
        if (i == kReferenceIndex) o = kOutcomeReference;
        else if (a.rejectedByBlur(i)) o = kOutcomeRejectedBlur;
        else if (!aligned) o = kOutcomeNotAligned;
        else if (rejectFlags[i] == 1) o = kOutcomeRejectedAlignment;
        else o = i < kReferenceIndex ? kOutcomeAlignedShort : kOutcomeMerged;
        outcomes[i] = o;
    }
}

}  // namespace

double registration_detail::inlierLimitFor(float alignTuning) {
    if (alignTuning <= 1.0f) return 1.0;
    if (alignTuning < 2.0f) return 1.9 - 0.9 * static_cast<double>(alignTuning);
    return 0.1;
}

void registration_detail::registerBurst(short** frames, short* output, int frameCount, int* usableFrameCount,
                                        int width, int height, int grayGain, int minFeatureCount, int alignOnly,
                                        USERZOOM* zoom, float alignTuning, float blurSelect, float sharpnessRatio,
                                        int* blackLevelOrder, int* outcomes) {
    logInfo("nocturn : enter frame registration");
    const double inlierLimit = registration_detail::inlierLimitFor(alignTuning);
    {
        BurstAnalysis a(frames, frameCount, width, height, grayGain, blurSelect, sharpnessRatio, blackLevelOrder);
        *usableFrameCount = a.sharpCount();
        zoom->pointCount = a.pointCount();

        bool merged = false, aligned = false;
        if (a.worthAligning(minFeatureCount)) {
            aligned = true;
            ValidBox box{0, height / 2 - 1, 0, width / 2 - 1};
            // Unless only aligning, every path from here writes all of output (the
            // merge or the reference copy), so until then its memory can serve as
            // the alignment buffer, provided it is none of the frames.
            const bool outputIsScratch =
                kUseFastPaths && !alignOnly && outputApartFromFrames(frames, frameCount, output, width, height);
            *usableFrameCount = alignFrames(frames, a, *usableFrameCount, width, height, inlierLimit, box,
                                            outputIsScratch ? output : nullptr);
            if (*usableFrameCount > 1) {
                // Valid area in samples: 10 in from the top and left, 12 short of the
                // last row and column.
                zoom->top = 2 * box.top + 10;
                zoom->left = 2 * box.left + 10;
                zoom->right = 2 * box.right - 11;
                zoom->bottom = 2 * box.bottom - 11;
                if (!alignOnly) {
                    const short* list[kMaxMergedFrames] = {};
                    const int length = mergeList(frames, a.rejectFlags(), frameCount, list);
                    frameAverage(list, output, width, height, length);
                    fillBorder(output, width, height, *zoom);
                }
                merged = true;
            }
        } else {
            *usableFrameCount = 1;
        }
        if (!merged) {
            setFullFrameZoom(zoom, width, height);
            if (output != nullptr) copyFrame(frames[kReferenceIndex], output, width, height);
        }
        if (outcomes != nullptr) reportOutcomes(a, a.rejectFlags(), aligned, outcomes);
    }
    logInfo("nocturn : exit frame registration");
}

void qnFrameRegistration(short** frames, short* output, int frameCount, int* usableFrameCount, int width,
                         int height, int grayGain, int minFeatureCount, int alignOnly, USERZOOM* zoom,
                         float alignTuning, float blurSelect, float sharpnessRatio, int* blackLevelOrder) {
    registration_detail::registerBurst(frames, output, frameCount, usableFrameCount, width, height, grayGain,
                                       minFeatureCount, alignOnly, zoom, alignTuning, blurSelect, sharpnessRatio,
                                       blackLevelOrder, nullptr);
}

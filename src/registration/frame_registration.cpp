#include "registration/frame_registration.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "diagnostics/platform_log.h"
#include "features/feature_types.h"
#include "features/grid_features.h"
#include "imgcore/fast_paths.h"
#include "imgcore/simd_clones.h"
#include "registration/motion_alignment.h"
#include "registration/black_level.h"
#include "registration/frame_average.h"
#include "registration/guide_image.h"
#include "registration/sharpness.h"

namespace {

constexpr int kReferenceIndex = 2;
constexpr int kMaxMergedFrames = 16;
constexpr int kEdgeThreshold = 5;
constexpr int kBorderFillValue = 64;  // pedestal of 10-bit sensors, deliberately fixed
constexpr int kWhiteLevel = 1023;

using Bytes = std::unique_ptr<unsigned char, decltype(&std::free)>;

Bytes allocateBytes(size_t n) { return Bytes(static_cast<unsigned char*>(std::calloc(n, 1)), &std::free); }

// Inlier distance limit of the alignment: 1.0 up to a tuning of 1, falling
// linearly to 0.1 at 2 and staying there (NaN included).
double inlierLimitFor(float alignTuning) {
    if (alignTuning <= 1.0f) return 1.0;
    if (alignTuning < 2.0f) return 1.9 - 0.9 * static_cast<double>(alignTuning);
    return 0.1;
}

void setFullFrameZoom(USERZOOM* zoom, int width, int height) {
    zoom->top = 0;
    zoom->left = 0;
    zoom->right = width - 1;
    zoom->bottom = height - 1;
}

void copyFrame(const short* src, short* dst, int width, int height) {
    std::memcpy(dst, src, static_cast<size_t>(width) * height * sizeof(short));
}

// Frames 0 and 1 are short exposures: their guides are brought to the normal
// exposure (x8 and x4, saturating at 255).
void matchShortExposure(unsigned char* guide, size_t pixels, int frameIndex) {
    const int factor = frameIndex == 0 ? 8 : 4;
    const int limit = 256 / factor;
    for (size_t p = 0; p < pixels; ++p) guide[p] = guide[p] < limit ? static_cast<unsigned char>(guide[p] * factor) : 255;
}

// Owns the per-burst scratch of the driver and releases it on every path.
struct BurstScratch {
    int frameCount;
    unsigned char** guides;
    char* rejectFlags = nullptr;
    QNGridFeaturePointList points;

    explicit BurstScratch(int count)
        : frameCount(count),
          guides(static_cast<unsigned char**>(std::calloc(static_cast<size_t>(std::max(count, 0)), sizeof(unsigned char*)))) {
        std::memset(&points, 0, sizeof(points));
    }
    ~BurstScratch() {
        std::free(rejectFlags);
        for (int i = 0; i < frameCount && guides != nullptr; ++i) std::free(guides[i]);
        std::free(guides);
        if (points.cells != nullptr) {
            for (int c = 0; c < points.gridRows * points.gridCols; ++c) {
                std::free(points.cells[c].homography.data);
                std::free(points.cells[c].inverseHomography.data);
            }
            std::free(points.cells);
        }
    }
    BurstScratch(const BurstScratch&) = delete;
    BurstScratch& operator=(const BurstScratch&) = delete;
};

// Guides of every frame from their black-level-corrected copies. The fast form
// removes the black level on the fly instead of writing the corrected copy.
void buildGuides(short** frames, BurstScratch& s, int width, int height, int grayGain, const int* blackLevelOrder) {
    const size_t pixels = static_cast<size_t>(width) * height / 16;
    int order[4] = {blackLevelOrder[0], blackLevelOrder[1], blackLevelOrder[2], blackLevelOrder[3]};
    const bool fused = kUseFastPaths && guide_detail::blackLevelsFitSamples(order);
    std::unique_ptr<short[]> corrected(fused ? nullptr : new short[static_cast<size_t>(width) * height]);
    for (int i = 0; i < s.frameCount; ++i) {
        s.guides[i] = static_cast<unsigned char*>(std::calloc(pixels, 1));
        if (fused) {
            guide_detail::guideFromRaw(frames[i], order, s.guides[i], width, height, grayGain);
        } else {
            removeBLC(frames[i], corrected.get(), width, height, order);
            bayer_to_8bit_gray(corrected.get(), s.guides[i], width, height, grayGain, i);
        }
        if (width * height >= 16 && i < 2) matchShortExposure(s.guides[i], pixels, i);
    }
}

// Smooths and equalises the guides of the frames still in use and computes the
// reference's edge mask between the two. Returns the number of usable frames of
// index 2 and up.
int prepareGuides(BurstScratch& s, unsigned char* edgeMask, int g, int gh, float blurSelect) {
    int usable = 0;
    for (int i = 0; i < s.frameCount; ++i) {
        if (s.rejectFlags[i] == 1) continue;
        if (i >= kReferenceIndex) ++usable;
        conImageBlur(s.guides[i], s.guides[i], g, gh, blurSelect);
        if (i == kReferenceIndex) edgeDetection(s.guides[i], edgeMask, g, gh, kEdgeThreshold);
        histogram_equalization(s.guides[i], s.guides[i], g, gh);
    }
    return usable;
}

// Feature points of the reference guide; a failed detection counts as none.
int detectReferenceFeatures(BurstScratch& s, unsigned char* edgeMask, int g, int gh, bool* detected) {
    int count = 0;
    QNGet4x4GridFeatureParam_ param{s.guides[kReferenceIndex], 1, -3.0f, 3.0f, 6.0f, 640, &count, 6, 6, gh, g};
    *detected = qnGet4x4GridFeature(&param, &s.points, edgeMask) == 0 && s.points.cells != nullptr;
    return *detected ? count : 0;
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
int alignFrames(short** frames, BurstScratch& s, int pointCount, int usable, int width, int height,
                double inlierLimit, ValidBox& box, short* scratch) {
    const int g = width / 4, gh = height / 4;
    const size_t samples = static_cast<size_t>(width) * height;
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
    for (int i = 0; i < s.frameCount; ++i) {
        if (i == kReferenceIndex || s.rejectFlags[i] == 1) continue;
        if (!alignmentFills) std::fill(alignedBuffer, alignedBuffer + samples, static_cast<short>(-1));
        int ambiguous = 0;
        motion_alignment_detail::alignImages(s.guides[i], s.guides[kReferenceIndex], s.points, Size{6, 6}, pointCount,
                                             2.0, inlierLimit, g, gh, frames[i], alignedBuffer, &box.top, &box.bottom,
                                             &box.left, &box.right, &s.rejectFlags[i], &ambiguous, pointCount, i,
                                             !alignmentFills, alignmentFills ? frames[i] : nullptr);
        if (i >= kReferenceIndex && s.rejectFlags[i] == 1) --usable;
        // The fast form has had the alignment write the frame back row by row.
        if (!alignmentFills) writeBackClamped(alignedBuffer, frames[i], samples);
    }
    return usable;
}

void mergeFrames(short** frames, const char* rejectFlags, int frameCount, short* output, int width, int height) {
    const short* list[kMaxMergedFrames] = {};
    int length = 0;
    for (int i = kReferenceIndex; i < frameCount && length < kMaxMergedFrames; ++i)
        if (rejectFlags[i] != 1) list[length++] = frames[i];
    frameAverage(list, output, width, height, length);
}

}  // namespace

void qnFrameRegistration(short** frames, short* output, int frameCount, int* usableFrameCount, int width,
                         int height, int grayGain, int minFeatureCount, int alignOnly, USERZOOM* zoom,
                         float alignTuning, float blurSelect, float sharpnessRatio, int* blackLevelOrder) {
    logInfo("nocturn : enter frame registration");
    const double inlierLimit = inlierLimitFor(alignTuning);
    const int g = width / 4, gh = height / 4;
    {
        BurstScratch s(frameCount);
        buildGuides(frames, s, width, height, grayGain, blackLevelOrder);

        s.rejectFlags = static_cast<char*>(std::calloc(static_cast<size_t>(frameCount), 1));
        int referenceIndex = kReferenceIndex;
        getClearestFrame(s.guides, frameCount, &referenceIndex, s.rejectFlags, sharpnessRatio, g, gh);

        Bytes edgeMask = allocateBytes(static_cast<size_t>(width) * height / 16);
        *usableFrameCount = prepareGuides(s, edgeMask.get(), g, gh, blurSelect);

        bool detected = false;
        const int pointCount = detectReferenceFeatures(s, edgeMask.get(), g, gh, &detected);
        zoom->pointCount = pointCount;
        edgeMask.reset();

        bool merged = false;
        if (detected && pointCount >= minFeatureCount && *usableFrameCount != 1) {
            ValidBox box{0, height / 2 - 1, 0, width / 2 - 1};
            // Unless only aligning, every path from here writes all of output (the
            // merge or the reference copy), so until then its memory can serve as
            // the alignment buffer, provided it is none of the frames.
            const bool outputIsScratch =
                kUseFastPaths && !alignOnly && outputApartFromFrames(frames, frameCount, output, width, height);
            *usableFrameCount = alignFrames(frames, s, pointCount, *usableFrameCount, width, height, inlierLimit, box,
                                            outputIsScratch ? output : nullptr);
            if (*usableFrameCount > 1) {
                // Valid area in samples: 10 in from the top and left, 12 short of the
                // last row and column.
                zoom->top = 2 * box.top + 10;
                zoom->left = 2 * box.left + 10;
                zoom->right = 2 * box.right - 11;
                zoom->bottom = 2 * box.bottom - 11;
                if (!alignOnly) {
                    mergeFrames(frames, s.rejectFlags, frameCount, output, width, height);
                    fillBorder(output, width, height, *zoom);
                }
                merged = true;
            }
        } else {
            *usableFrameCount = 1;
        }
        if (!merged) {
            setFullFrameZoom(zoom, width, height);
            copyFrame(frames[kReferenceIndex], output, width, height);
        }
    }
    logInfo("nocturn : exit frame registration");
}

#include "registration/burst_analysis.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "features/grid_features.h"
#include "imgcore/fast_paths.h"
#include "imgcore/worker_pool.h"
#include "registration/black_level.h"
#include "registration/guide_image.h"
#include "registration/sharpness.h"

namespace registration_detail {

namespace {

constexpr int kEdgeThreshold = 5;

using Bytes = std::unique_ptr<unsigned char, decltype(&std::free)>;

// Frames 0 and 1 are short exposures: their guides are brought to the normal
// exposure (x8 and x4, saturating at 255).
void matchShortExposure(unsigned char* guide, size_t pixels, int frameIndex) {
    const int factor = frameIndex == 0 ? 8 : 4;
    const int limit = 256 / factor;
    for (size_t p = 0; p < pixels; ++p) guide[p] = guide[p] < limit ? static_cast<unsigned char>(guide[p] * factor) : 255;
}

// Guides of every frame from their black-level-corrected copies. The fast form
// removes the black level on the fly instead of writing the corrected copy.
void buildGuides(short** frames, unsigned char** guides, int frameCount, int width, int height, int grayGain,
                 const int* blackLevelOrder, int workers) {
    const size_t pixels = static_cast<size_t>(width) * height / 16;
    int order[4] = {blackLevelOrder[0], blackLevelOrder[1], blackLevelOrder[2], blackLevelOrder[3]};
    const bool fused = kUseFastPaths && guide_detail::blackLevelsFitSamples(order);
    for (int i = 0; i < frameCount; ++i) guides[i] = static_cast<unsigned char*>(std::calloc(pixels, 1));
    WorkerPool pool(std::max(1, std::min(workers, frameCount)));
    std::vector<std::unique_ptr<short[]>> corrected(static_cast<size_t>(pool.count()));
    pool.run(frameCount, [&](int worker, int i) {
        if (fused) {
            guide_detail::guideFromRaw(frames[i], order, guides[i], width, height, grayGain);
        } else {
            std::unique_ptr<short[]>& c = corrected[static_cast<size_t>(worker)];
            if (!c) c.reset(new short[static_cast<size_t>(width) * height]);
            removeBLC(frames[i], c.get(), width, height, order);
            bayer_to_8bit_gray(c.get(), guides[i], width, height, grayGain, i);
        }
        if (width * height >= 16 && i < 2) matchShortExposure(guides[i], pixels, i);
    });
}

}  // namespace

BurstAnalysis::BurstAnalysis(short** frames, int frameCount, int width, int height, int grayGain, float blurSelect,
                             float sharpnessRatio, const int* blackLevelOrder, int workers)
    : frameCount_(frameCount),
      guides_(static_cast<unsigned char**>(std::calloc(static_cast<size_t>(std::max(frameCount, 0)),
                                                       sizeof(unsigned char*)))) {
    std::memset(&points_, 0, sizeof(points_));
    const int g = width / 4, gh = height / 4;
    buildGuides(frames, guides_, frameCount, width, height, grayGain, blackLevelOrder, workers);

    rejectFlags_ = static_cast<char*>(std::calloc(static_cast<size_t>(frameCount), 1));
    int referenceIndex = kReferenceIndex;
    getClearestFrame(guides_, frameCount, &referenceIndex, rejectFlags_, sharpnessRatio, g, gh);
    blurRejected_.assign(rejectFlags_, rejectFlags_ + std::max(frameCount, 0));

    // Smooth and equalise the guides of the frames still in use; the reference's
    // edge mask is taken between the two.
    Bytes edgeMask(static_cast<unsigned char*>(std::calloc(static_cast<size_t>(width) * height / 16, 1)), &std::free);
    for (int i = 0; i < frameCount; ++i) {
        if (rejectFlags_[i] == 1) continue;
        if (i >= kReferenceIndex) ++sharpCount_;
        conImageBlur(guides_[i], guides_[i], g, gh, blurSelect);
        if (i == kReferenceIndex) edgeDetection(guides_[i], edgeMask.get(), g, gh, kEdgeThreshold);
        histogram_equalization(guides_[i], guides_[i], g, gh);
    }

    // A failed detection counts as no points.
    int count = 0;
    QNGet4x4GridFeatureParam_ param{guides_[kReferenceIndex], 1, -3.0f, 3.0f, 6.0f, 640, &count, 6, 6, gh, g};
    detected_ = qnGet4x4GridFeature(&param, &points_, edgeMask.get()) == 0 && points_.cells != nullptr;
    pointCount_ = detected_ ? count : 0;
}

BurstAnalysis::~BurstAnalysis() {
    std::free(rejectFlags_);
    for (int i = 0; i < frameCount_ && guides_ != nullptr; ++i) std::free(guides_[i]);
    std::free(guides_);
    if (points_.cells != nullptr) {
        for (int c = 0; c < points_.gridRows * points_.gridCols; ++c) {
            std::free(points_.cells[c].homography.data);
            std::free(points_.cells[c].inverseHomography.data);
        }
        std::free(points_.cells);
    }
}

}  // namespace registration_detail

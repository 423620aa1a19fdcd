#pragma once

#include <vector>

#include "features/feature_types.h"

// The analysis every night merge starts from: a gray guide per frame, the blur
// screening, smoothed and equalised guides and the reference's grid feature
// points. Frame 2 is the reference. Owns its scratch and releases it on every path.
namespace registration_detail {

constexpr int kReferenceIndex = 2;

class BurstAnalysis {
public:
    // Builds the guides (each frame's on its own, on up to `workers` threads),
    // screens the frames for blur, prepares the guides of the frames still in use
    // and detects the reference's feature points.
    BurstAnalysis(short** frames, int frameCount, int width, int height, int grayGain, float blurSelect,
                  float sharpnessRatio, const int* blackLevelOrder, int workers = 1);
    ~BurstAnalysis();
    BurstAnalysis(const BurstAnalysis&) = delete;
    BurstAnalysis& operator=(const BurstAnalysis&) = delete;

    int frameCount() const { return frameCount_; }
    int pointCount() const { return pointCount_; }
    // Frames of index 2 and up that passed the blur screening (the reference included).
    int sharpCount() const { return sharpCount_; }
    // Whether aligning is worth it: features found, at least minFeatureCount of
    // them, and a frame besides the reference passed the blur screening.
    bool worthAligning(int minFeatureCount) const {
        return detected_ && pointCount_ >= minFeatureCount && sharpCount_ != 1;
    }
    bool rejectedByBlur(int i) const { return blurRejected_[static_cast<size_t>(i)] != 0; }

    unsigned char* guide(int i) { return guides_[i]; }
    unsigned char* referenceGuide() { return guides_[kReferenceIndex]; }
    char* rejectFlags() { return rejectFlags_; }
    QNGridFeaturePointList& points() { return points_; }

private:
    int frameCount_;
    unsigned char** guides_;
    char* rejectFlags_ = nullptr;
    QNGridFeaturePointList points_;
    std::vector<char> blurRejected_;
    int pointCount_ = 0;
    int sharpCount_ = 0;
    bool detected_ = false;
};

}  // namespace registration_detail

#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "registration/tile_motion.h"

// The robust merge of the night path: every frame is resampled onto the reference
// through its tile field, and each of its quads counts with a weight that falls
// where the frame disagrees with the reference beyond the noise:
//   z = sum over the 3 x 3 quads around it of (aligned - reference)^2
//       / ((1 + spread) * sum of (a * signal + b))
// (the first sum over the quads where the frame has data, the second over the
// quads inside the frame; signal: the reference above its black level; spread:
// the resampling's noise variance factor),
// w = clamp((kRejectAt - z) * kWeightSlope, 0, 1), and the quad's weight is the
// smallest w of the 3 x 3 quads around it that have data, so that rejection reaches
// the edges of a moving thing; a quad without data has weight 0. The merge is
//   (reference + sum of w * aligned) / (1 + sum of w)
// over the merged frames in index order: the reference always counts fully.
namespace registration_detail {

constexpr float kAcceptUpTo = 1.6f;
constexpr float kRejectAt = 3.2f;
constexpr float kWeightSlope = 1.0f / (kRejectAt - kAcceptUpTo);

struct MergeFrame {
    short* frame = nullptr;          // overwritten with its aligned version (0..1023, 0 without source)
    const TileField* field = nullptr;
    bool merged = false;             // counts in the merge; otherwise only aligned
    // Results over the quads of the frame (merged frames, when an output is given):
    double weightSum = 0.0;
    long long dataQuads = 0;         // quads with data
    long long rejectedQuads = 0;     // quads with data whose weight is below 1/2
};

struct MergeSetup {
    const short* reference = nullptr;
    int width = 0, height = 0;
    int black[4] = {0, 0, 0, 0};     // quad order
    float noiseA = 0.0f, noiseB = 0.0f;
    int outputBits = 10;
    float gain = 1.0f;               // >= 1 brightens about the black level
    uint16_t* output = nullptr;      // null: align only
    uint8_t* weightMap = nullptr;    // optional, per quad
    int workers = 1;                 // threads of the fast form, the caller's included
};

// Rounding by truncation of a positive offset value (resampled values stay far
// above -4096).
inline int32_t alignedQuarters(float v) { return static_cast<int32_t>(v * 4.0f + 16384.5f) - 16384; }

inline int32_t squaredDifference(float aligned, short reference) {
    const int32_t d = alignedQuarters(aligned) - 4 * static_cast<int32_t>(reference);
    return d * d;
}

inline int32_t signalAbove(short reference, int black) { return std::max(static_cast<int32_t>(reference) - black, 0); }

// Expected sum of squared differences (in levels) over a window, without the
// resampling's factor: signal and samples over the window's quads inside the frame.
inline float windowExpectation(int32_t signal, int32_t samples, float a, float b) {
    return a * static_cast<float>(signal) + b * static_cast<float>(samples);
}

// Weight of a quad from the sum of squared differences (quarter levels) of the
// frame's quads with data in its window (expected > 0).
inline float mergeWeight(int32_t d2, float expected, float spread) {
    const float z = static_cast<float>(d2) / ((16.0f * (1.0f + spread)) * expected);
    return std::min(std::max((kRejectAt - z) * kWeightSlope, 0.0f), 1.0f);
}

inline short alignedSample(float v) {
    const float c = std::min(std::max(v, 0.0f), 1023.0f);
    return static_cast<short>(static_cast<int>(c + 0.5f));
}

// A 10-bit-scale value brightened (gain >= 1) about its black level and scaled to
// the output depth, rounded to nearest and clamped.
inline uint16_t finishSample(float v, int black, float gain, int outputBits) {
    if (gain >= 1.0f) v = (v - static_cast<float>(black)) * gain + static_cast<float>(black);
    const float scaled = v * static_cast<float>(1 << (outputBits - 10));
    const float top = static_cast<float>((1 << outputBits) - 1);
    return static_cast<uint16_t>(static_cast<int>(std::min(std::max(scaled, 0.0f), top) + 0.5f));
}

// The merged value of one sample: accumulated sum over 1 + weight sum.
inline float mergedValue(float accumulated, float weightSum) { return accumulated / (1.0f + weightSum); }

void robustMergePlain(const MergeSetup& setup, std::vector<MergeFrame>& frames);
// The same results in bands of tile rows, with scratch of a few rows per frame:
// each frame's aligned rows are written back once no later band reads them.
void robustMergeFast(const MergeSetup& setup, std::vector<MergeFrame>& frames);

}  // namespace registration_detail

#include "registration/night_process.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "imgcore/fast_paths.h"
#include "registration/black_level.h"
#include "registration/burst_analysis.h"
#include "registration/frame_registration.h"
#include "registration/noise_model.h"
#include "registration/robust_alignment.h"
#include "registration/robust_merge.h"

namespace {

using namespace registration_detail;

constexpr int kMinSide = 64;
constexpr long long kMaxSamples = 1LL << 28;
constexpr int kMaxGrayGain = 64;
constexpr int kMaxWorkers = 16;
constexpr int kBorderFillValue = 64;

struct Layout {
    short** frames;
    int frameCount, width, height;
    size_t samples() const { return static_cast<size_t>(width) * height; }
};

bool overlaps(const void* a, size_t aBytes, const void* b, size_t bBytes) {
    const auto a0 = reinterpret_cast<std::uintptr_t>(a), b0 = reinterpret_cast<std::uintptr_t>(b);
    return a0 < b0 + bBytes && b0 < a0 + aBytes;
}

bool finite(float v) { return std::isfinite(v); }

int validate(const Layout& l, const KepNightOptions& o, const uint16_t* output) {
    if (l.frameCount < 3 || l.frameCount > KEP_NIGHT_MAX_FRAMES) return KEP_NIGHT_BAD_FRAME_COUNT;
    if (l.width < kMinSide || l.height < kMinSide || l.width % 4 != 0 || l.height % 4 != 0 ||
        static_cast<long long>(l.width) * l.height > kMaxSamples)
        return KEP_NIGHT_BAD_SIZE;
    for (int i = 0; i < l.frameCount; ++i)
        if (l.frames[i] == nullptr) return KEP_NIGHT_NULL_ARGUMENT;
    if (output == nullptr && o.alignOnly == 0) return KEP_NIGHT_NULL_ARGUMENT;
    if (o.mergeMode != KEP_MERGE_MEAN && o.mergeMode != KEP_MERGE_ROBUST) return KEP_NIGHT_BAD_MERGE_MODE;
    if (o.outputBits != 10 && o.outputBits != 12 && o.outputBits != 14 && o.outputBits != 16)
        return KEP_NIGHT_BAD_OUTPUT_BITS;
    if (o.noiseGiven != 0 && (!finite(o.noiseA) || !finite(o.noiseB) || o.noiseA < 0.0f || o.noiseB < 0.0f ||
                              (o.noiseA == 0.0f && o.noiseB == 0.0f)))
        return KEP_NIGHT_BAD_NOISE_MODEL;
    if (o.bayerPattern < 0 || o.bayerPattern > 3) return KEP_NIGHT_BAD_PATTERN;
    for (int b : o.blackLevel)
        if (b < 0 || b > 1023) return KEP_NIGHT_BAD_BLACK_LEVEL;
    if (!finite(o.gain) || !finite(o.alignTuning) || !finite(o.blurSelect) || !finite(o.sharpnessRatio) ||
        o.grayGain < 1 || o.grayGain > kMaxGrayGain || o.workers < 1 || o.workers > kMaxWorkers)
        return KEP_NIGHT_BAD_PARAMETER;
    const size_t bytes = l.samples() * sizeof(short);
    for (int i = 0; i < l.frameCount; ++i) {
        if (output != nullptr && overlaps(output, l.samples() * sizeof(uint16_t), l.frames[i], bytes))
            return KEP_NIGHT_OUTPUT_OVERLAPS;
        for (int j = i + 1; j < l.frameCount; ++j)
            if (overlaps(l.frames[i], bytes, l.frames[j], bytes)) return KEP_NIGHT_OUTPUT_OVERLAPS;
    }
    return KEP_NIGHT_OK;
}

void fullFrame(KepNightResult& r, int width, int height) {
    r.validTop = 0;
    r.validLeft = 0;
    r.validRight = width - 1;
    r.validBottom = height - 1;
}

// Output of samples given on the 10-bit scale: brightened and scaled.
template <typename ValueAt>
void finishFrame(uint16_t* output, int width, int height, const int* black, float gain, int bits, ValueAt valueAt) {
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            output[static_cast<size_t>(y) * width + x] =
                finishSample(valueAt(x, y), black[(y & 1) * 2 + (x & 1)], gain, bits);
}

void finishReference(const Layout& l, const KepNightOptions& o, const int* black, uint16_t* output) {
    const short* ref = l.frames[kReferenceIndex];
    finishFrame(output, l.width, l.height, black, o.gain, o.outputBits,
                [&](int x, int y) { return static_cast<float>(ref[static_cast<size_t>(y) * l.width + x]); });
}

void runMean(const Layout& l, const KepNightOptions& o, int* black, uint16_t* output, KepNightResult& r) {
    short* work = o.alignOnly ? nullptr : reinterpret_cast<short*>(output);
    USERZOOM zoom{};
    int usable = 0;
    registerBurst(l.frames, work, l.frameCount, &usable, l.width, l.height, o.grayGain, o.minFeatureCount, o.alignOnly,
                  &zoom, o.alignTuning, o.blurSelect, o.sharpnessRatio, black, r.frameOutcome);
    r.usableFrames = usable;
    r.validTop = zoom.top;
    r.validLeft = zoom.left;
    r.validRight = zoom.right;
    r.validBottom = zoom.bottom;
    r.featurePoints = zoom.pointCount;
    for (int i = 0; i < l.frameCount; ++i)
        r.frameWeight[i] = r.frameOutcome[i] == KEP_FRAME_MERGED || r.frameOutcome[i] == KEP_FRAME_REFERENCE ? 1.0f : 0.0f;
    if (o.alignOnly) return;
    if (o.outputBits == 10) {
        if (o.gain >= 1.0f) enlightenOutput(work, work, o.gain, l.width, l.height, black);
        return;
    }
    if (usable <= 1) {
        finishReference(l, o, black, output);
        return;
    }
    // The merged frames averaged again at the finer step; the border as the 10-bit
    // merge has it.
    std::vector<const short*> merged;
    for (int i = kReferenceIndex; i < l.frameCount; ++i)
        if (r.frameOutcome[i] == KEP_FRAME_MERGED || i == kReferenceIndex) merged.push_back(l.frames[i]);
    const float n = static_cast<float>(merged.size());
    const int top = std::clamp(zoom.top, 0, l.height), bottom = std::clamp(zoom.bottom, top, l.height);
    const int left = std::clamp(zoom.left, 0, l.width), right = std::clamp(zoom.right, left, l.width);
    finishFrame(output, l.width, l.height, black, o.gain, o.outputBits, [&](int x, int y) {
        if (y < top || y >= bottom || x < left || x >= right) return static_cast<float>(kBorderFillValue);
        int sum = 0;
        for (const short* f : merged) sum += f[static_cast<size_t>(y) * l.width + x];
        return static_cast<float>(sum) / n;
    });
}

void runRobust(const Layout& l, const KepNightOptions& o, int* black, uint16_t* output, KepNightResult& r) {
    BurstAnalysis a(l.frames, l.frameCount, l.width, l.height, o.grayGain, o.blurSelect, o.sharpnessRatio, black,
                    o.workers);
    r.featurePoints = a.pointCount();
    fullFrame(r, l.width, l.height);
    int usable = a.sharpCount();
    const bool aligning = a.worthAligning(o.minFeatureCount);
    RobustAlignment rf;
    if (aligning)
        rf = alignBurstRobust(l.frames, l.frameCount, l.width, l.height, a, o.alignTuning, &usable, o.workers);
    const bool merging = aligning && usable > 1 && !o.alignOnly;

    NoiseModel noise{o.noiseA, o.noiseB};
    r.noiseEstimated = 0;
    if (o.noiseGiven == 0 && merging) {
        // From the first merged frame whose motion was refined; else from the
        // reference alone; else a fixed model.
        bool estimated = false;
        for (int i = kReferenceIndex + 1; i < l.frameCount && !estimated; ++i) {
            const TileField& field = rf.fields[static_cast<size_t>(i)];
            if (!rf.aligned[static_cast<size_t>(i)] || field.refined.empty() || !field.refined[0]) continue;
            estimated = estimateNoise(l.frames[kReferenceIndex], l.frames[i], l.width, l.height, field, black, noise);
        }
        if (!estimated) estimated = estimateNoiseFromReference(l.frames[kReferenceIndex], l.width, l.height, black, noise);
        if (!estimated) noise = kFallbackNoise;
        r.noiseEstimated = estimated ? 1 : 0;
    }
    noise.b = std::max(noise.b, kMinReadVariance);
    if (merging) {
        const std::vector<unsigned char> detailed = detailedTiles(l.frames[kReferenceIndex], l.width, l.height, black, noise);
        for (TileField& field : rf.fields)
            if (!field.dx.empty()) field.detailed = detailed;
    }
    r.noiseA = static_cast<float>(noise.a);
    r.noiseB = static_cast<float>(noise.b);

    MergeSetup setup;
    setup.reference = l.frames[kReferenceIndex];
    setup.width = l.width;
    setup.height = l.height;
    std::copy(black, black + 4, setup.black);
    setup.noiseA = static_cast<float>(noise.a);
    setup.noiseB = static_cast<float>(noise.b);
    setup.outputBits = o.outputBits;
    setup.gain = o.gain;
    setup.output = merging ? output : nullptr;
    setup.weightMap = merging ? o.weightMap : nullptr;
    setup.workers = o.workers;
    std::vector<MergeFrame> frames;
    std::vector<int> index;
    for (int i = 0; i < l.frameCount && aligning; ++i) {
        if (!rf.aligned[static_cast<size_t>(i)]) continue;
        MergeFrame f;
        f.frame = l.frames[i];
        f.field = &rf.fields[static_cast<size_t>(i)];
        f.merged = i > kReferenceIndex;
        frames.push_back(f);
        index.push_back(i);
    }
    if (!frames.empty()) {
        if (kUseFastPaths)
            robustMergeFast(setup, frames);
        else
            robustMergePlain(setup, frames);
    }

    long long rejected = 0, data = 0;
    for (int i = 0; i < l.frameCount; ++i) {
        int outcome;
        if (i == kReferenceIndex) outcome = KEP_FRAME_REFERENCE;
        else if (a.rejectedByBlur(i)) outcome = KEP_FRAME_REJECTED_BLUR;
        else if (!aligning) outcome = KEP_FRAME_NOT_ALIGNED;
        else if (!rf.aligned[static_cast<size_t>(i)]) outcome = KEP_FRAME_REJECTED_ALIGNMENT;
        else outcome = i < kReferenceIndex ? KEP_FRAME_ALIGNED_SHORT : KEP_FRAME_MERGED;
        r.frameOutcome[i] = outcome;
    }
    for (size_t k = 0; k < frames.size(); ++k) {
        if (!frames[k].merged || !merging) continue;
        const double quads = static_cast<double>(std::max(frames[k].dataQuads, 1LL));
        r.frameWeight[index[k]] = static_cast<float>(frames[k].weightSum / quads);
        rejected += frames[k].rejectedQuads;
        data += frames[k].dataQuads;
    }
    r.frameWeight[kReferenceIndex] = 1.0f;
    r.rejectedFraction = data > 0 ? static_cast<float>(static_cast<double>(rejected) / static_cast<double>(data)) : 0.0f;
    r.refinedTileFraction =
        rf.refinableTiles > 0 ? static_cast<float>(static_cast<double>(rf.refinedTiles) / rf.refinableTiles) : 0.0f;
    r.usableFrames = aligning ? std::max(usable, 1) : 1;
    if (!o.alignOnly && !merging) finishReference(l, o, black, output);
}

}  // namespace

extern "C" void kepNightDefaultOptions(KepNightOptions* options) {
    if (options == nullptr) return;
    std::memset(options, 0, sizeof(*options));
    options->structSize = sizeof(KepNightOptions);
    options->bayerPattern = 0;
    options->blackLevel[0] = options->blackLevel[1] = options->blackLevel[2] = 64;
    options->grayGain = 1;
    options->minFeatureCount = 30;
    options->alignOnly = 0;
    options->gain = 1.0f;
    options->alignTuning = 1.0f;
    options->blurSelect = 0.0f;
    options->sharpnessRatio = 0.9f;
    options->mergeMode = KEP_MERGE_MEAN;
    options->outputBits = 10;
    options->noiseGiven = 0;
    options->weightMap = nullptr;
    options->workers = 2;
}

extern "C" const char* kepNightStatusText(int status) {
    switch (status) {
        case KEP_NIGHT_OK: return "success";
        case KEP_NIGHT_NULL_ARGUMENT: return "a required pointer (frames, a frame, output, options or result) is null";
        case KEP_NIGHT_BAD_STRUCT_SIZE: return "options or result record older than this library";
        case KEP_NIGHT_BAD_FRAME_COUNT: return "frame count outside 3..18";
        case KEP_NIGHT_BAD_SIZE: return "width and height must be multiples of 4, at least 64, and at most 2^28 samples in all";
        case KEP_NIGHT_BAD_MERGE_MODE: return "unknown merge mode (mean or robust)";
        case KEP_NIGHT_BAD_OUTPUT_BITS: return "output bits must be 10, 12, 14 or 16";
        case KEP_NIGHT_BAD_NOISE_MODEL: return "noise coefficients must be finite, not negative, and not both zero";
        case KEP_NIGHT_BAD_PATTERN: return "unknown Bayer pattern (0..3)";
        case KEP_NIGHT_BAD_BLACK_LEVEL: return "black levels must lie in 0..1023";
        case KEP_NIGHT_BAD_PARAMETER: return "tuning values must be finite, the gray gain in 1..64 and workers in 1..16";
        case KEP_NIGHT_OUTPUT_OVERLAPS: return "the output overlaps a frame, or two frames overlap";
        default: return "unknown status";
    }
}

extern "C" int kepNightProcess(short** frames, int frameCount, int width, int height, const KepNightOptions* options,
                               uint16_t* output, KepNightResult* result) {
    if (options == nullptr || result == nullptr || frames == nullptr) return KEP_NIGHT_NULL_ARGUMENT;
    if (options->structSize < sizeof(KepNightOptions) || result->structSize < sizeof(KepNightResult))
        return KEP_NIGHT_BAD_STRUCT_SIZE;
    const KepNightOptions o = *options;
    const Layout l{frames, frameCount, width, height};
    const int status = validate(l, o, output);
    if (status != KEP_NIGHT_OK) return status;

    KepNightResult r;
    std::memset(&r, 0, sizeof(r));
    r.structSize = sizeof(KepNightResult);
    // The single green level serves both the first-row and the second-row green.
    int black[4] = {0, 0, 0, 0};
    getBayerBLCorder(black, o.bayerPattern, o.blackLevel[0], o.blackLevel[1], o.blackLevel[1], o.blackLevel[2]);
    if (o.mergeMode == KEP_MERGE_MEAN)
        runMean(l, o, black, output, r);
    else
        runRobust(l, o, black, output, r);
    const uint32_t callerSize = result->structSize;
    std::memcpy(result, &r, sizeof(r));
    result->structSize = callerSize;
    return KEP_NIGHT_OK;
}

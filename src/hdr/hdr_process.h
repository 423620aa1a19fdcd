#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "imgcore/kep_export.h"
#include "imgcore/simd_dispatch.h"

// Tuning record of the HDR path, filled with defaults by initializeParameter.
// Every field is 32 bits wide; the order is part of the interface.
struct Parameter {
    float laplacianGain0;        // detail gain of pyramid level 0 (default 1.0)
    float laplacianGain1;        // gain of strongly negative detail on levels 1.. (default 1.0)
    int laplacianGainMaxLevel;   // highest level the second gain applies to (default 6)
    int whiteLevel;              // largest working sample value (default 1023)
    int unused4;                 // read by no stage, left untouched by initializeParameter
    int unused5;                 // read by no stage, left untouched by initializeParameter
    int bayerPattern;            // 0..3, overwritten from the hdrProcess argument (default 0)
    int exposureCenter;          // centre of the well-exposedness curve (default 511)
    float exposureWeightScale;   // scale of the well-exposedness exponent (default 1.0)
    int reservedLevelCount;      // read by no stage (default 10)
    int shallowLevelCount;       // depth of the shallow fusion pyramid (default 6)
    float pyramidBlendAlpha;     // weight of the full-depth result in the final blend (default 0.5)
    float rangeCompressionBlend; // first tuning value of the range compression (default 0.7)
    float rangeCompressionRatio; // knee of the range compression, fraction of white (default 0.55)
};

// Writes the defaults above; unused4 and unused5 are left as they are.
KEP_API void initializeParameter(Parameter* parameter);

// HDR entry: fuses three raw Bayer frames (16-bit samples, width x height, both
// even) into one tone-mapped raw frame written to `output` at the very end, so
// `output` may be one of the inputs.
//
// The bracket is [frameC, frameB, copy of frameA, frameA] with gains
// max(r/4, 1), max(r/4, 1), max(r/2, 1) and r (r = exposureRatio, the last one
// deliberately not floored) after black-level removal (blackLevels: top-left,
// top-right, bottom-left, bottom-right site). The frames are white balanced,
// gamma mapped (exponents 1.0, 0.85, 0.65, 0.5), weighted, fused into a
// full-depth and a shallow Laplacian pyramid, collapsed, range compressed,
// blended, mapped back with the inverse of the last exponent (2.0), green
// attenuated, inverse white balanced, and the black level is restored with the
// scale (whiteLevel - blackLevels[0]) / whiteLevel for all sites. The three
// input buffers are working frames and hold intermediate data afterwards.
// Prints "total use %f seconds" with the processor time used.
//
// Frames the fixed pipeline was not laid out for are handled as follows:
// - white-balance stripes start on even rows (stripe starts q, 2q, 3q with
//   q = height / 4 rounded down to even), so each worker owns whole quads;
// - a smaller side below 128 gives fewer pyramid levels than the shallow depth
//   of 6: the shallow depth is capped at the level count, and the shallow
//   result then equals the full one;
// - a smaller side below 4 (no halving possible) is fused on a single level,
//   so the full result is the per-pixel weighted sum of the bracket;
// - odd or non-positive sizes are not supported: the call returns at once and
//   touches no buffer.
KEP_API void hdrProcess(short* frameA, short* frameB, short* frameC, short* output, float redGain, float blueGain,
                        int width, int height, float exposureRatio, int bayerPattern, int* blackLevels);

// Stages of the driver, exposed for the tests (not exported).
namespace hdr_detail {

// Digital gain of bracket member k of n for the given exposure ratio.
float bracketGain(float exposureRatio, int k, int n);

// Stage 4 on one frame: sample = trunc(gain * (sample - blackLevels[site])) as
// 16 bits, then clamped to [0, whiteLevel] as a signed value.
void removeBlackLevelAndGain(short* frame, int width, int height, float gain, const int* blackLevels,
                             int whiteLevel);

// Forward gamma exponent of bracket member k (1.0, 0.85, 0.65, then 0.5).
float gammaExponent(int k);

// Replaces every sample by table[sample] (samples outside [0, whiteLevel] read
// the nearest entry).
void mapThroughTable(short* image, size_t count, const short* table, int whiteLevel);

// Pyramid depth for a frame: floor(log2(half the smaller side)), at least 1.
int levelCountForSize(int width, int height);

// {height, width} of each level: halved, an odd half reduced by one more.
std::vector<std::array<int, 2>> levelSizesFor(int width, int height, int levelCount);

// White-balance stripe k of [0, height): starts k * (height / 4) rounded down
// to even, the last stripe ends at height.
int whiteBalanceStripeStart(int height, int k);
int whiteBalanceStripeEnd(int height, int k);

// Stage 18: sample = trunc(min(scale * sample + blackLevels[site], whiteLevel))
// with scale = (whiteLevel - blackLevels[0]) / whiteLevel for every site.
void restoreBlackLevel(short* image, int width, int height, const int* blackLevels, int whiteLevel);

// Stages 4 to 6 on every frame of the bracket (gamma table of whiteLevel + 1
// entries as scratch). Plain: stage by stage over whole frames; fused: all three
// on each band of quad rows, four workers per frame, frame k first copied from
// sources[k] where that is another buffer (sources are read band by band just
// before the band is written, so a source may be a later frame of the list).
// Identical results: every stage is per sample (white balance per quad).
void prepareFramesPlain(const std::vector<short*>& frames, int width, int height, float exposureRatio,
                        const int* blackLevels, float redGain, float blueGain, int whiteLevel, int bayerPattern,
                        short* gammaTable);
void prepareFramesFused(const std::vector<short*>& frames, const std::vector<const short*>& sources, int width,
                        int height, float exposureRatio, const int* blackLevels, float redGain, float blueGain,
                        int whiteLevel, int bayerPattern, short* gammaTable, KernelIsa isa);

// Stages 13 (range compression of both collapsed images) to 19 (output). Plain:
// stage by stage over whole images, the result in `full`, then copied to
// `output`; fused: the quad-mean ranges first, then every stage on each band of
// quad rows, four workers, written straight to `output`. Identical output: every
// stage is per quad once the ranges are known. `full` and `shallow` are
// overwritten.
void toneStagesPlain(short* full, short* shallow, short* output, int width, int height, float redGain,
                     float blueGain, const int* blackLevels, const Parameter& tuning, float inverseExponent,
                     short* gammaTable);
void toneStagesFused(short* full, short* shallow, short* output, int width, int height, float redGain,
                     float blueGain, const int* blackLevels, const Parameter& tuning, float inverseExponent,
                     short* gammaTable, KernelIsa isa);

}  // namespace hdr_detail

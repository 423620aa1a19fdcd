#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "imgcore/types.h"
#include "registration/night_process.h"

// Fixed inputs for whole-pipeline runs of the two entries (concurrency tests and
// cross-architecture output hashes), and small helpers to run them on private
// copies. Everything here is computed with plain IEEE arithmetic and integer
// random numbers, so the inputs are bit-identical on every architecture.
namespace pipeline_inputs {

struct Shift {
    double dx;
    double dy;
};

// A low-light burst: frames 0 and 1 are short exposures (1/8 and 1/4 of the
// light), frame 2 the reference, the rest normal frames.
struct NightBurst {
    int width = 0;
    int height = 0;
    std::vector<std::vector<short>> frames;
};

// Frame k shows the synthetic scene (seed sceneSeed) moved by shifts[k], without
// rotation, rendered by the scene's bilinear sampling (sub-sample shifts allowed).
// noiseAmplitude > 0 adds integer noise uniform in [-a, a] (seeded by noiseSeed).
NightBurst makeNightBurst(int width, int height, uint32_t sceneSeed, const std::vector<Shift>& shifts,
                          int noiseAmplitude = 0, uint32_t noiseSeed = 1);

// A burst whose registration cannot depend on the RANSAC draws. Frames 2 and up
// are exact copies of one another up to the given whole-sample translations (cut
// from one larger rendering; use multiples of 4, whole guide pixels). The texture
// sits inside a band of flat grey wide enough that it never leaves a frame and that
// no feature point falls where the matcher skips points near the border, so every
// guide has the same histogram and equalisation and the guides are exact shifts:
// every correspondence agrees and any sample set yields the same model. Frames 0
// and 1 (short exposures) hold only the black level; their shifts are not used.
NightBurst makeExactNightBurst(int width, int height, uint32_t sceneSeed, const std::vector<Shift>& shifts);

struct NightParams {
    int grayGain = 1;
    int minFeatureCount = 30;
    int alignOnly = 0;
    int bayerPattern = 0;
    int black[3] = {64, 64, 64};
    float gain = 1.0f;
    float alignTuning = 1.0f;
    float blurSelect = 0.0f;
    float sharpnessRatio = 0.5f;
    int outputFrame = -1;  // >= 0: pass frames[outputFrame] as the output buffer
};

struct NightResult {
    std::vector<short> output;
    std::vector<std::vector<short>> frames;  // the frames as the entry left them
    int usable = -1;
    USERZOOM zoom{-1, -1, -1, -1, -1};
};

// Runs qnNocturnPreProcess on a private copy of the burst.
NightResult runNight(const NightBurst& burst, const NightParams& params);

// A disc of radius r with its own checker texture that moves step samples to the
// right per frame on top of every normal frame, centred at (cx, cy) in frame 2.
// Integer arithmetic only.
void addMovingDisc(NightBurst& burst, int cx, int cy, int radius, int step);

// kepNightProcess on a private copy of the burst.
struct NightProcessResult {
    int status = 0;
    std::vector<uint16_t> output;
    std::vector<std::vector<short>> frames;
    KepNightResult result{};
};
NightProcessResult runNightProcess(const NightBurst& burst, const KepNightOptions& options);

bool operator==(const NightResult& a, const NightResult& b);

// Three raw exposures of a synthetic scene: frameA the shortest (the HDR driver
// gains it by the exposure ratio), frameB twice, frameC four times as long.
struct Bracket {
    int width = 0;
    int height = 0;
    std::vector<short> frameA, frameB, frameC;
};

Bracket makeBracket(int width, int height, uint32_t sceneSeed, int bayerPattern, int black);

struct HdrParams {
    float redGain = 1.8f;
    float blueGain = 1.5f;
    float exposureRatio = 4.0f;
    int bayerPattern = 0;
    int blackLevels[4] = {64, 64, 64, 64};
};

struct HdrResult {
    std::vector<short> output;
    std::vector<short> frameA, frameB, frameC;  // working buffers as the driver left them
};

bool operator==(const HdrResult& a, const HdrResult& b);

#if KEP_HAVE_HDR_PROCESS
// Runs hdrProcess on a private copy of the bracket.
HdrResult runHdr(const Bracket& bracket, const HdrParams& params);
#endif

// FNV-1a (64-bit) over the samples, each taken as two bytes, low byte first.
uint64_t fnv1a64(const short* samples, size_t count);
uint64_t fnv1a64(const std::vector<short>& samples);

}  // namespace pipeline_inputs

#pragma once

#include <cstdint>
#include <vector>

#include "synthetic_scene.h"

// Low-light bursts with known truth for judging merges: a static textured scene,
// the same with a subject that moves on its own, and the same with patches of a
// fine periodic texture (a weave resolved within each Bayer plane, or one aliased
// in it; only the patches are measured). Rendered as 10-bit raw on
// black 64 through hand-shake motion with shot and read noise; frame 2 is the
// reference, frames 0 and 1 short exposures (1/8, 1/4).
namespace kep {
namespace synth {

enum class BurstScene { Static, MovingSubject, FineTexture, AliasedTexture };

struct SceneBurstOptions {
    BurstScene scene = BurstScene::Static;
    int width = 1024;
    int height = 768;
    int frames = 8;
    uint32_t seed = 7;
    double levelsAtOne = 300.0;   // levels above black for radiance 1.0
    double shotNoiseGain = 2.5;   // variance = gain * signal
    double readNoise = 3.0;       // standard deviation in levels
    double maxShift = 6.0;        // raw samples
    double maxAngle = 0.0015;     // radians
    double subjectStep = 24.0;    // samples per frame, left to right
    double subjectRadius = 0.0;   // 0: a tenth of the shorter side
};

// Regions of the reference geometry for measuring a merge.
enum Region : uint8_t { kRegionStatic = 0, kRegionSubject = 1, kRegionGhost = 2, kRegionExcluded = 3 };

struct SceneBurst {
    Burst burst;                    // frames, motions, and the noiseless reference geometry
    std::vector<uint8_t> regions;   // per sample: Region
};

SceneBurst makeSceneBurst(const SceneBurstOptions& options);

// Where reference sample (x, y) lies in a frame moved by `motion` (raw samples).
void trueSourcePosition(const Motion& motion, int width, int height, double x, double y, double* sx, double* sy);

// PSNR (peak 1023) of a against b over the samples of one region.
double regionPsnr(const short* a, const short* b, const std::vector<uint8_t>& regions, Region region);

}  // namespace synth
}  // namespace kep

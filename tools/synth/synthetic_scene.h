#pragma once

#include <cstdint>
#include <vector>

// Deterministic synthetic raw data for the demo, the tests and the benchmarks: a
// procedural scene (fine texture, hard edges, text-like strokes, smooth gradients,
// deep shadows, highlights) rendered as 10-bit Bayer raw through known camera
// motion, with shot and read noise.
namespace kep {
namespace synth {

// Rigid camera motion of one frame, in raw samples: a frame shows the scene at
// rotate(angle, p - centre) + centre + (dx, dy).
struct Motion {
    double dx = 0.0;
    double dy = 0.0;
    double angle = 0.0;  // radians
};

// Linear radiance of the scene in three channels (1.0 = normal full exposure;
// highlights go above 1, shadows toward 0), stored per raw sample position.
class Scene {
public:
    Scene(int width, int height, uint32_t seed);

    int width() const { return width_; }
    int height() const { return height_; }
    // Bilinear sample of channel c (0 red, 1 green, 2 blue) at a continuous position;
    // positions outside the scene repeat its edge.
    float sample(int channel, double x, double y) const;

private:
    int width_;
    int height_;
    std::vector<float> planes_[3];
};

struct RenderOptions {
    int pattern = 0;               // Bayer code: 0 RGGB, 1 BGGR, 2 GRBG, 3 GBRG
    int black = 64;                // pedestal
    double levelsAtOne = 250.0;    // levels above black for radiance 1.0
    double shotNoiseGain = 0.0;    // variance = gain * signal (levels)
    double readNoise = 0.0;        // standard deviation in levels
    uint32_t noiseSeed = 1;
};

// Renders width x height raw samples of the scene through the motion, clamped to 0..1023.
std::vector<short> renderRaw(const Scene& scene, const Motion& motion, const RenderOptions& options);

// Colour of Bayer site (x, y) under a pattern code: 0 red, 1 green, 2 blue.
int bayerChannel(int pattern, int x, int y);

struct BurstOptions {
    int width = 2048;
    int height = 1536;
    int frames = 8;
    uint32_t seed = 2024;
    double levelsAtOne = 250.0;  // low light: the scene sits a few hundred levels above black
    double shotNoiseGain = 2.5;
    double readNoise = 3.0;
    double maxShift = 6.0;       // raw samples
    double maxAngle = 0.0015;    // radians
};

struct Burst {
    int width = 0;
    int height = 0;
    std::vector<std::vector<short>> frames;  // frames 0 and 1 are short exposures (1/8, 1/4), 2 the reference
    std::vector<Motion> motions;
    std::vector<short> clean;  // the reference geometry at normal exposure, without noise
};

// A low-light burst with hand-shake motion; the reference (frame 2) does not move.
Burst makeNightBurst(const Scene& scene, const BurstOptions& options);

struct HdrBracketOptions {
    uint32_t seed = 77;
    double levelsAtOne = 700.0;  // the long exposure: bright parts of the scene clip
    double ratio = 4.0;          // long / short exposure; mid is ratio / 2 darker than long
    double shotNoiseGain = 1.0;
    double readNoise = 2.0;
};

struct HdrBracket {
    int width = 0;
    int height = 0;
    std::vector<short> shortFrame;  // levelsAtOne / ratio
    std::vector<short> midFrame;    // levelsAtOne * 2 / ratio
    std::vector<short> longFrame;   // levelsAtOne
};

// Three exposures of the scene from a steady camera (no motion), RGGB on a
// black level of 64, for the HDR path.
HdrBracket makeHdrBracket(const Scene& scene, const HdrBracketOptions& options);

// PSNR (peak 1023) of a against b over the rectangle [left, right) x [top, bottom).
double psnr(const short* a, const short* b, int width, int left, int top, int right, int bottom);

// A three-exposure HDR bracket of one scene, all frames without motion.
struct BracketOptions {
    double levelsAtOne[3] = {2400.0, 600.0, 150.0};  // frameA (long), frameB, frameC (short)
    int pattern = 0;
    int black = 64;
    double shotNoiseGain = 1.0;
    double readNoise = 2.0;
    uint32_t seed = 77;
};

struct Bracket {
    int width = 0;
    int height = 0;
    std::vector<short> frameA, frameB, frameC;
};

Bracket makeHdrBracket(const Scene& scene, const BracketOptions& options);

}  // namespace synth
}  // namespace kep

#pragma once

#include <cstdint>
#include <string>
#include <vector>

// PNG previews of raw Bayer frames: black removed per site, bilinear demosaic,
// white balance, exposure, sRGB gamma, 8 bits per channel.
namespace kepraw {

struct PreviewOptions {
    int pattern = 0;
    int black[4] = {64, 64, 64, 64};  // per site, 10-bit
    int white = 1023;
    // White balance (red and blue gains relative to green); 0 means gray world:
    // the gains that make the mean red and blue equal to the mean green.
    float redGain = 0.0f;
    float blueGain = 0.0f;
    // Exposure multiplier; 0 means automatic: the 99.5th percentile of green is
    // brought to white, never darkening and at most x16.
    float exposure = 0.0f;
};

struct Preview {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb;  // width x height x 3
    float redGain = 1.0f;      // the gains and exposure actually used
    float blueGain = 1.0f;
    float exposure = 1.0f;
};

Preview renderPreview(const short* raw, int width, int height, const PreviewOptions& options);

// A grey picture of a per-quad map (the robust merge's weights: white where the
// frames were merged fully, black where they were rejected).
Preview weightPicture(const std::vector<uint8_t>& map, int width, int height);

// Writes an 8-bit RGB PNG. Throws std::runtime_error on failure.
void writePng(const std::string& path, const Preview& preview);

}  // namespace kepraw

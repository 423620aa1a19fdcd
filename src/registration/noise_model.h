#pragma once

#include <vector>

#include "registration/tile_motion.h"

// Noise of raw samples as variance = a * signal + b (signal in levels above the
// black level): shot noise grows with the signal, read noise does not.
namespace registration_detail {

struct NoiseModel {
    double a = 0.0;
    double b = 0.0;
};

// Read-noise variance below this is taken as this: every expected variance stays
// positive.
constexpr double kMinReadVariance = 0.25;

// The model used when the burst gives too little to estimate from.
constexpr NoiseModel kFallbackNoise{1.0, 16.0};

// Estimates the model from the reference and one aligned frame (photon transfer):
// over blocks of 4 x 4 quads, per Bayer site, the mean squared
// difference (corrected for the resampling's noise factor) against the mean
// signal; per signal bin the median, which the flat blocks decide even where part
// of the frame is textured or moving; then a weighted straight-line fit. Returns
// false (model untouched) when fewer than kMinBlocksPerBin blocks fall in any bin.
bool estimateNoise(const short* reference, const short* frame, int width, int height, const TileField& field,
                   const int* blackLevelOrder, NoiseModel& model);

constexpr int kMinBlocksPerBin = 24;

// The same from the reference alone, against the neighbouring quad's sample of each
// site: where no aligned frame can be trusted. Detail between neighbours raises it
// a little where the scene is textured.
bool estimateNoiseFromReference(const short* reference, int width, int height, const int* blackLevelOrder,
                                NoiseModel& model);

// Per tile of the grid, 1 where the reference shows detail above its noise: over
// the samples of every other quad row of the tile, the squares of 4 p - (the four same-site neighbours) exceed
// kDetailAboveNoise times what the noise model expects of them (20 variances).
constexpr double kDetailAboveNoise = 1.5;
std::vector<unsigned char> detailedTiles(const short* reference, int width, int height, const int* blackLevelOrder,
                                         const NoiseModel& model);

}  // namespace registration_detail

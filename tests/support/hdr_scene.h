#pragma once

#include <array>
#include <vector>

// Synthetic HDR scenes for the fusion and driver tests.
//
// The scene is grey (every site of a quad sees the same radiance) and made of
// regions whose radiance is constant per quad up to a multiplicative texture
// 1 + 0.3 * s(qx, qy), with s a zero-mean pattern of period 8 quads. Raw frames
// are exposures of it: black level + radiance * scale + read noise, clipped to
// 10 bits, so a long exposure clips the highlights and a short one drowns the
// shadows in noise.
namespace hdrtest {

struct Rect {
    int x, y, width, height;  // in samples, even values
};

struct Scene {
    int width = 0, height = 0;
    std::vector<float> radiance;  // width * height, per sample
    std::vector<float> texture;   // s at each sample (0 outside textured regions)
    Rect shadowPatch{}, highlightPatch{}, blackPatch{};
};

// 256 x 192 (or another even size) scene: deep textured shadows on the left,
// a mid-tone ramp in the middle, textured highlights far above the long
// exposure's clipping point on the right, and a patch of zero radiance.
Scene makeBracketScene(int width, int height);

// Raw exposure: blackLevels[site] + radiance * scale + Gaussian noise of
// `noiseSigma` (deterministic for a given seed), rounded and clipped to [0, 1023].
std::vector<short> exposeRaw(const Scene& scene, float scale, const std::array<int, 4>& blackLevels,
                             float noiseSigma, unsigned seed);

// Local-contrast measure of a textured patch: the top-left sample of every quad
// minus the mean of the 8 x 8 quads (one texture period) around it, correlated
// (Pearson) with the scene's texture; 0 when either has no variance. A clipped
// or noise-dominated patch gives about 0, one that keeps the texture close to 1.
double textureCorrelation(const std::vector<short>& image, const Scene& scene, const Rect& patch);

// Mean of the samples of quad site `site` (0..3) inside `patch`.
double siteMean(const std::vector<short>& image, int width, const Rect& patch, int site);

// {height, width} per pyramid level: halved, an odd half reduced by one more.
std::vector<std::array<int, 2>> pyramidLevelSizes(int width, int height, int levelCount);

}  // namespace hdrtest

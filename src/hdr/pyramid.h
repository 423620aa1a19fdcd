#pragma once

#include <vector>

#include "imgcore/kep_export.h"

// Bayer-preserving Gaussian and Laplacian pyramids for the exposure fusion.
//
// A level is itself a Bayer image made of whole 2x2 quads: level i+1 has
// h' = h/2 rows and w' = w/2 columns of level i, each reduced by one more when it
// is odd (1500 -> 750 -> 374). Up-sampling back to h x w carries the dropped part
// as the remainder {h - 2h', w - 2w'} (0 or 2 each). Every filter works on
// same-colour neighbours, two samples apart.
//
// Levels are allocated by the caller; these functions only write into them. Sizes
// are trusted (null levels or sizes that break the halving rule are the caller's
// fault), with one exception: small levels. Pyramids that go down to 4x4, 2x2 or
// even empty levels (2 halves to 0) are handled without reading or writing outside
// the images: an empty level is never written, the up-sampling filter clamps border
// taps that would fall past the far edge (see multiChannelFilterBorderCopy_v00),
// and the remainder copies are skipped where their source rows or columns do not
// exist.

// Bayer low-pass of the whole height x width image, then 2:1 quad decimation: each
// output quad (r, c) (r, c even) is the low-passed quad at rows 2r, 2r+1 and columns
// 2c, 2c+1. Nothing is written when outHeight or outWidth is below 1. `level` is not
// used. Output samples outside outHeight x outWidth or source samples outside
// height x width are never touched (only matters for odd output sizes).
KEP_API void imageDownSample_short(short* src, short* dst, int height, int width, int outHeight, int outWidth,
                                   int level);
KEP_API void imageDownSample_ushort(unsigned short* src, unsigned short* dst, int height, int width, int outHeight,
                                    int outWidth, int level);

// Fills levels 1 .. levelCount-1 of `pyramid` from its level 0 (which must already
// hold the image; `image` and `frameIndex` are not read). No-op for levelCount < 2.
KEP_API void gaussianPyramid(unsigned short* image, std::vector<unsigned short*>* pyramid, int width, int height,
                             int levelCount, int frameIndex);
// Same, but every nonzero sample of each produced level is then set to 255 (a mask
// pyramid; the next level is built from the masked one).
KEP_API void gaussianPyramid_tmp(unsigned short* image, std::vector<unsigned short*>* pyramid, int width, int height,
                                 int levelCount);

// Turns the frame pyramid (level 0 = the frame, other levels allocated) into a
// Laplacian pyramid in place: level i becomes level i minus the up-sampled level
// i+1 (16-bit wrap-around), followed by the detail gains of applyDetailGains; the
// coarsest level keeps the low-pass residual. The low-pass level
// shallowLevelCount-1 is copied into shallowResidual before it is differenced.
// `frame` is not read. No-op for levelCount < 2.
KEP_API void laplacianPyramid(short* frame, std::vector<short*>* pyramid, short* shallowResidual, int width,
                              int height, int levelCount, int shallowLevelCount, float gain0, float gain1,
                              int gainMaxLevel);

// 2:1 Bayer up-sampling of a height x width image into H2 x W2 =
// (2*height + remainder[0]) x (2*width + remainder[1]) samples: zero insertion of
// whole quads times 4 (the product kept as a 16-bit sample), remainder columns and
// rows repeated from the last written quad column / rows H2-6 and H2-5, then the
// same-colour 5x5 binomial filter (multiChannelFilterBorderCopy_v00, radius 2,
// step 2, no rounding). Strides are in bytes; a source stride of 0 means
// 2*width, a destination stride of 0 means 2*W2. `level` is not used.
//
// Regular inputs (even height and width >= 2, remainders 0 or 2, src and dst
// apart) take a separable path that never materialises the zero-inserted image
// and skips the taps on inserted zeros; it is bit-identical to
// imageUpSampleReference. Everything else goes through the reference.
//
// Fast paths (all bit-identical to the plain definitions below, which a
// -DKEP_FORCE_PLAIN=ON build takes everywhere): the down-sampling computes the
// low-pass only at the samples it keeps; laplacianPyramid and
// reconstructLaplacianPyramid difference or add the up-sampled level a band of
// rows at a time on four workers, without an up-sampled scratch image; detail
// gains of exactly 1 are skipped.
KEP_API void imageUpSample(short* src, short* dst, int height, int width, int srcStrideBytes, int dstStrideBytes,
                           int* remainder, int level);

// Collapses a Laplacian pyramid in place, level levelCount-2 down to 0: level i +=
// the up-sampled level i+1 (16-bit wrap-around, four workers on row stripes), and
// level 0 is finally clamped to [0, 2*whiteLevel]. Sizes come from levelSizes
// ({height, width} per level). No-op for levelCount < 2.
KEP_API void reconstructLaplacianPyramid(std::vector<short*>* pyramid, std::vector<int*>* levelSizes,
                                         int levelCount, int whiteLevel);

// Worker body: out = a + b (16-bit wrap-around) over rows [rowStart, rowEnd) and
// columns [colStart, colEnd) of images with row stride `stride` samples.
// `whiteLevel` is not read.
KEP_API void reconstructCalculation(short* a, short* b, short* out, int rowStart, int rowEnd, int colStart,
                                    int colEnd, int stride, int whiteLevel);

// ---- internal pieces (not exported), reachable from the tests ----

// Plain definitions: down-sampling as Bayer low-pass of the whole image then
// decimation; the Laplacian pyramid and its collapse through whole up-sampled
// scratch images.
void imageDownSamplePlain(short* src, short* dst, int height, int width, int outHeight, int outWidth);
void imageDownSamplePlain(unsigned short* src, unsigned short* dst, int height, int width, int outHeight,
                          int outWidth);
void laplacianPyramidPlain(std::vector<short*>* pyramid, short* shallowResidual, int width, int height,
                           int levelCount, int shallowLevelCount, float gain0, float gain1, int gainMaxLevel);
void reconstructLaplacianPyramidPlain(std::vector<short*>* pyramid, std::vector<int*>* levelSizes, int levelCount,
                                      int whiteLevel);

// Plain up-sampling, step by step as described above (zero-filled scratch image,
// then the generic filter). Safe for any sizes: quads are written only where they
// fit, the remainder columns need width >= 2, the remainder rows need H2 >= 6.
void imageUpSampleReference(const short* src, short* dst, int height, int width, int srcStrideBytes,
                            int dstStrideBytes, const int* remainder);

// Detail gains of Laplacian level `level` (height x width), each product taken in
// single precision, truncated toward zero (saturating to int) and stored as its
// low 16 bits:
//   level 0: every sample times gain0;
//   level 1: quads (2x2, even origin) whose smallest sample m <= -31 are scaled by
//            gain1 * 0.9f, those with -31 < m <= -21 by gain1 (always applied,
//            whatever gainMaxLevel is);
//   2 <= level <= gainMaxLevel: quads with m < -20 scaled by gain1;
//   other levels: unchanged.
void applyDetailGains(short* image, int height, int width, int level, float gain0, float gain1, int gainMaxLevel);

// Size of the next pyramid level along one side: side/2, minus one when odd.
inline int halvedLevelSide(int side) {
    int half = side / 2;
    return (half % 2 != 0) ? half - 1 : half;
}

#pragma once

#include <vector>

#include "imgcore/kep_export.h"

// Bayer-preserving Gaussian and Laplacian pyramids. Levels are whole-quad images;
// each level halves both sides, an odd half rounded down to even.

KEP_API void imageDownSample_short(short* src, short* dst, int height, int width, int outHeight, int outWidth,
                                   int level);
KEP_API void imageDownSample_ushort(unsigned short* src, unsigned short* dst, int height, int width, int outHeight,
                                    int outWidth, int level);
KEP_API void gaussianPyramid(unsigned short* image, std::vector<unsigned short*>* pyramid, int width, int height,
                             int levelCount, int frameIndex);
KEP_API void gaussianPyramid_tmp(unsigned short* image, std::vector<unsigned short*>* pyramid, int width, int height,
                                 int levelCount);
KEP_API void laplacianPyramid(short* frame, std::vector<short*>* pyramid, short* shallowResidual, int width,
                              int height, int levelCount, int shallowLevelCount, float gain0, float gain1,
                              int gainMaxLevel);
KEP_API void imageUpSample(short* src, short* dst, int height, int width, int srcStrideBytes, int dstStrideBytes,
                           int* remainder, int level);
KEP_API void reconstructLaplacianPyramid(std::vector<short*>* pyramid, std::vector<int*>* levelSizes,
                                         int levelCount, int whiteLevel);
KEP_API void reconstructCalculation(short* a, short* b, short* out, int rowStart, int rowEnd, int colStart,
                                    int colEnd, int stride, int whiteLevel);

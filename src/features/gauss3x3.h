#pragma once

#include "imgcore/kep_export.h"

// Fixed-point separable 3x3 blur of an 8-bit image with the kernel
// {side, centre, side} (unsigned 8-bit weights; the kernels built here sum to 256,
// so the 2-D filter has a gain of 65536).
//
// Horizontal pass, rows 0..height-1, columns 1..width-2, in unsigned 16-bit
// arithmetic (wraps modulo 65536 for kernels summing above 256):
//   t[y][x] = k0*src[y][x-1] + k1*src[y][x] + k2*src[y][x+1]
// Vertical pass, rows 1..height-2, columns 1..width-2, in unsigned 32-bit:
//   s = k1*t[y][x] + k0*t[y-1][x] + k2*t[y+1][x];  dst[y][x] = (unsigned char)(s >> 16)
// The shift truncates (no rounding term): the blur is slightly darker than the
// exact mean, and the feature thresholds are tuned on these exact values.
//
// The one-pixel frame of dst is never written; with height < 3 or width < 3
// nothing is written at all. Strides are in bytes (0 means width; a negative
// stride walks the rows upward in memory). Every width is handled; no pixel
// outside the image is read.
//
// Returns -1 if src, dst or kernel is null or the 16-bit temporary plane cannot
// be allocated (nothing written), otherwise 0.
KEP_API int gauss3x3_u8(const unsigned char* src, unsigned char* dst, int width, int height, int srcStride,
                        int dstStride, const unsigned char* kernel);

// Blur with the 3x3 kernel derived from sigma: e = exp(-1 / (2 sigma^2)) (float),
// side = floor(256 e / (2e + 1)), centre = 256 - 2*side (1.5 gives 78/100/78).
// When side is 0 (sigma below about 0.3005) the blur is the identity and only the
// interior (width-2) x (height-2) block is copied; the frame of dst keeps its
// contents. Returns the status of the blur or of the copy (0, or -1/-2 for a null
// pointer).
KEP_API int qnGauss3x3Filter(unsigned char* src, unsigned char* dst, int width, int height, float sigma);

// Side weight of the kernel derived from sigma (0..85). Internal.
int gauss3x3SideWeight(float sigma);

// Plain per-pixel form of gauss3x3_u8, without the temporary plane; the
// reference the optimised passes are checked against. Same contract and status.
int gauss3x3U8Plain(const unsigned char* src, unsigned char* dst, int width, int height, int srcStride, int dstStride,
                    const unsigned char* kernel);

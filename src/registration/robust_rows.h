#pragma once

#include <cstdint>

#include "imgcore/simd_dispatch.h"

// Row kernels of the robust merge's fast form, compiled for every target (see
// imgcore/simd_dispatch.h). Each computes, sample by sample, exactly the
// expression its plain counterpart uses (the shared inline functions of
// registration/cubic_kernel.h and registration/robust_merge.h).
namespace registration_detail {

// The horizontal pass of a Bayer plane over a run of tiles with per-column weights:
// out[i] = ((w0[i] in[i - 2] + w1[i] in[i]) + w2[i] in[i + 2]) + w3[i] in[i + 4]
// (samples as floats), which is cubicTaps with the column's tile weights.
void cubicRow(KernelIsa isa, const short* in, const float* const* w, float* out, int n);
// The vertical pass: out[i] = ((w0[i] h0[i] + w1[i] h1[i]) + w2[i] h2[i]) + w3[i] h3[i].
void cubicColumn(KernelIsa isa, const float* const* h, const float* const* w, float* out, int n);
// The same with the linear kernel: out[i] = w1[i] in[i] + w2[i] in[i + 2] and
// out[i] = w1[i] h1[i] + w2[i] h2[i] (linearTaps; w0, w3, h0 and h3 are not read).
void linearRow(KernelIsa isa, const short* in, const float* const* w, float* out, int n);
void linearColumn(KernelIsa isa, const float* const* h, const float* const* w, float* out, int n);
// out[i] = squaredDifference(a[i], r[i]).
void squaredDifferenceRow(KernelIsa isa, const float* a, const short* r, int32_t* out, int n);
// out[x] = mergeWeight of the three rows' sums of quad x, 1 where valid[x] is 0 (a
// quad without data is no rejection to spread).
void weightRow(KernelIsa isa, const int32_t* d0, const int32_t* d1, const int32_t* d2, const float* expected,
               const float* spread, const unsigned char* valid, float* out, int n);
// acc[i] += w[i] * a[i].
void accumulateRow(KernelIsa isa, float* acc, const float* w, const float* a, int n);
// out[i] = alignedSample(a[i]).
void alignedRow(KernelIsa isa, const float* a, short* out, int n);
// out[i] = finishSample(mergedValue(acc[i], den[i]), black[i], gain, bits).
void finishRow(KernelIsa isa, const float* acc, const float* den, const int32_t* black, uint16_t* out, int n,
               float gain, int bits);

}  // namespace registration_detail

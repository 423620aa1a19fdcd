#pragma once

#include <cstdint>

#include "imgcore/simd_dispatch.h"

// Row kernels of the robust merge's fast form, compiled for every target (see
// imgcore/simd_dispatch.h). Each computes, sample by sample, exactly the
// expression its plain counterpart uses (the shared inline functions of
// registration/cubic_kernel.h and registration/robust_merge.h).
namespace registration_detail {

// conv[0 .. n + 6) = in[-2 .. n + 4) as floats; out[i] = cubicTaps(w, conv[i],
// conv[i + 2], conv[i + 4], conv[i + 6]): the horizontal pass of a Bayer plane.
void cubicRow(KernelIsa isa, const short* in, float* conv, float* out, int n, const float* w);
// out[i] = cubicTaps(w, h0[i], h1[i], h2[i], h3[i]): the vertical pass.
void cubicColumn(KernelIsa isa, const float* h0, const float* h1, const float* h2, const float* h3, float* out, int n,
                 const float* w);
// out[i] = squaredDifference(a[i], r[i]).
void squaredDifferenceRow(KernelIsa isa, const float* a, const short* r, int32_t* out, int n);
// out[x] = mergeWeight of the three rows' sums of quad x, 0 where valid[x] is 0.
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

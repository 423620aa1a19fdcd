#include "registration/robust_rows.h"

#include "registration/cubic_kernel.h"
#include "registration/robust_merge.h"

namespace registration_detail {

namespace {

KEP_KERNEL_BODY void cubicRowBody(const short* in, const float* const* w, float* out, int n) {
    const float *w0 = w[0], *w1 = w[1], *w2 = w[2], *w3 = w[3];
    for (int i = 0; i < n; ++i) {
        const float taps[4] = {w0[i], w1[i], w2[i], w3[i]};
        out[i] = cubicTaps(taps, static_cast<float>(in[i - 2]), static_cast<float>(in[i]), static_cast<float>(in[i + 2]),
                           static_cast<float>(in[i + 4]));
    }
}

KEP_KERNEL_BODY void cubicColumnBody(const float* const* h, const float* const* w, float* out, int n) {
    const float *h0 = h[0], *h1 = h[1], *h2 = h[2], *h3 = h[3];
    const float *w0 = w[0], *w1 = w[1], *w2 = w[2], *w3 = w[3];
    for (int i = 0; i < n; ++i) {
        const float taps[4] = {w0[i], w1[i], w2[i], w3[i]};
        out[i] = cubicTaps(taps, h0[i], h1[i], h2[i], h3[i]);
    }
}

KEP_KERNEL_BODY void linearRowBody(const short* in, const float* const* w, float* out, int n) {
    const float *w1 = w[1], *w2 = w[2];
    for (int i = 0; i < n; ++i) {
        const float taps[4] = {0.0f, w1[i], w2[i], 0.0f};
        out[i] = linearTaps(taps, static_cast<float>(in[i]), static_cast<float>(in[i + 2]));
    }
}

KEP_KERNEL_BODY void linearColumnBody(const float* const* h, const float* const* w, float* out, int n) {
    const float *h1 = h[1], *h2 = h[2], *w1 = w[1], *w2 = w[2];
    for (int i = 0; i < n; ++i) {
        const float taps[4] = {0.0f, w1[i], w2[i], 0.0f};
        out[i] = linearTaps(taps, h1[i], h2[i]);
    }
}

KEP_KERNEL_BODY void squaredDifferenceRowBody(const float* a, const short* r, int32_t* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = squaredDifference(a[i], r[i]);
}

KEP_KERNEL_BODY void weightRowBody(const int32_t* d0, const int32_t* d1, const int32_t* d2, const float* expected,
                                   const float* spread, const unsigned char* valid, float* out, int n) {
    for (int i = 0; i < n; ++i) {
        const float w = mergeWeight((d0[i] + d1[i]) + d2[i], expected[i], spread[i]);
        out[i] = valid[i] ? w : 1.0f;
    }
}

KEP_KERNEL_BODY void accumulateRowBody(float* acc, const float* w, const float* a, int n) {
    for (int i = 0; i < n; ++i) acc[i] += w[i] * a[i];
}

KEP_KERNEL_BODY void alignedRowBody(const float* a, short* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = alignedSample(a[i]);
}

KEP_KERNEL_BODY void finishRowBody(const float* acc, const float* den, const int32_t* black, uint16_t* out, int n,
                                   float gain, int bits) {
    for (int i = 0; i < n; ++i) out[i] = finishSample(mergedValue(acc[i], den[i]), black[i], gain, bits);
}

}  // namespace

KEP_ROW_KERNEL(cubicRow, (const short* in, const float* const* w, float* out, int n), (in, w, out, n))
KEP_ROW_KERNEL(cubicColumn, (const float* const* h, const float* const* w, float* out, int n), (h, w, out, n))
KEP_ROW_KERNEL(linearRow, (const short* in, const float* const* w, float* out, int n), (in, w, out, n))
KEP_ROW_KERNEL(linearColumn, (const float* const* h, const float* const* w, float* out, int n), (h, w, out, n))
KEP_ROW_KERNEL(squaredDifferenceRow, (const float* a, const short* r, int32_t* out, int n), (a, r, out, n))
KEP_ROW_KERNEL(weightRow,
               (const int32_t* d0, const int32_t* d1, const int32_t* d2, const float* expected, const float* spread,
                const unsigned char* valid, float* out, int n),
               (d0, d1, d2, expected, spread, valid, out, n))
KEP_ROW_KERNEL(accumulateRow, (float* acc, const float* w, const float* a, int n), (acc, w, a, n))
KEP_ROW_KERNEL(alignedRow, (const float* a, short* out, int n), (a, out, n))
KEP_ROW_KERNEL(finishRow,
               (const float* acc, const float* den, const int32_t* black, uint16_t* out, int n, float gain, int bits),
               (acc, den, black, out, n, gain, bits))

}  // namespace registration_detail

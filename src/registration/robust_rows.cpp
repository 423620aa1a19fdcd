#include "registration/robust_rows.h"

#include "registration/cubic_kernel.h"
#include "registration/robust_merge.h"

namespace registration_detail {

namespace {

KEP_KERNEL_BODY void cubicRowBody(const short* in, float* conv, float* out, int n, const float* w) {
    const short* src = in - 2;
    for (int i = 0; i < n + 6; ++i) conv[i] = static_cast<float>(src[i]);
    const float w0 = w[0], w1 = w[1], w2 = w[2], w3 = w[3];
    const float taps[4] = {w0, w1, w2, w3};
    for (int i = 0; i < n; ++i) out[i] = cubicTaps(taps, conv[i], conv[i + 2], conv[i + 4], conv[i + 6]);
}

KEP_KERNEL_BODY void cubicColumnBody(const float* h0, const float* h1, const float* h2, const float* h3, float* out,
                                     int n, const float* w) {
    const float taps[4] = {w[0], w[1], w[2], w[3]};
    for (int i = 0; i < n; ++i) out[i] = cubicTaps(taps, h0[i], h1[i], h2[i], h3[i]);
}

KEP_KERNEL_BODY void squaredDifferenceRowBody(const float* a, const short* r, int32_t* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = squaredDifference(a[i], r[i]);
}

KEP_KERNEL_BODY void weightRowBody(const int32_t* d0, const int32_t* d1, const int32_t* d2, const float* expected,
                                   const float* spread, const unsigned char* valid, float* out, int n) {
    for (int i = 0; i < n; ++i) {
        const float w = mergeWeight((d0[i] + d1[i]) + d2[i], expected[i], spread[i]);
        out[i] = valid[i] ? w : 0.0f;
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

KEP_ROW_KERNEL(cubicRow, (const short* in, float* conv, float* out, int n, const float* w), (in, conv, out, n, w))
KEP_ROW_KERNEL(cubicColumn,
               (const float* h0, const float* h1, const float* h2, const float* h3, float* out, int n, const float* w),
               (h0, h1, h2, h3, out, n, w))
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

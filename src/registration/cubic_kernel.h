#pragma once

// The interpolation kernels that resample Bayer planes: four weights for the
// samples at offsets -1, 0, 1 and 2 from a source position whose fraction is t
// (0 <= t < 1). Single precision in a fixed order of operations, so that every
// caller gets the same bits.
namespace registration_detail {

// Cubic convolution (a = -0.5): keeps detail up to near the sampling limit.
inline void cubicWeights(float t, float w[4]) {
    const float t2 = t * t;
    const float t3 = t2 * t;
    w[0] = (t2 - 0.5f * t3) - 0.5f * t;
    w[1] = (1.5f * t3 - 2.5f * t2) + 1.0f;
    w[2] = (2.0f * t2 - 1.5f * t3) + 0.5f * t;
    w[3] = 0.5f * t3 - 0.5f * t2;
}

// Linear: smooths noise most where there is no detail to keep.
inline void linearWeights(float t, float w[4]) {
    w[0] = 0.0f;
    w[1] = 1.0f - t;
    w[2] = t;
    w[3] = 0.0f;
}

// w1 * b + w2 * c: one pass of the linear kernel (its outer weights are 0).
inline float linearTaps(const float w[4], float b, float c) { return w[1] * b + w[2] * c; }

// ((w0 * a + w1 * b) + w2 * c) + w3 * d: one pass of the cubic kernel.
inline float cubicTaps(const float w[4], float a, float b, float c, float d) {
    return ((w[0] * a + w[1] * b) + w[2] * c) + w[3] * d;
}

}  // namespace registration_detail

#include "registration/monotone_curve.h"

#include <algorithm>
#include <cstdlib>

namespace {

// Slopes at the control points, all in single precision.
void computeSlopes(const int* xs, const int* ys, int count, float* d) {
    for (int k = 1; k <= count - 2; ++k) {
        const float h0 = static_cast<float>(xs[k] - xs[k - 1]);
        const float h1 = static_cast<float>(xs[k + 1] - xs[k]);
        const float hs = static_cast<float>(xs[k + 1] - xs[k - 1]);
        const float s0 = static_cast<float>(ys[k] - ys[k - 1]) / h0;
        const float s1 = static_cast<float>(ys[k + 1] - ys[k]) / h1;
        const float smax = std::max(s0, s1);
        const float smin = std::min(s0, s1);
        if (s0 == 0.0f || s1 == 0.0f) {
            d[k] = 0.0f;
        } else {
            // Weighted harmonic mean of the two secants.
            const float w0 = (s0 / smax) * (2.0f * h0 + h1) / (3.0f * hs);
            const float w1 = (s1 / smax) * (h0 + 2.0f * h1) / (3.0f * hs);
            d[k] = smin / (w0 + w1);
        }
        if (k == 1) {
            const float first = ((2.0f * h0 + h1) * s0 - h0 * s1) / (h0 + h1);
            d[0] = first <= 0.0f ? 0.0f : first;  // negative (or negative zero) becomes +0
        }
        if (k == count - 2) {
            const float last = ((2.0f * h1 + h0) * s1 - h1 * s0) / (h0 + h1);
            d[count - 1] = last <= 0.0f ? 0.0f : last;
        }
    }
}

}  // namespace

float* getNInterpolation(int* xs, int* ys, int count) {
    if (count < 1 || xs[count - 1] < 0) return nullptr;
    const int size = xs[count - 1] + 1;
    float* curve = static_cast<float*>(std::calloc(static_cast<size_t>(size), sizeof(float)));
    float* d = static_cast<float*>(std::calloc(static_cast<size_t>(count), sizeof(float)));
    if (curve == nullptr || d == nullptr) {
        std::free(curve);
        std::free(d);
        return nullptr;
    }
    if (count > 2) computeSlopes(xs, ys, count, d);

    for (int k = 0; k + 1 < count; ++k) {
        if (!(xs[k] < xs[k + 1])) continue;
        const float h = static_cast<float>(xs[k + 1] - xs[k]);
        const float y0 = static_cast<float>(ys[k]);
        const float y1 = static_cast<float>(ys[k + 1]);
        const int from = std::max(xs[k], 0);
        const int to = std::min(xs[k + 1], size);  // exclusive
        for (int x = from; x < to; ++x) {
            const float t = static_cast<float>(x - xs[k]) / h;
            const float t2 = t * t;
            const float t3 = t2 * t;
            curve[x] = y0 * (2.0f * t3 - 3.0f * t2 + 1.0f) + h * d[k] * (t3 - 2.0f * t2 + t) +
                       y1 * (3.0f * t2 - 2.0f * t3) + h * d[k + 1] * (t3 - t2);
        }
    }
    curve[size - 1] = static_cast<float>(ys[count - 1]);
    std::free(d);
    return curve;
}

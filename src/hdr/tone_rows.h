#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

#include "imgcore/saturate.h"
#include "imgcore/simd_dispatch.h"

// Per-sample and per-quad pieces of the tone and colour operators, shared by
// tone_ops.cpp and the driver's fused row kernels (internal, not exported).
namespace tone_rows {

// Scale factors up to this magnitude keep every product with a 16-bit sample within
// +-2^30, far inside the int range, so the plain conversion is exact there; larger,
// infinite or NaN factors go through the saturating conversion.
constexpr float kSafeScale = 32768.0f;

inline bool scaleIsSafe(float s) { return std::fabs(s) <= kSafeScale; }  // false for NaN

template <bool Checked>
KEP_KERNEL_BODY int truncate(float v) {
    if constexpr (Checked) {
        return truncToInt(v);
    } else {
        return static_cast<int>(v);
    }
}

// gain * sample, clamped above at the white level, truncated, kept to 16 bits. The
// upper clamp only lowers v, to a value in [-2^31, 2^31): it cannot leave the range.
template <bool Checked>
KEP_KERNEL_BODY short scaleAndClamp(short sample, float gain, float white) {
    float v = gain * static_cast<float>(sample);
    if (v > white) v = white;
    return static_cast<short>(truncate<Checked>(v));
}

// Quad mean: the 32-bit sum of the four samples shifted right by 2 (arithmetic shift).
KEP_KERNEL_BODY int quadMean(const short* top, const short* bottom, int c) {
    return (static_cast<int>(top[c]) + top[c + 1] + bottom[c] + bottom[c + 1]) >> 2;
}

// Fast row form of greenAttenuation, in place on one quad row (rows `top` and
// `top + width`), for a positive white level. The factor then lies in [0.96, 1], so
// f * sample + 0.5 is inside the int range and the plain conversion equals the
// saturating one. The branches become bit masks so that the loop vectorises under
// strict IEEE semantics (a conditionally evaluated float operation could trap and
// keeps the compiler from if-converting): the double comparisons g < 0.2 and
// g > 0.3 of a finite float g are integer comparisons of its bit pattern with
// those of the nearest floats on the right side of each bound (the order of the
// bit patterns read as signed integers is the order of the values for non-negative
// floats, and every negative float compares below both).
struct GreenBounds {
    std::int32_t darkBelow;    // bits of the smallest float >= 0.2
    std::int32_t brightAbove;  // bits of the largest float <= 0.3
    std::int32_t dimBits, oneBits;
    GreenBounds() {
        float low = 0.2f, high = 0.3f;
        while (static_cast<double>(low) < 0.2) low = std::nextafter(low, 1.0f);
        while (static_cast<double>(std::nextafter(low, 0.0f)) >= 0.2) low = std::nextafter(low, 0.0f);
        while (static_cast<double>(high) > 0.3) high = std::nextafter(high, 0.0f);
        while (static_cast<double>(std::nextafter(high, 1.0f)) <= 0.3) high = std::nextafter(high, 1.0f);
        const float dim = 0.96f, one = 1.0f;
        std::memcpy(&darkBelow, &low, sizeof low);
        std::memcpy(&brightAbove, &high, sizeof high);
        std::memcpy(&dimBits, &dim, sizeof dim);
        std::memcpy(&oneBits, &one, sizeof one);
    }
};

KEP_KERNEL_BODY void attenuateGreensInPlace(short* top, int width, int firstCol, int secondCol, float white,
                                            const GreenBounds& bounds) {
    short* bottom = top + width;
    const int quads = width / 2;
    for (int j = 0; j < quads; ++j) {
        const int g1 = top[2 * j + firstCol], g2 = bottom[2 * j + secondCol];
        const float g = static_cast<float>(static_cast<double>(g1 + g2) * 0.5) / white;
        const float ramp = static_cast<float>(static_cast<double>(g) * 0.4 + 0.88);
        std::int32_t bits, factorBits;
        std::memcpy(&bits, &g, sizeof g);
        std::memcpy(&factorBits, &ramp, sizeof ramp);
        const std::int32_t bright = -static_cast<std::int32_t>(bits > bounds.brightAbove);
        const std::int32_t dark = -static_cast<std::int32_t>(bits < bounds.darkBelow);
        factorBits = (factorBits & ~bright) | (bounds.oneBits & bright);
        factorBits = (factorBits & ~dark) | (bounds.dimBits & dark);
        float f;
        std::memcpy(&f, &factorBits, sizeof f);
        top[2 * j + firstCol] =
            static_cast<short>(static_cast<int>(static_cast<double>(f * static_cast<float>(g1)) + 0.5));
        bottom[2 * j + secondCol] =
            static_cast<short>(static_cast<int>(static_cast<double>(f * static_cast<float>(g2)) + 0.5));
    }
}

// out[x] = table[index[x]], the arrays declared apart so that wide vectors gather
// (a table that might overlap the output keeps the look-up loop scalar).
KEP_KERNEL_BODY void lookUp(const float* __restrict table, const int* __restrict index, float* __restrict out, int n) {
    for (int x = 0; x < n; ++x) out[x] = table[index[x]];
}

// Per-site gains of white balance (even/even, even/odd, odd/even, odd/odd) for a
// pattern code; unknown codes (negative ones too) give zeros.
inline void whiteBalanceGains(float redGain, float blueGain, int bayerPattern, float gains[4]) {
    gains[0] = gains[1] = gains[2] = gains[3] = 0.0f;
    switch (static_cast<unsigned>(bayerPattern)) {
        case 0: gains[0] = redGain, gains[1] = 1.0f, gains[2] = 1.0f, gains[3] = blueGain; break;
        case 1: gains[0] = blueGain, gains[1] = 1.0f, gains[2] = 1.0f, gains[3] = redGain; break;
        case 2: gains[0] = 1.0f, gains[1] = redGain, gains[2] = blueGain, gains[3] = 1.0f; break;
        case 3: gains[0] = 1.0f, gains[1] = blueGain, gains[2] = redGain, gains[3] = 1.0f; break;
        default: break;
    }
}

// Columns of the two greens of a quad, on its top and bottom row: the diagonal for
// codes 2 and above (compared unsigned), the anti-diagonal for 0 and 1.
inline void greenColumns(int bayerPattern, int* firstCol, int* secondCol) {
    const bool diagonal = static_cast<unsigned>(bayerPattern) >= 2u;
    *firstCol = diagonal ? 0 : 1;
    *secondCol = diagonal ? 1 : 0;
}

}  // namespace tone_rows

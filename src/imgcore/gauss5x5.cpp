#include "imgcore/gauss5x5.h"

#include <cstddef>
#include <cstdint>
#include <memory>

#include "imgcore/fast_paths.h"
#include "imgcore/simd_clones.h"

namespace {

// t(x) = k0*s(x-2) + .. + k4*s(x+2) for x in [2, width-3], wrapped to 16 bits.
// Columns 0, 1, width-2 and width-1 of t are left unwritten.
KEP_SIMD_CLONES
void horizontalRow(const uint8_t* __restrict s, uint16_t* __restrict t, int width, const uint8_t* kernel) {
    const int k0 = kernel[0], k1 = kernel[1], k2 = kernel[2], k3 = kernel[3], k4 = kernel[4];
    for (int x = 2; x < width - 2; ++x)
        t[x] = static_cast<uint16_t>(k0 * s[x - 2] + k1 * s[x - 1] + k2 * s[x] + k3 * s[x + 1] + k4 * s[x + 2]);
}

// Vertical taps over five intermediate rows, scaled by the single-precision
// reciprocal of S*S. u <= S * 65535 and u <= 255 * S*S, so u * recip stays below
// 256 and fits the int conversion; u itself is below 2^31, so converting it via
// int gives the same float as via unsigned.
KEP_SIMD_CLONES
void verticalRow(const uint16_t* __restrict t0, const uint16_t* __restrict t1, const uint16_t* __restrict t2,
                 const uint16_t* __restrict t3, const uint16_t* __restrict t4, uint8_t* __restrict d, int width,
                 const uint8_t* kernel, float recip) {
    const int k0 = kernel[0], k1 = kernel[1], k2 = kernel[2], k3 = kernel[3], k4 = kernel[4];
    for (int x = 2; x < width - 2; ++x) {
        const int u = k0 * t0[x] + k1 * t1[x] + k2 * t2[x] + k3 * t3[x] + k4 * t4[x];
        d[x] = static_cast<uint8_t>(static_cast<int>(static_cast<float>(u) * recip));
    }
}

void zeroInterior(uint8_t* dst, int width, int height, int dstStride) {
    for (int y = 2; y < height - 2; ++y) {
        uint8_t* d = dst + static_cast<std::ptrdiff_t>(y) * dstStride;
        for (int x = 2; x < width - 2; ++x) d[x] = 0;
    }
}

// The ring form reads source row y + 2 just before writing output row y: safe when
// the images do not overlap, or when they are the same image with one stride.
bool ringIsSafe(const uint8_t* src, const uint8_t* dst, int width, int height, int srcStride, int dstStride) {
    if (srcStride < width || dstStride < width) return false;
    if (src == dst && srcStride == dstStride) return true;
    const auto span = [&](const uint8_t* p, int stride) {
        return reinterpret_cast<std::uintptr_t>(p) + static_cast<std::size_t>(height - 1) * stride + width;
    };
    const auto s0 = reinterpret_cast<std::uintptr_t>(src), d0 = reinterpret_cast<std::uintptr_t>(dst);
    return span(src, srcStride) <= d0 || span(dst, dstStride) <= s0;
}

}  // namespace

int gauss5x5_u8(const unsigned char* src, unsigned char* dst, int width, int height, int srcStride, int dstStride,
                const unsigned char* kernel) {
    if (src == nullptr || dst == nullptr || kernel == nullptr) return -1;
    // Nothing lies two pixels inside every side: no output, and the horizontal
    // results would never be read.
    if (width < 5 || height < 5) return 0;
    if (srcStride == 0) srcStride = width;
    if (dstStride == 0) dstStride = width;

    const int sum = kernel[0] + kernel[1] + kernel[2] + kernel[3] + kernel[4];
    if (sum == 0) {
        // 0 * (1/0) is NaN, which the target's float-to-unsigned conversion turns into 0.
        zeroInterior(dst, width, height, dstStride);
        return 0;
    }

    const std::size_t w = static_cast<std::size_t>(width);
    const float recip = 1.0f / static_cast<float>(sum * sum);
    if (kUseFastPaths && ringIsSafe(src, dst, width, height, srcStride, dstStride)) {
        // Five intermediate rows in a ring instead of the whole intermediate image:
        // the same values, computed in the same order, without a frame-sized
        // allocation. An output row is written only after every source row it
        // needs has gone through the horizontal pass, and a source row is read only
        // before the output row of the same index is written, so in-place use
        // reads the input as it was.
        std::unique_ptr<uint16_t[]> ring(new uint16_t[5 * w]);
        auto ringRow = [&](int y) { return ring.get() + static_cast<std::size_t>(y % 5) * w; };
        for (int y = 0; y < 4; ++y) horizontalRow(src + static_cast<std::ptrdiff_t>(y) * srcStride, ringRow(y), width, kernel);
        for (int y = 2; y < height - 2; ++y) {
            horizontalRow(src + static_cast<std::ptrdiff_t>(y + 2) * srcStride, ringRow(y + 2), width, kernel);
            verticalRow(ringRow(y - 2), ringRow(y - 1), ringRow(y), ringRow(y + 1), ringRow(y + 2),
                        dst + static_cast<std::ptrdiff_t>(y) * dstStride, width, kernel, recip);
        }
        return 0;
    }
    std::unique_ptr<uint16_t[]> tmp(new uint16_t[w * static_cast<std::size_t>(height)]);
    for (int y = 0; y < height; ++y)
        horizontalRow(src + static_cast<std::ptrdiff_t>(y) * srcStride, tmp.get() + y * w, width, kernel);

    for (int y = 2; y < height - 2; ++y) {
        const uint16_t* t = tmp.get() + (y - 2) * w;
        verticalRow(t, t + w, t + 2 * w, t + 3 * w, t + 4 * w, dst + static_cast<std::ptrdiff_t>(y) * dstStride,
                    width, kernel, recip);
    }
    return 0;
}

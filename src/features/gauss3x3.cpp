#include "features/gauss3x3.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <new>

#include "imgcore/copy_rect.h"
#include "imgcore/saturate.h"

namespace {

inline std::ptrdiff_t rowOffset(int row, int stride) { return static_cast<std::ptrdiff_t>(row) * stride; }

// Horizontal pass of one row into t (columns 1..width-2). The 16-bit result is
// what the filter defines; the compiler vectorises this loop.
void horizontalRow(const unsigned char* __restrict s, std::uint16_t* __restrict t, int width, unsigned k0, unsigned k1,
                   unsigned k2) {
    for (int x = 1; x < width - 1; ++x) t[x] = static_cast<std::uint16_t>(k0 * s[x - 1] + k1 * s[x] + k2 * s[x + 1]);
}

// Vertical pass of one output row from the three 16-bit rows around it.
void verticalRow(const std::uint16_t* __restrict up, const std::uint16_t* __restrict mid,
                 const std::uint16_t* __restrict down, unsigned char* __restrict d, int width, std::uint32_t k0,
                 std::uint32_t k1, std::uint32_t k2) {
    for (int x = 1; x < width - 1; ++x) {
        const std::uint32_t s = k1 * mid[x] + k0 * up[x] + k2 * down[x];
        d[x] = static_cast<unsigned char>(s >> 16);
    }
}

}  // namespace

int gauss3x3SideWeight(float sigma) {
    const float twoSigmaSq = (sigma + sigma) * sigma;
    const float e = static_cast<float>(std::exp(-1.0 / static_cast<double>(twoSigmaSq)));
    const float denom = e + e + 1.0f;
    // 0..85 for every sigma; NaN (from a NaN sigma) converts to 0, the identity.
    return truncToInt(std::floor(static_cast<double>(e) * 256.0 / static_cast<double>(denom)));
}

int gauss3x3_u8(const unsigned char* src, unsigned char* dst, int width, int height, int srcStride, int dstStride,
                const unsigned char* kernel) {
    if (src == nullptr || dst == nullptr || kernel == nullptr) return -1;
    if (width < 3 || height < 3) return 0;  // no interior pixel to write
    if (srcStride == 0) srcStride = width;
    if (dstStride == 0) dstStride = width;

    const std::size_t planeSize = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    std::uint16_t* t = new (std::nothrow) std::uint16_t[planeSize];
    if (t == nullptr) return -1;

    const unsigned k0 = kernel[0], k1 = kernel[1], k2 = kernel[2];
    for (int y = 0; y < height; ++y)
        horizontalRow(src + rowOffset(y, srcStride), t + rowOffset(y, width), width, k0, k1, k2);
    for (int y = 1; y < height - 1; ++y) {
        const std::uint16_t* mid = t + rowOffset(y, width);
        verticalRow(mid - width, mid, mid + width, dst + rowOffset(y, dstStride), width, k0, k1, k2);
    }

    delete[] t;
    return 0;
}

int gauss3x3U8Plain(const unsigned char* src, unsigned char* dst, int width, int height, int srcStride, int dstStride,
                    const unsigned char* kernel) {
    if (src == nullptr || dst == nullptr || kernel == nullptr) return -1;
    if (srcStride == 0) srcStride = width;
    if (dstStride == 0) dstStride = width;
    auto horizontal = [&](int y, int x) -> std::uint32_t {
        const unsigned char* s = src + rowOffset(y, srcStride);
        return static_cast<std::uint16_t>(kernel[0] * s[x - 1] + kernel[1] * s[x] + kernel[2] * s[x + 1]);
    };
    for (int y = 1; y < height - 1; ++y) {
        for (int x = 1; x < width - 1; ++x) {
            const std::uint32_t s =
                kernel[1] * horizontal(y, x) + kernel[0] * horizontal(y - 1, x) + kernel[2] * horizontal(y + 1, x);
            dst[rowOffset(y, dstStride) + x] = static_cast<unsigned char>(s >> 16);
        }
    }
    return 0;
}

int qnGauss3x3Filter(unsigned char* src, unsigned char* dst, int width, int height, float sigma) {
    const int side = gauss3x3SideWeight(sigma);
    const int centre = 256 - 2 * side;
    if (centre == 256) {
        // Identity: copy the interior only. Degenerate sizes copy nothing.
        const int innerW = width > 2 ? width - 2 : 0;
        const int innerH = height > 2 ? height - 2 : 0;
        return zel::cpp::memory::copyRect_v00<unsigned char>(src, dst, innerW, innerH, width, width, 1, 1, 1, 1);
    }
    const unsigned char kernel[3] = {static_cast<unsigned char>(side), static_cast<unsigned char>(centre),
                                     static_cast<unsigned char>(side)};
    return gauss3x3_u8(src, dst, width, height, 0, 0, kernel);
}

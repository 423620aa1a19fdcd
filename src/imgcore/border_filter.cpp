#include "imgcore/border_filter.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace zel {
namespace cpp {
namespace imgproc {

namespace {

// Largest index < n in the phase class `phase` (mod step), or 0 if none.
int lastInPhase(int n, int step, int phase) {
    int idx = (n - 1) - ((((n - 1) - phase) % step) + step) % step;
    return idx < 0 ? 0 : idx;
}

bool rangesOverlap(const void* a, std::size_t aBytes, const void* b, std::size_t bBytes) {
    const auto pa = reinterpret_cast<std::uintptr_t>(a);
    const auto pb = reinterpret_cast<std::uintptr_t>(b);
    return pa < pb + bBytes && pb < pa + aBytes;
}

}  // namespace

int foldTapIndex(long long p, int n, int step, int radius) {
    const long long shift = static_cast<long long>(step) * radius;
    if (p < 0)
        p += shift;
    else if (p >= n)
        p -= shift;
    if (p >= 0 && p < n) return static_cast<int>(p);
    // Image too small for one move: nearest same-phase index inside the image.
    const int phase = static_cast<int>(((p % step) + step) % step);
    if (p < 0) return phase < n ? phase : n - 1;
    return lastInPhase(n, step, phase);
}

template <typename T, typename K>
int multiChannelFilterBorderCopy_v00(const T* src, T* dst, int width, int height, int srcStrideBytes,
                                     int dstStrideBytes, const K* kernel, int radius, int stepY, int stepX,
                                     bool round) {
    if (src == nullptr || dst == nullptr || kernel == nullptr) return -2;
    if (radius > width || radius > height) return -4;
    if (width < 1 || height < 1 || radius < 0 || stepX < 1 || stepY < 1) return -4;
    if (width % stepX != 0 && height % stepY != 0) return -4;

    const std::ptrdiff_t rowBytes = static_cast<std::ptrdiff_t>(width) * static_cast<std::ptrdiff_t>(sizeof(T));
    const std::ptrdiff_t srcStride = srcStrideBytes != 0 ? srcStrideBytes : rowBytes;
    const std::ptrdiff_t dstStride = dstStrideBytes != 0 ? dstStrideBytes : rowBytes;
    const int taps = 2 * radius + 1;

    long long kernelSum = 0;
    for (int i = 0; i < taps * taps; ++i) kernelSum += static_cast<long long>(kernel[i]);
    if (kernelSum == 0) kernelSum = 1;
    const long long offset = round ? kernelSum / 2 : 0;

    // Filtering in place (or into an overlapping buffer) reads a private copy.
    std::vector<T> copy;
    const char* srcBytes = reinterpret_cast<const char*>(src);
    const std::size_t srcSpan = static_cast<std::size_t>((height - 1) * srcStride + rowBytes);
    const std::size_t dstSpan = static_cast<std::size_t>((height - 1) * dstStride + rowBytes);
    if (rangesOverlap(src, srcSpan, dst, dstSpan)) {
        copy.resize(static_cast<std::size_t>(width) * height);
        for (int y = 0; y < height; ++y)
            std::memcpy(&copy[static_cast<std::size_t>(y) * width], srcBytes + y * srcStride, rowBytes);
        srcBytes = reinterpret_cast<const char*>(copy.data());
    }
    const std::ptrdiff_t readStride = copy.empty() ? srcStride : rowBytes;

    // Column of every (x, dx) tap, border moves resolved once.
    std::vector<int> colIndex(static_cast<std::size_t>(width) * taps);
    for (int x = 0; x < width; ++x)
        for (int dx = -radius; dx <= radius; ++dx)
            colIndex[static_cast<std::size_t>(x) * taps + (dx + radius)] =
                foldTapIndex(static_cast<long long>(x) + static_cast<long long>(dx) * stepX, width, stepX, radius);

    std::vector<const T*> tapRows(taps);
    for (int y = 0; y < height; ++y) {
        for (int dy = -radius; dy <= radius; ++dy) {
            const int r =
                foldTapIndex(static_cast<long long>(y) + static_cast<long long>(dy) * stepY, height, stepY, radius);
            tapRows[dy + radius] = reinterpret_cast<const T*>(srcBytes + r * readStride);
        }
        T* out = reinterpret_cast<T*>(reinterpret_cast<char*>(dst) + y * dstStride);
        for (int x = 0; x < width; ++x) {
            const int* cols = &colIndex[static_cast<std::size_t>(x) * taps];
            long long acc = 0;
            for (int i = 0; i < taps; ++i) {
                const K* krow = kernel + i * taps;
                const T* row = tapRows[i];
                for (int j = 0; j < taps; ++j)
                    acc += static_cast<long long>(krow[j]) * static_cast<long long>(row[cols[j]]);
            }
            const double q = static_cast<double>(acc + offset) / static_cast<double>(kernelSum);
            // |q| <= |acc + offset|, so the truncation fits in 64 bits; the store keeps
            // the low bits of T.
            out[x] = static_cast<T>(static_cast<long long>(q));
        }
    }
    return 0;
}

template KEP_API int multiChannelFilterBorderCopy_v00<short, int>(const short* src, short* dst, int width,
                                                                  int height, int srcStrideBytes, int dstStrideBytes,
                                                                  const int* kernel, int radius, int stepY,
                                                                  int stepX, bool round);

}  // namespace imgproc
}  // namespace cpp
}  // namespace zel

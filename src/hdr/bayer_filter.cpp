#include "hdr/bayer_filter.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "hdr/extended_stripes.h"
#include "imgcore/fast_paths.h"
#include "imgcore/saturate.h"

namespace {

// Border of the extended copy the Bayer low-pass works on (its kernel radius).
constexpr int kLowPassBorder = 4;

// Index of the copied sample that border position p (left or top) repeats: p + offset,
// the sample `offset` positions inward. On an image narrower than the offset that index
// falls past the copied range [lo, hi) onto samples not written yet; step back two at a
// time (keeping the Bayer phase) and, on a one-sample image, take the only sample.
int innerSourceFor(int p, int offset, int lo, int hi) {
    int s = p + offset;
    while (s >= hi && s - 2 >= lo) s -= 2;
    return s < hi ? s : hi - 1;
}

// Border extension shared by the 16-bit and float variants. Left and top borders run
// inward-out (descending) and right and bottom outward, so that with an offset smaller
// than the border every read hits a sample already written.
template <typename T>
void extendWithOffset(const T* src, T* dst, int border, int height, int width, int offset) {
    if (border < 0 || width <= 0 || height <= 0) return;
    const std::ptrdiff_t stride = static_cast<std::ptrdiff_t>(width) + 2 * border;
    const int colEnd = border + width;
    const int rowEnd = border + height;

    for (int y = 0; y < height; ++y)
        std::memcpy(dst + (y + border) * stride + border, src + static_cast<std::ptrdiff_t>(y) * width,
                    sizeof(T) * width);

    for (int y = border; y < rowEnd; ++y) {
        T* row = dst + y * stride;
        for (int x = border - 1; x >= 0; --x) row[x] = row[innerSourceFor(x, offset, border, colEnd)];
        // x - offset >= 0 here for every width >= 1 (offset is at most max(border, 2)).
        for (int x = colEnd; x < colEnd + border; ++x) row[x] = row[x - offset];
    }

    const std::size_t rowBytes = sizeof(T) * static_cast<std::size_t>(stride);
    for (int y = border - 1; y >= 0; --y)
        std::memcpy(dst + y * stride, dst + innerSourceFor(y, offset, border, rowEnd) * stride, rowBytes);
    for (int y = rowEnd; y < rowEnd + border; ++y)
        std::memcpy(dst + y * stride, dst + (y - offset) * stride, rowBytes);
}

// Fast form of the sparse-tap filter. The loops are interchanged (tap outer, column
// inner) so that the column loop vectorises; every output pixel still receives its
// taps in the defined order (i outer, j inner), so the single-precision sums are
// bit-identical to the per-pixel loop of filterSparseTapsPlain. Zero taps are
// skipped: adding +0.0f to a sum changes nothing (a sum of products of integers is
// never -0.0f).
template <typename T>
void filterSparseTaps(const T* extended, int (*kernel)[9], T* dst, int rowStart, int rowEnd, int colStart,
                      int colEnd, int radius, int extendedStride, int dstWidth, float norm) {
    if (rowEnd <= rowStart || colEnd <= colStart || radius < 0 || radius > 4) return;

    struct Tap {
        std::uint32_t k;
        std::ptrdiff_t offset;
    };
    std::vector<Tap> taps;
    for (int i = -radius; i <= radius; i += 2)
        for (int j = -radius; j <= radius; j += 2) {
            const int k = kernel[radius + i][radius + j];
            if (k != 0)
                taps.push_back({static_cast<std::uint32_t>(k), static_cast<std::ptrdiff_t>(i) * extendedStride + j});
        }

    const int n = colEnd - colStart;
    std::vector<float> acc(n);
    float* sum = acc.data();
    for (int r = rowStart; r < rowEnd; ++r) {
        std::fill(acc.begin(), acc.end(), 0.0f);
        const T* centre = extended + static_cast<std::ptrdiff_t>(r) * extendedStride + colStart;
        for (const Tap& tap : taps) {
            const T* p = centre + tap.offset;
            // 32-bit product with the wrap-around of the hardware multiply (no signed overflow).
            for (int x = 0; x < n; ++x)
                sum[x] += static_cast<float>(
                    static_cast<std::int32_t>(tap.k * static_cast<std::uint32_t>(static_cast<int>(p[x]))));
        }
        T* out = dst + static_cast<std::ptrdiff_t>(r - radius) * dstWidth + (colStart - radius);
        // The kernel and norm come from the caller: saturate, then keep the low 16 bits
        // as a 16-bit store of the 32-bit result does.
        for (int x = 0; x < n; ++x) out[x] = static_cast<T>(truncToInt(sum[x] / norm));
    }
}

// Fast path of the Bayer low-pass for the fixed binomial kernel, over extended rows
// [rowStart, rowEnd) of an extended image with border 4. The kernel is separable, so
// a vertical 5-tap pass over the whole extended row is followed by a horizontal one,
// all in 32-bit integers. Identical to filterSparseTaps with the binomial kernel and norm 256:
// every tap product and every partial sum is an integer of magnitude below
// 256 * 65535 < 2^24, so each single-precision addition there is exact and its sum
// equals this integer sum.
template <typename T>
void binomialRows(const T* extended, T* dst, int rowStart, int rowEnd, int width) {
    if (rowEnd <= rowStart) return;
    const std::ptrdiff_t stride = static_cast<std::ptrdiff_t>(width) + 2 * kLowPassBorder;
    std::vector<int> column(stride);
    int* v = column.data();
    for (int r = rowStart; r < rowEnd; ++r) {
        const T* m4 = extended + (r - 4) * stride;
        const T* m2 = extended + (r - 2) * stride;
        const T* c0 = extended + r * stride;
        const T* p2 = extended + (r + 2) * stride;
        const T* p4 = extended + (r + 4) * stride;
        for (std::ptrdiff_t x = 0; x < stride; ++x)
            v[x] = static_cast<int>(m4[x]) + 4 * static_cast<int>(m2[x]) + 6 * static_cast<int>(c0[x]) +
                   4 * static_cast<int>(p2[x]) + static_cast<int>(p4[x]);
        T* out = dst + static_cast<std::ptrdiff_t>(r - kLowPassBorder) * width;
        for (int c = 0; c < width; ++c) {
            const int s = v[c] + 4 * v[c + 2] + 6 * v[c + 4] + 4 * v[c + 6] + v[c + 8];
            // |s| <= 256 * 65535 < 2^24: the float is exact and the quotient lies in the
            // sample range, so the plain casts are safe.
            out[c] = static_cast<T>(static_cast<int>(static_cast<float>(s) / 256.0f));
        }
    }
}

// The 9x9 table of the Bayer low-pass: the binomial on even rows and columns.
struct BayerKernel {
    int taps[9][9] = {};
    BayerKernel() {
        const int b[5] = {1, 4, 6, 4, 1};
        for (int i = 0; i < 5; ++i)
            for (int j = 0; j < 5; ++j) taps[2 * i][2 * j] = b[i] * b[j];
    }
};

template <typename T>
void lowPassForBayer(T* src, T* dst, int width, int height,
                     void (*worker)(T*, int (*)[9], T*, int, int, int, int, int, int, int, float), bool fast) {
    if (width <= 0 || height <= 0) return;
    const std::size_t stride = static_cast<std::size_t>(width) + 2 * kLowPassBorder;
    std::unique_ptr<T[]> extended(new T[stride * (static_cast<std::size_t>(height) + 2 * kLowPassBorder)]);
    extendWithOffset<T>(src, extended.get(), kLowPassBorder, height, width, kLowPassBorder);
    if (fast) {
        runOnExtendedStripes(height, kLowPassBorder, [&](int rowStart, int rowEnd) {
            binomialRows<T>(extended.get(), dst, rowStart, rowEnd, width);
        });
        return;
    }
    BayerKernel kernel;
    runOnExtendedStripes(height, kLowPassBorder, [&](int rowStart, int rowEnd) {
        worker(extended.get(), kernel.taps, dst, rowStart, rowEnd, kLowPassBorder, width + kLowPassBorder,
               kLowPassBorder, static_cast<int>(stride), width, 256.0f);
    });
}

}  // namespace

void imageExtensionForBayer_short(short* src, short* dst, int border, int height, int width) {
    extendWithOffset<short>(src, dst, border, height, width, std::max(border, 2));
}

void imageExtensionForBayer_ushort(unsigned short* src, unsigned short* dst, int border, int height, int width) {
    extendWithOffset<unsigned short>(src, dst, border, height, width, std::max(border, 2));
}

unsigned long long imageExtenForIntenEst(float* src, float* dst, int border, int height, int width) {
    extendWithOffset<float>(src, dst, border, height, width, 2);
    return 0;
}

void lowPassFilteringForBayer_short(short* src, short* dst, int width, int height) {
    lowPassForBayer<short>(src, dst, width, height, filteringProcess_short, kUseFastPaths);
}

void lowPassFilteringForBayer_ushort(unsigned short* src, unsigned short* dst, int width, int height) {
    lowPassForBayer<unsigned short>(src, dst, width, height, filteringProcess_ushort, kUseFastPaths);
}

namespace bayer_filter_detail {

void lowPassFilteringForBayerPlain(short* src, short* dst, int width, int height) {
    lowPassForBayer<short>(src, dst, width, height, filteringProcess_short, false);
}

void lowPassFilteringForBayerPlain(unsigned short* src, unsigned short* dst, int width, int height) {
    lowPassForBayer<unsigned short>(src, dst, width, height, filteringProcess_ushort, false);
}

template <typename T>
void filterSparseTapsPlain(const T* extended, int (*kernel)[9], T* dst, int rowStart, int rowEnd, int colStart,
                           int colEnd, int radius, int extendedStride, int dstWidth, float norm) {
    if (radius < 0 || radius > 4) return;
    for (int r = rowStart; r < rowEnd; ++r)
        for (int c = colStart; c < colEnd; ++c) {
            float sum = 0.0f;
            for (int i = -radius; i <= radius; i += 2)
                for (int j = -radius; j <= radius; j += 2) {
                    const T sample = extended[static_cast<std::ptrdiff_t>(r + i) * extendedStride + (c + j)];
                    // 32-bit product with the wrap-around of the hardware multiply.
                    sum += static_cast<float>(static_cast<std::int32_t>(
                        static_cast<std::uint32_t>(kernel[radius + i][radius + j]) *
                        static_cast<std::uint32_t>(static_cast<int>(sample))));
                }
            dst[static_cast<std::ptrdiff_t>(r - radius) * dstWidth + (c - radius)] =
                static_cast<T>(truncToInt(sum / norm));
        }
}

template void filterSparseTapsPlain<short>(const short*, int (*)[9], short*, int, int, int, int, int, int, int, float);
template void filterSparseTapsPlain<unsigned short>(const unsigned short*, int (*)[9], unsigned short*, int, int, int,
                                                    int, int, int, int, float);

}  // namespace bayer_filter_detail

void filteringProcess_short(short* extended, int (*kernel)[9], short* dst, int rowStart, int rowEnd, int colStart,
                            int colEnd, int radius, int extendedStride, int dstWidth, float norm) {
    if (!kUseFastPaths) {
        bayer_filter_detail::filterSparseTapsPlain<short>(extended, kernel, dst, rowStart, rowEnd, colStart, colEnd,
                                                          radius, extendedStride, dstWidth, norm);
        return;
    }
    filterSparseTaps<short>(extended, kernel, dst, rowStart, rowEnd, colStart, colEnd, radius, extendedStride,
                            dstWidth, norm);
}

void filteringProcess_ushort(unsigned short* extended, int (*kernel)[9], unsigned short* dst, int rowStart,
                             int rowEnd, int colStart, int colEnd, int radius, int extendedStride, int dstWidth,
                             float norm) {
    if (!kUseFastPaths) {
        bayer_filter_detail::filterSparseTapsPlain<unsigned short>(extended, kernel, dst, rowStart, rowEnd, colStart,
                                                                   colEnd, radius, extendedStride, dstWidth, norm);
        return;
    }
    filterSparseTaps<unsigned short>(extended, kernel, dst, rowStart, rowEnd, colStart, colEnd, radius,
                                     extendedStride, dstWidth, norm);
}

void conLowPassFiltering_uchar(unsigned char* src, unsigned char* dst, int width, int height, int radius) {
    if (width <= 0 || height <= 0) return;
    const std::size_t count = static_cast<std::size_t>(width) * height;
    // In-place use reads the window from a private copy of the source.
    std::vector<unsigned char> copy;
    const unsigned char* in = src;
    if (src == dst) {
        copy.assign(src, src + count);
        in = copy.data();
    } else {
        std::memcpy(dst, src, count);
    }
    // Negative radii and windows larger than the image leave the copy as it is.
    if (radius < 0 || radius >= (width + 1) / 2 || radius >= (height + 1) / 2) return;

    const int side = 2 * radius + 1;
    const float area = static_cast<float>(side * side);
    for (int y = radius; y < height - radius; ++y)
        for (int x = radius; x < width - radius; ++x) {
            float sum = 0.0f;
            for (int i = -radius; i <= radius; ++i) {
                const unsigned char* row = in + static_cast<std::ptrdiff_t>(y + i) * width + x;
                for (int j = -radius; j <= radius; ++j) sum += static_cast<float>(row[j]);
            }
            // A mean of 8-bit samples, non-negative; the bound only matters for windows so large
            // that the single-precision sum has rounded up past 255 * area.
            dst[static_cast<std::ptrdiff_t>(y) * width + x] = static_cast<unsigned char>(std::min(sum / area, 255.0f));
        }
}

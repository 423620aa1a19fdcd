#include "registration/guide_image.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "imgcore/fast_paths.h"
#include "imgcore/gauss5x5.h"
#include "imgcore/simd_clones.h"

namespace {

// Guide pixels of one guide row from the column sums of its four raw rows: each
// run of four column sums gives a block total. Integer sums are exact, so the
// grouping does not change any total.
void blockMeans(const int* __restrict colSum, uint8_t* __restrict out, int cols, int grayGain) {
    for (int c = 0; c < cols; ++c) {
        const int* s = colSum + 4 * c;
        const int mean = (s[0] + s[1] + s[2] + s[3]) / 16;
        // 32-bit product with the wrap-around of the target's multiply, without
        // signed-overflow undefined behaviour.
        int v = static_cast<int>(static_cast<uint32_t>(mean) * static_cast<uint32_t>(grayGain));
        if (v >= 1023) v = 1023;
        out[c] = static_cast<uint8_t>(static_cast<uint32_t>(v) >> 2);
    }
}

void guideRow(const short* r0, const short* r1, const short* r2, const short* r3, int* __restrict colSum,
              uint8_t* __restrict out, int cols, int grayGain) {
    const int n = 4 * cols;
    for (int x = 0; x < n; ++x) colSum[x] = r0[x] + r1[x] + r2[x] + r3[x];
    blockMeans(colSum, out, cols, grayGain);
}

// max(v - b, 0) for a black level b in 0..32767, formed as max(v, b) - b so that
// it never leaves 16 bits (the loop then vectorises on 16-bit lanes).
inline short aboveBlack(short v, short b) { return static_cast<short>((v > b ? v : b) - b); }

// Column sums of four raw rows after black-level removal; evenBlack and oddBlack
// hold the level of every column on the even and the odd rows of a quad.
KEP_SIMD_CLONES
void blackCorrectedColumnSums(const short* __restrict r0, const short* __restrict r1, const short* __restrict r2,
                              const short* __restrict r3, const short* __restrict evenBlack,
                              const short* __restrict oddBlack, int* __restrict colSum, int n) {
    for (int x = 0; x < n; ++x)
        colSum[x] = (static_cast<int>(aboveBlack(r0[x], evenBlack[x])) + aboveBlack(r1[x], oddBlack[x])) +
                    (static_cast<int>(aboveBlack(r2[x], evenBlack[x])) + aboveBlack(r3[x], oddBlack[x]));
}

// The 5x5 kernels of conImageBlur are outer products of these 5-tap rows, so the
// fast form takes the weighted sum as a horizontal then a vertical pass. The sums
// are exact integers either way.
constexpr int kSmoothTaps[5] = {1, 2, 4, 2, 1};
constexpr int kSmoothDivisor = 100;
constexpr int kBoxTaps[5] = {1, 1, 1, 1, 1};
constexpr int kBoxDivisor = 25;

// Horizontal sums are at most 255 * 10, vertical ones at most 255 * 100: both fit
// 16 bits, so the passes run on 16-bit lanes.
template <bool Box>
void blurRowHorizontal(const uint8_t* __restrict s, uint16_t* __restrict h, int width) {
    constexpr const int* k = Box ? kBoxTaps : kSmoothTaps;
    for (int x = 2; x < width - 2; ++x)
        h[x] = static_cast<uint16_t>(k[0] * s[x - 2] + k[1] * s[x - 1] + k[2] * s[x] + k[3] * s[x + 1] + k[4] * s[x + 2]);
}

// The truncated single-precision quotient sum / divisor equals the integer
// quotient for every sum 0..25500 (checked for each in the tests), and division by
// a constant vectorises as a multiply.
template <bool Box>
void blurRowVertical(const uint16_t* __restrict h0, const uint16_t* __restrict h1, const uint16_t* __restrict h2,
                     const uint16_t* __restrict h3, const uint16_t* __restrict h4, uint8_t* __restrict d, int width) {
    constexpr const int* k = Box ? kBoxTaps : kSmoothTaps;
    constexpr uint16_t divisor = Box ? kBoxDivisor : kSmoothDivisor;
    for (int x = 2; x < width - 2; ++x) {
        const uint16_t sum = static_cast<uint16_t>(k[0] * h0[x] + k[1] * h1[x] + k[2] * h2[x] + k[3] * h3[x] + k[4] * h4[x]);
        d[x] = static_cast<uint8_t>(sum / divisor);
    }
}

// Five horizontal rows in a ring: output row y is written after source rows up to
// y + 2 have been read and before row y + 3 is, so in-place use reads the input as
// it was (src and dst must be the same image or not overlap).
template <bool Box>
void blurSeparable(const unsigned char* src, unsigned char* dst, int width, int height) {
    const std::size_t w = static_cast<std::size_t>(width);
    std::vector<uint16_t> ring(5 * w);
    auto ringRow = [&](int y) { return ring.data() + static_cast<std::size_t>(y % 5) * w; };
    for (int y = 0; y < 4; ++y) blurRowHorizontal<Box>(src + y * w, ringRow(y), width);
    for (int y = 2; y < height - 2; ++y) {
        blurRowHorizontal<Box>(src + (y + 2) * w, ringRow(y + 2), width);
        blurRowVertical<Box>(ringRow(y - 2), ringRow(y - 1), ringRow(y), ringRow(y + 1), ringRow(y + 2), dst + y * w,
                             width);
    }
}

}  // namespace

void bayer_to_8bit_gray(short* raw, unsigned char* guide, int width, int height, int grayGain, int /*frameIndex*/) {
    if (height < 4) return;
    const int rows = height / 4;
    const int cols = width / 4;
    if (cols <= 0) return;
    const std::size_t w = static_cast<std::size_t>(width);
    std::vector<int> colSum(static_cast<std::size_t>(4 * cols));
    for (int r = 0; r < rows; ++r) {
        const short* r0 = raw + static_cast<std::size_t>(4 * r) * w;
        // Guide rows are packed at the guide's own width.
        guideRow(r0, r0 + w, r0 + 2 * w, r0 + 3 * w, colSum.data(), guide + static_cast<std::size_t>(r) * cols,
                 cols, grayGain);
    }
}

void guide_detail::blurPlain(unsigned char* src, unsigned char* dst, int width, int height, bool box) {
    // A copy of the input, so that in-place use reads the image as it was.
    const std::vector<uint8_t> scratch(src, src + static_cast<std::size_t>(width) * height);
    const int divisor = box ? kBoxDivisor : kSmoothDivisor;
    const int* taps = box ? kBoxTaps : kSmoothTaps;
    for (int y = 2; y < height - 2; ++y) {
        for (int x = 2; x < width - 2; ++x) {
            int sum = 0;
            for (int i = 0; i < 5; ++i)
                for (int j = 0; j < 5; ++j)
                    sum += taps[i] * taps[j] * scratch[static_cast<std::size_t>(y - 2 + i) * width + (x - 2 + j)];
            dst[static_cast<std::size_t>(y) * width + x] =
                static_cast<uint8_t>(static_cast<int>(static_cast<float>(sum) / static_cast<float>(divisor)));
        }
    }
}

void conImageBlur(unsigned char* src, unsigned char* dst, int width, int height, float blurSelect) {
    const bool box = blurSelect > 510.0;  // NaN selects the smoothing kernel
    if (height < 5 || width < 5) return;
    const std::size_t n = static_cast<std::size_t>(width) * height;
    const bool apart = src == dst || src + n <= dst || dst + n <= src;
    if (!kUseFastPaths || !apart)
        guide_detail::blurPlain(src, dst, width, height, box);
    else if (box)
        blurSeparable<true>(src, dst, width, height);
    else
        blurSeparable<false>(src, dst, width, height);
}

void histogram_equalization(unsigned char* src, unsigned char* dst, int width, int height) {
    if (width <= 0 || height <= 0) return;
    const std::size_t n = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    const int pixels = width * height;

    int count[256] = {0};
    if (kUseFastPaths && n < (1u << 30)) {
        // Four partial histograms break the dependency between neighbouring equal
        // pixels; their sums are the same counts.
        int part[4][256] = {};
        std::size_t i = 0;
        for (; i + 4 <= n; i += 4) {
            ++part[0][src[i]];
            ++part[1][src[i + 1]];
            ++part[2][src[i + 2]];
            ++part[3][src[i + 3]];
        }
        for (; i < n; ++i) ++part[0][src[i]];
        for (int b = 0; b < 256; ++b) count[b] = (part[0][b] + part[1][b]) + (part[2][b] + part[3][b]);
    } else {
        for (std::size_t i = 0; i < n; ++i) ++count[src[i]];
    }

    // The product is formed in 64 bits only to stay defined; for any image that
    // fits in memory the quotient is the 32-bit one.
    const int limit = static_cast<int>((3LL * width * height) / 256);
    int excess = 0;
    for (int b = 0; b < 256; ++b) {
        if (count[b] > limit) {
            excess += count[b] - limit;
            count[b] = limit;
        }
    }
    const int share = excess / 256;

    uint8_t lut[256];
    float cumulative = 0.0f;
    for (int b = 0; b < 256; ++b) {
        const float p = static_cast<float>(count[b] + share) / static_cast<float>(pixels);
        cumulative += p;  // starts at 0, so c[0] = p[0] exactly
        // The clipped counts plus the shares never exceed the pixel count, so the
        // product stays within [0, 256) even with rounding.
        lut[b] = static_cast<uint8_t>(static_cast<int>(cumulative * 255.0));
    }
    for (std::size_t i = 0; i < n; ++i) dst[i] = lut[src[i]];
}

void imageBlur(unsigned char* src, unsigned char* dst, int width, int height) {
    static const unsigned char kernel[5] = {1, 2, 4, 2, 1};
    gauss5x5_u8(src, dst, width, height, width, width, kernel);
}

bool guide_detail::blackLevelsFitSamples(const int* order) {
    for (int k = 0; k < 4; ++k)
        if (order[k] < 0 || order[k] > 32767) return false;
    return true;
}

void guide_detail::guideFromRaw(const short* raw, const int* order, unsigned char* guide, int width, int height,
                                int grayGain) {
    if (height < 4) return;
    const int rows = height / 4;
    const int cols = width / 4;
    if (cols <= 0) return;
    const std::size_t w = static_cast<std::size_t>(width);
    const std::size_t n = static_cast<std::size_t>(4 * cols);
    std::vector<short> evenBlack(n), oddBlack(n);
    for (std::size_t x = 0; x < n; ++x) {
        evenBlack[x] = static_cast<short>(order[x & 1]);
        oddBlack[x] = static_cast<short>(order[2 + (x & 1)]);
    }
    std::vector<int> colSum(n);
    for (int r = 0; r < rows; ++r) {
        const short* r0 = raw + static_cast<std::size_t>(4 * r) * w;
        blackCorrectedColumnSums(r0, r0 + w, r0 + 2 * w, r0 + 3 * w, evenBlack.data(), oddBlack.data(), colSum.data(),
                                 4 * cols);
        blockMeans(colSum.data(), guide + static_cast<std::size_t>(r) * cols, cols, grayGain);
    }
}

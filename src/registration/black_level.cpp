#include "registration/black_level.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "imgcore/fast_paths.h"
#include "imgcore/saturate.h"
#include "imgcore/simd_clones.h"

void getBayerBLCorder(int* order, int pattern, int bl0, int bl1, int bl2, int bl3) {
    switch (pattern) {
        case 0:  // RGGB
            order[0] = bl0, order[1] = bl1, order[2] = bl2, order[3] = bl3;
            break;
        case 1:  // BGGR
            order[0] = bl3, order[1] = bl1, order[2] = bl2, order[3] = bl0;
            break;
        case 2:  // GRBG
            order[0] = bl1, order[1] = bl0, order[2] = bl3, order[3] = bl2;
            break;
        default:  // GBRG, and every unknown code
            order[0] = bl1, order[1] = bl3, order[2] = bl0, order[3] = bl2;
            break;
    }
}

namespace {

// Applies op(sample, site) to every whole quad, site 0..3 in quad order. Both rows
// of a quad are read before any of its outputs is written, so in-place use is safe.
template <typename Op>
void mapQuads(const short* in, short* out, int width, int height, Op op) {
    for (int r = 0; r + 1 < height; r += 2) {
        const short* in0 = in + static_cast<long>(r) * width;
        const short* in1 = in0 + width;
        short* out0 = out + static_cast<long>(r) * width;
        short* out1 = out0 + width;
        for (int c = 0; c + 1 < width; c += 2) {
            const short a = in0[c], b = in0[c + 1], d = in1[c], e = in1[c + 1];
            out0[c] = op(a, 0);
            out0[c + 1] = op(b, 1);
            out1[c] = op(d, 2);
            out1[c + 1] = op(e, 3);
        }
    }
}

}  // namespace

void black_level_detail::brightenPlain(const short* in, short* out, float gain, int width, int height,
                                       const int* order) {
    const int black[4] = {order[0], order[1], order[2], order[3]};
    const float blackF[4] = {static_cast<float>(black[0]), static_cast<float>(black[1]), static_cast<float>(black[2]),
                             static_cast<float>(black[3])};
    mapQuads(in, out, width, height, [&](short v, int site) {
        const float value = static_cast<float>(v - black[site]) * gain + blackF[site];
        // A huge or non-finite gain saturates instead of being undefined; every
        // finite in-range result is the plain truncation. Low 16 bits are stored.
        return static_cast<short>(truncToInt(value));
    });
}

namespace {

// One raw row of whole quads; black holds the level of every column of the row.
// Each output depends only on the input at the same place, so in and out may be
// the same row (the in-place kernel reads and writes one pointer).
KEP_SIMD_CLONES
void brightenRow(const short* __restrict in, short* __restrict out, const int* __restrict black, long n, float gain) {
    for (long x = 0; x < n; ++x)
        out[x] = static_cast<short>(static_cast<int>(static_cast<float>(in[x] - black[x]) * gain + static_cast<float>(black[x])));
}

KEP_SIMD_CLONES
void brightenRowInPlace(short* row, const int* __restrict black, long n, float gain) {
    for (long x = 0; x < n; ++x)
        row[x] = static_cast<short>(static_cast<int>(static_cast<float>(row[x] - black[x]) * gain + static_cast<float>(black[x])));
}

}  // namespace

bool black_level_detail::brightenStaysInRange(float gain, const int* order) {
    // |in - b| <= 32768 + |b| and the result is at most |gain| * that + |b|: below
    // 2^30 it is a finite float well inside the int range, where the plain
    // conversion equals the saturating one.
    double maxBlack = 0.0;
    for (int k = 0; k < 4; ++k) maxBlack = std::max(maxBlack, std::fabs(static_cast<double>(order[k])));
    const double g = std::fabs(static_cast<double>(gain));
    return g < 1e6 && maxBlack < 16777216.0 && g * (32768.0 + maxBlack) * 1.001 + maxBlack < 1073741824.0;
}

void black_level_detail::brightenRows(const short* in, short* out, float gain, int width, int height,
                                      const int* order) {
    const long n = width >= 0 ? width & ~1 : 0;
    // Gain 1 with levels below 2^23: (float)(in - b) is exact (below 2^24), the
    // product leaves it unchanged and adding (float)b gives the whole number in
    // exactly, so every sample of a whole quad is copied as it is.
    bool smallLevels = true;
    for (int k = 0; k < 4; ++k) smallLevels = smallLevels && order[k] >= -(1 << 23) && order[k] <= (1 << 23);
    if (gain == 1.0f && smallLevels) {
        if (in == out) return;
        const int rows = height >= 0 ? height & ~1 : 0;
        for (int r = 0; r < rows; ++r)
            std::memcpy(out + static_cast<long>(r) * width, in + static_cast<long>(r) * width,
                        static_cast<std::size_t>(n) * sizeof(short));
        return;
    }
    std::vector<int> evenRow(static_cast<size_t>(n)), oddRow(static_cast<size_t>(n));
    for (long x = 0; x < n; ++x) {
        evenRow[static_cast<size_t>(x)] = order[x & 1];
        oddRow[static_cast<size_t>(x)] = order[2 + (x & 1)];
    }
    for (int r = 0; r + 1 < height; r += 2) {
        for (int dr = 0; dr < 2; ++dr) {
            const long offset = static_cast<long>(r + dr) * width;
            const int* black = dr == 0 ? evenRow.data() : oddRow.data();
            if (in == out)
                brightenRowInPlace(out + offset, black, n, gain);
            else
                brightenRow(in + offset, out + offset, black, n, gain);
        }
    }
}

void enlightenOutput(short* in, short* out, float gain, int width, int height, int* order) {
    const long long samples = static_cast<long long>(width) * height;
    const bool apart = in == out || samples <= 0 || in + samples <= out || out + samples <= in;
    if (kUseFastPaths && apart && black_level_detail::brightenStaysInRange(gain, order))
        black_level_detail::brightenRows(in, out, gain, width, height, order);
    else
        black_level_detail::brightenPlain(in, out, gain, width, height, order);
}

void removeBLC(const short* in, short* out, int width, int height, int* order) {
    const int black[4] = {order[0], order[1], order[2], order[3]};
    mapQuads(in, out, width, height, [&](short v, int site) {
        const int d = v - black[site];
        return static_cast<short>(d > 0 ? d : 0);
    });
}

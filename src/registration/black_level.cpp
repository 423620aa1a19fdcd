#include "registration/black_level.h"

#include "imgcore/saturate.h"

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

void enlightenOutput(short* in, short* out, float gain, int width, int height, int* order) {
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

void removeBLC(const short* in, short* out, int width, int height, int* order) {
    const int black[4] = {order[0], order[1], order[2], order[3]};
    mapQuads(in, out, width, height, [&](short v, int site) {
        const int d = v - black[site];
        return static_cast<short>(d > 0 ? d : 0);
    });
}

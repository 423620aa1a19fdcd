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

inline short brighten(short in, int black, float gain, float blackF) {
    const float value = static_cast<float>(in - black) * gain + blackF;
    // A huge or non-finite gain saturates instead of being undefined; every finite
    // in-range result is the plain truncation.
    return static_cast<short>(truncToInt(value));
}

}  // namespace

void enlightenOutput(short* in, short* out, float gain, int width, int height, int* order) {
    const int b0 = order[0], b1 = order[1], b2 = order[2], b3 = order[3];
    const float f0 = static_cast<float>(b0), f1 = static_cast<float>(b1);
    const float f2 = static_cast<float>(b2), f3 = static_cast<float>(b3);
    for (int r = 0; r + 1 < height; r += 2) {
        const short* in0 = in + static_cast<long>(r) * width;
        const short* in1 = in0 + width;
        short* out0 = out + static_cast<long>(r) * width;
        short* out1 = out0 + width;
        for (int c = 0; c + 1 < width; c += 2) {
            // Both rows of the quad are read before any of its outputs is written.
            const short a = in0[c], b = in0[c + 1], d = in1[c], e = in1[c + 1];
            out0[c] = brighten(a, b0, gain, f0);
            out0[c + 1] = brighten(b, b1, gain, f1);
            out1[c] = brighten(d, b2, gain, f2);
            out1[c + 1] = brighten(e, b3, gain, f3);
        }
    }
}

namespace {

inline short subtractBlack(short in, int black) {
    const int v = in - black;
    return static_cast<short>(v > 0 ? v : 0);
}

}  // namespace

void removeBLC(const short* in, short* out, int width, int height, int* order) {
    const int b0 = order[0], b1 = order[1], b2 = order[2], b3 = order[3];
    for (int r = 0; r + 1 < height; r += 2) {
        const short* in0 = in + static_cast<long>(r) * width;
        const short* in1 = in0 + width;
        short* out0 = out + static_cast<long>(r) * width;
        short* out1 = out0 + width;
        for (int c = 0; c + 1 < width; c += 2) {
            out0[c] = subtractBlack(in0[c], b0);
            out0[c + 1] = subtractBlack(in0[c + 1], b1);
            out1[c] = subtractBlack(in1[c], b2);
            out1[c + 1] = subtractBlack(in1[c + 1], b3);
        }
    }
}

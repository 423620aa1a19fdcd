#include "registration/frame_average.h"

#include <cstring>
#include <new>

namespace {

using u16 = unsigned short;

inline u16 asU16(short v) { return static_cast<u16>(v); }

void copyFrame(const short* src, short* dst, long count) { std::memcpy(dst, src, static_cast<size_t>(count) * 2); }

void averageTwo(const short* f0, const short* f1, short* out, long count) {
    for (long p = 0; p < count; ++p) {
        const u16 sum = static_cast<u16>(asU16(f0[p]) + asU16(f1[p]) + 1);
        out[p] = static_cast<short>(sum >> 1);
    }
}

void averageFour(const short* const* f, short* out, long count) {
    const short *f0 = f[0], *f1 = f[1], *f2 = f[2], *f3 = f[3];
    for (long p = 0; p < count; ++p) {
        u16 sum = static_cast<u16>(asU16(f0[p]) + asU16(f1[p]));
        sum = static_cast<u16>(sum + asU16(f2[p]));
        out[p] = static_cast<short>(static_cast<u16>(sum + 3 + asU16(f3[p])) >> 2);
    }
}

void accumulate(const short* src, short* acc, long count) {
    for (long p = 0; p < count; ++p) acc[p] = static_cast<short>(static_cast<u16>(asU16(acc[p]) + asU16(src[p])));
}

}  // namespace

void frame_average_detail::divideLastSum(short* output, const short* last, long count, int n, const u16* table) {
    const int tableSize = n * 1024;
    for (long p = 0; p < count; ++p) {
        const int index = static_cast<int>(asU16(output[p])) + last[p];
        if (table != nullptr && index >= 0 && index < tableSize) {
            output[p] = static_cast<short>(table[index]);
        } else {
            output[p] = static_cast<short>((last[p] + (n - 1) + static_cast<int>(asU16(output[p]))) / n);
        }
    }
}

int frameAverage(const short** frames, short* output, int width, int height, int n) {
    if (n < 1) return 0;
    const long count = static_cast<long>(width) * static_cast<long>(height);
    if (count <= 0) return 1;

    switch (n) {
        case 1:
            copyFrame(frames[0], output, count);
            return 1;
        case 2:
            averageTwo(frames[0], frames[1], output, count);
            return 1;
        case 4:
            averageFour(frames, output, count);
            return 1;
        default:
            break;
    }

    copyFrame(frames[0], output, count);
    for (int k = 1; k <= n - 2; ++k) accumulate(frames[k], output, count);

    // Division table: entry i = (i + n - 1) / n for every sum of n samples below 1024.
    u16* table = new (std::nothrow) u16[static_cast<size_t>(n) * 1024];
    if (table != nullptr) {
        for (int i = 0; i < n * 1024; ++i) table[i] = static_cast<u16>((i + n - 1) / n);
    }
    frame_average_detail::divideLastSum(output, frames[n - 1], count, n, table);
    delete[] table;
    return 1;
}

#include "registration/frame_average.h"

#include <cstdint>
#include <cstring>
#include <new>

#include "imgcore/fast_paths.h"
#include "imgcore/simd_clones.h"

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

frame_average_detail::Reciprocal frame_average_detail::reciprocalFor(int n) {
    // s = 15 + ceil(log2 n) and m = ceil(2^s / n) < 2^16 make (x * m) >> s equal
    // x / n for every x below 2^15 (n = 2..16; checked for every x in the tests).
    int log2n = 0;
    while ((1 << log2n) < n) ++log2n;
    const int shift = 15 + log2n;
    return Reciprocal{static_cast<unsigned>(((1u << shift) + static_cast<unsigned>(n) - 1) / static_cast<unsigned>(n)),
                      shift - 16};
}

namespace {

constexpr long kChunk = 2048;  // samples per chunk: the running sums stay in L1

// (sum + n - 1) / n through the reciprocal: the high half of a 16 x 16-bit product
// and a shift, which vectorises on 16-bit lanes.
KEP_SIMD_CLONES
void divideChunk(const u16* __restrict sums, short* __restrict out, long count, u16 bias, u16 multiplier, int shift) {
    for (long p = 0; p < count; ++p) {
        const u16 x = static_cast<u16>(sums[p] + bias);
        out[p] = static_cast<short>(static_cast<u16>((static_cast<unsigned>(x) * multiplier) >> 16) >> shift);
    }
}

KEP_SIMD_CLONES
u16 addChunk(const short* __restrict frame, u16* __restrict sums, long count, bool first) {
    u16 bits = 0;
    if (first) {
        for (long p = 0; p < count; ++p) {
            sums[p] = asU16(frame[p]);
            bits = static_cast<u16>(bits | asU16(frame[p]));
        }
    } else {
        for (long p = 0; p < count; ++p) {
            sums[p] = static_cast<u16>(sums[p] + asU16(frame[p]));
            bits = static_cast<u16>(bits | asU16(frame[p]));
        }
    }
    return bits;
}

}  // namespace

// All frames are read once, chunk by chunk. While every sample of a chunk is in
// 0..1023 the 16-bit sum is the true sum (below n * 1024 <= 2^14), so it is the
// table's index and the reciprocal gives the table's value; a chunk holding any
// other sample goes through the plain steps instead.
void frame_average_detail::averageChunked(const short* const* frames, short* output, long count, int n) {
    const Reciprocal r = reciprocalFor(n);
    u16 sums[kChunk];
    for (long begin = 0; begin < count; begin += kChunk) {
        const long length = count - begin < kChunk ? count - begin : kChunk;
        u16 bits = 0;
        for (int k = 0; k < n; ++k) bits = static_cast<u16>(bits | addChunk(frames[k] + begin, sums, length, k == 0));
        if ((bits & ~1023u) == 0) {
            divideChunk(sums, output + begin, length, static_cast<u16>(n - 1), static_cast<u16>(r.multiplier), r.shift);
            continue;
        }
        short* out = output + begin;
        copyFrame(frames[0] + begin, out, length);
        for (int k = 1; k <= n - 2; ++k) accumulate(frames[k] + begin, out, length);
        divideLastSum(out, frames[n - 1] + begin, length, n, nullptr);
    }
}

void frame_average_detail::averageTable(const short* const* frames, short* output, long count, int n) {
    copyFrame(frames[0], output, count);
    for (int k = 1; k <= n - 2; ++k) accumulate(frames[k], output, count);

    // Division table: entry i = (i + n - 1) / n for every sum of n samples below 1024.
    u16* table = new (std::nothrow) u16[static_cast<size_t>(n) * 1024];
    if (table != nullptr) {
        for (int i = 0; i < n * 1024; ++i) table[i] = static_cast<u16>((i + n - 1) / n);
    }
    divideLastSum(output, frames[n - 1], count, n, table);
    delete[] table;
}

bool frame_average_detail::framesApart(const short* const* frames, const short* output, long count, int n) {
    const auto lo = reinterpret_cast<std::uintptr_t>(output);
    const auto hi = reinterpret_cast<std::uintptr_t>(output + count);
    for (int k = 0; k < n; ++k) {
        const auto a = reinterpret_cast<std::uintptr_t>(frames[k]);
        const auto b = reinterpret_cast<std::uintptr_t>(frames[k] + count);
        if (a < hi && lo < b) return false;
    }
    return true;
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

    if (kUseFastPaths && n <= 16 && frame_average_detail::framesApart(frames, output, count, n)) {
        frame_average_detail::averageChunked(frames, output, count, n);
        return 1;
    }

    frame_average_detail::averageTable(frames, output, count, n);
    return 1;
}

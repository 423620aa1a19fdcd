// Rectangle copy (bytes and shorts): fuzzer-chosen sizes, strides (0, padded, or
// negative for bottom-up storage), offsets and placement of the two rectangles in
// one buffer, from disjoint to overlapping and to the same start address. The
// buffer is exactly as large as the two rectangles need. Nothing outside the
// destination rows may change; where the copy is defined as a copy of the source
// as it was (disjoint rectangles, or equal strides) the rows, taken in address
// order on both sides, must match the source.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_support.h"
#include "imgcore/copy_rect.h"

namespace {

struct Side {
    int stride;  // as passed (0 = width)
    int x, y;    // offset of the rectangle from the pointer passed
};

// Element offsets (from the pointer passed) of the rows, in address order.
std::vector<long long> rowStarts(const Side& s, int width, int height) {
    const long long stride = s.stride == 0 ? width : s.stride;
    const long long start = static_cast<long long>(s.y) * stride + s.x;
    std::vector<long long> rows;
    for (int r = 0; r < height; ++r) rows.push_back(start + r * stride);
    std::sort(rows.begin(), rows.end());
    return rows;
}

template <typename T>
void fuzzOne(FuzzedDataProvider& fdp) {
    const int width = fdp.ConsumeIntegralInRange<int>(-2, 24);
    const int height = fdp.ConsumeIntegralInRange<int>(-2, 12);
    const int w = std::max(width, 0), h = std::max(height, 0);
    Side side[2];
    for (Side& s : side) {
        const int kind = fdp.ConsumeIntegralInRange<int>(0, 2);
        const int row = w + fdp.ConsumeIntegralInRange<int>(0, 6);
        s.stride = kind == 0 ? 0 : kind == 1 ? row : -row;
        s.x = fdp.ConsumeIntegralInRange<int>(0, 4);
        s.y = fdp.ConsumeIntegralInRange<int>(0, 3);
    }
    const std::vector<long long> srcRows = rowStarts(side[0], w, h), dstRows = rowStarts(side[1], w, h);
    const long long srcLo = srcRows.empty() ? 0 : srcRows.front(), srcHi = srcRows.empty() ? 0 : srcRows.back() + w;
    const long long dstLo = dstRows.empty() ? 0 : dstRows.front(), dstHi = dstRows.empty() ? 0 : dstRows.back() + w;
    const long long srcStart = static_cast<long long>(side[0].y) * (side[0].stride == 0 ? w : side[0].stride) + side[0].x;
    const long long dstStart = static_cast<long long>(side[1].y) * (side[1].stride == 0 ? w : side[1].stride) + side[1].x;

    // Placement of the destination pointer relative to the source pointer.
    long long delta;
    const int placement = fdp.ConsumeIntegralInRange<int>(0, 2);
    if (placement == 0)
        delta = srcHi - dstLo + fdp.ConsumeIntegralInRange<int>(0, 3);  // disjoint, after the source
    else if (placement == 1)
        delta = srcStart - dstStart;  // same start address
    else
        delta = fdp.ConsumeIntegralInRange<long long>(srcLo - dstHi, srcHi - dstLo);  // anywhere, mostly overlapping

    // Arena coordinates: the pointers sit at srcAt and srcAt + delta.
    const long long lo = std::min(srcLo, dstLo + delta), hi = std::max(srcHi, dstHi + delta);
    fuzz::TightBuffer<T> arena(static_cast<size_t>(std::max(hi - lo, 1LL)));
    const long long srcAt = -lo, dstAt = -lo + delta;
    for (size_t i = 0; i < arena.size(); ++i) arena[i] = static_cast<T>(fdp.ConsumeIntegral<uint16_t>() ^ (i * 7));
    const std::vector<T> before(arena.data(), arena.data() + arena.size());

    T* src = arena.data() + srcAt;
    T* dst = arena.data() + dstAt;
    FUZZ_CHECK(zel::cpp::memory::copyRect_v00<T>(src, dst, width, height, side[0].stride, side[1].stride, side[0].x,
                                                 side[0].y, side[1].x, side[1].y) == 0);

    // Which arena elements belong to destination rows.
    std::vector<bool> inDst(arena.size(), false);
    for (long long r : dstRows)
        for (int c = 0; c < w; ++c) inDst[static_cast<size_t>(dstAt + r + c)] = true;
    for (size_t i = 0; i < arena.size(); ++i)
        if (!inDst[i]) FUZZ_CHECK(arena[i] == before[i]);

    const bool disjoint = srcHi + srcAt <= dstLo + dstAt || dstHi + dstAt <= srcLo + srcAt;
    const int srcStride = side[0].stride == 0 ? w : side[0].stride, dstStride = side[1].stride == 0 ? w : side[1].stride;
    if (disjoint || srcStride == dstStride) {
        for (int r = 0; r < h; ++r)
            for (int c = 0; c < w; ++c)
                FUZZ_CHECK(arena[static_cast<size_t>(dstAt + dstRows[r] + c)] ==
                           before[static_cast<size_t>(srcAt + srcRows[r] + c)]);
    }
    // A null pointer is refused without writing.
    FUZZ_CHECK(zel::cpp::memory::copyRect_v00<T>(nullptr, dst, width, height, side[0].stride, side[1].stride,
                                                 side[0].x, side[0].y, side[1].x, side[1].y) == -2);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider fdp(data, size);
    if (fdp.ConsumeBool())
        fuzzOne<unsigned char>(fdp);
    else
        fuzzOne<short>(fdp);
    return 0;
}

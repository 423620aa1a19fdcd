#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "imgcore/copy_rect.h"

using zel::cpp::memory::copyRect_v00;

namespace {

std::vector<unsigned char> ramp(std::size_t n, int start = 1) {
    std::vector<unsigned char> v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<unsigned char>(start + i);
    return v;
}

// Copy of a rectangle computed through a snapshot of the buffer: what any
// overlapping copy must produce when it behaves like a copy through a temporary.
std::vector<unsigned char> snapshotCopy(std::vector<unsigned char> buf, int w, int h, int stride, int sx, int sy,
                                        int dx, int dy) {
    const std::vector<unsigned char> before = buf;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) buf[(dy + y) * stride + dx + x] = before[(sy + y) * stride + sx + x];
    return buf;
}

TEST(CopyRect, CopiesOffsetRectangleWithStridesAndLeavesTheRestAlone) {
    const auto src = ramp(10 * 6);  // stride 10, 6 rows
    std::vector<unsigned char> dst(7 * 5, 0xEE);
    EXPECT_EQ(copyRect_v00<unsigned char>(src.data(), dst.data(), 3, 2, 10, 7, 4, 1, 2, 3), 0);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 7; ++x) {
            const bool inside = y >= 3 && y < 5 && x >= 2 && x < 5;
            const unsigned char want = inside ? src[(1 + y - 3) * 10 + 4 + x - 2] : 0xEE;
            EXPECT_EQ(dst[y * 7 + x], want) << x << "," << y;
        }

    // Stride 0 means width on both sides.
    std::vector<unsigned char> packed(4 * 3, 0);
    const auto p = ramp(4 * 3, 50);
    EXPECT_EQ(copyRect_v00<unsigned char>(p.data(), packed.data(), 4, 3, 0, 0, 0, 0, 0, 0), 0);
    EXPECT_EQ(packed, p);

    // Null pointers and empty rectangles.
    EXPECT_EQ(copyRect_v00<unsigned char>(nullptr, dst.data(), 1, 1, 0, 0, 0, 0, 0, 0), -2);
    EXPECT_EQ(copyRect_v00<unsigned char>(src.data(), nullptr, 1, 1, 0, 0, 0, 0, 0, 0), -2);
    const auto untouched = dst;
    EXPECT_EQ(copyRect_v00<unsigned char>(src.data(), dst.data(), 3, 0, 10, 7, 0, 0, 0, 0), 0);
    EXPECT_EQ(copyRect_v00<unsigned char>(src.data(), dst.data(), 0, 3, 10, 7, 0, 0, 0, 0), 0);
    EXPECT_EQ(copyRect_v00<unsigned char>(src.data(), dst.data(), -3, 3, 10, 7, 0, 0, 0, 0), 0);
    EXPECT_EQ(dst, untouched);
}

TEST(CopyRect, NegativeStrideWalksRowsBottomUp) {
    // Source stored bottom-up: the caller's row r lies at base - r*4.
    const auto mem = ramp(4 * 3);
    const unsigned char* top = mem.data() + 2 * 4;
    std::vector<unsigned char> dst(4 * 3, 0);
    EXPECT_EQ(copyRect_v00<unsigned char>(top, dst.data(), 4, 3, -4, 4, 0, 0, 0, 0), 0);
    // Rows are copied in memory order, so a top-down destination is flipped.
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 4; ++x) EXPECT_EQ(dst[y * 4 + x], mem[y * 4 + x]);

    // Both sides bottom-up: the same memory rows again, i.e. row r to row r.
    std::vector<unsigned char> dst2(4 * 3, 0);
    EXPECT_EQ(copyRect_v00<unsigned char>(top, dst2.data() + 8, 4, 3, -4, -4, 0, 0, 0, 0), 0);
    EXPECT_EQ(dst2, mem);

    // Offsets use the signed stride: row 1 of a bottom-up 4x3 image is the middle
    // memory row.
    std::vector<unsigned char> one(2, 0);
    EXPECT_EQ(copyRect_v00<unsigned char>(top, one.data(), 2, 1, -4, 2, 1, 1, 0, 0), 0);
    EXPECT_EQ(one[0], mem[4 + 1]);
    EXPECT_EQ(one[1], mem[4 + 2]);
}

TEST(CopyRect, SameStartAddressRepacksInPlace) {
    // Equal strides: nothing to do.
    auto buf = ramp(6 * 4);
    const auto orig = buf;
    EXPECT_EQ(copyRect_v00<unsigned char>(buf.data(), buf.data(), 4, 4, 6, 6, 0, 0, 0, 0), 0);
    EXPECT_EQ(buf, orig);

    // Source stride larger: compacting rows of 6 into rows of 4 works top down.
    EXPECT_EQ(copyRect_v00<unsigned char>(buf.data(), buf.data(), 4, 4, 6, 4, 0, 0, 0, 0), 0);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x) EXPECT_EQ(buf[y * 4 + x], orig[y * 6 + x]);

    // Source stride smaller: expanding back works bottom up.
    EXPECT_EQ(copyRect_v00<unsigned char>(buf.data(), buf.data(), 4, 4, 4, 6, 0, 0, 0, 0), 0);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x) EXPECT_EQ(buf[y * 6 + x], orig[y * 6 + x]);
}

TEST(CopyRect, OverlappingRectanglesBehaveLikeACopyThroughATemporary) {
    struct Case {
        int w, h, sx, sy, dx, dy;
    };
    const int stride = 9;
    // Shifts in every direction, sub-rectangles (row-wise moves) and whole rows
    // (stride == width, one move).
    const Case cases[] = {{5, 4, 0, 0, 1, 1}, {5, 4, 1, 1, 0, 0}, {5, 4, 2, 0, 0, 1}, {5, 4, 0, 1, 2, 0},
                          {6, 3, 0, 0, 3, 0}, {6, 3, 3, 0, 0, 0}, {9, 5, 0, 0, 0, 2}, {9, 5, 0, 2, 0, 0},
                          {9, 5, 0, 0, 4, 1}, {9, 5, 4, 1, 0, 0}};
    for (const Case& c : cases) {
        auto buf = ramp(stride * 8);
        const auto want = snapshotCopy(buf, c.w, c.h, stride, c.sx, c.sy, c.dx, c.dy);
        const int s = c.w == stride ? 0 : stride;  // exercise "0 means width" for full rows
        EXPECT_EQ(copyRect_v00<unsigned char>(buf.data(), buf.data(), c.w, c.h, s, s, c.sx, c.sy, c.dx, c.dy), 0);
        EXPECT_EQ(buf, want) << c.w << "x" << c.h << " (" << c.sx << "," << c.sy << ")->(" << c.dx << "," << c.dy
                             << ")";
    }
}

TEST(CopyRect, ShortElementsUseStridesInElements) {
    std::vector<short> src(8 * 4);
    std::iota(src.begin(), src.end(), -100);
    std::vector<short> dst(5 * 3, 7);
    EXPECT_EQ(copyRect_v00<short>(src.data(), dst.data(), 3, 2, 8, 5, 2, 1, 1, 1), 0);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x) {
            const bool inside = y >= 1 && x >= 1 && x < 4;
            EXPECT_EQ(dst[y * 5 + x], inside ? src[(y) * 8 + x + 1] : 7) << x << "," << y;
        }

    // Overlapping in-place shift of a 16-bit plane.
    std::vector<short> plane(6 * 4);
    std::iota(plane.begin(), plane.end(), 1000);
    const auto orig = plane;
    EXPECT_EQ(copyRect_v00<short>(plane.data(), plane.data(), 6, 3, 0, 0, 0, 0, 0, 1), 0);
    for (int y = 1; y < 4; ++y)
        for (int x = 0; x < 6; ++x) EXPECT_EQ(plane[y * 6 + x], orig[(y - 1) * 6 + x]);
    EXPECT_EQ(copyRect_v00<short>(nullptr, plane.data(), 1, 1, 0, 0, 0, 0, 0, 0), -2);
}

}  // namespace

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "imgcore/copy_rect.h"

using zel::cpp::memory::copyRect_v00;

namespace {

using Bytes = std::vector<unsigned char>;

Bytes ramp(std::size_t n) {
    Bytes v(n);
    std::iota(v.begin(), v.end(), 1);
    return v;
}

TEST(CopyRect, StridesOffsetsAndBottomUpRows) {
    const Bytes src = ramp(10 * 6);  // stride 10
    Bytes dst(7 * 5, 0xEE);
    EXPECT_EQ(copyRect_v00<unsigned char>(src.data(), dst.data(), 3, 2, 10, 7, 4, 1, 2, 3), 0);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 7; ++x) {
            const bool inside = y >= 3 && x >= 2 && x < 5;
            EXPECT_EQ(dst[y * 7 + x], inside ? src[(y - 2) * 10 + x + 2] : 0xEE) << x << "," << y;
        }
    Bytes packed(12, 0);
    EXPECT_EQ(copyRect_v00<unsigned char>(src.data(), packed.data(), 4, 3, 0, 0, 0, 0, 0, 0), 0);  // 0 = width
    EXPECT_EQ(packed, Bytes(src.begin(), src.begin() + 12));

    // Bottom-up source (row r at top - r*4): rows are taken in memory order, so
    // a top-down destination receives them flipped; two bottom-up sides copy
    // row r to row r. Offsets use the signed stride.
    const Bytes mem = ramp(12);
    const unsigned char* top = mem.data() + 8;
    Bytes flipped(12, 0), same(12, 0), one(2, 0);
    EXPECT_EQ(copyRect_v00<unsigned char>(top, flipped.data(), 4, 3, -4, 4, 0, 0, 0, 0), 0);
    EXPECT_EQ(flipped, mem);
    EXPECT_EQ(copyRect_v00<unsigned char>(top, same.data() + 8, 4, 3, -4, -4, 0, 0, 0, 0), 0);
    EXPECT_EQ(same, mem);
    EXPECT_EQ(copyRect_v00<unsigned char>(top, one.data(), 2, 1, -4, 2, 1, 1, 0, 0), 0);
    EXPECT_EQ(one, (Bytes{mem[5], mem[6]}));

    const Bytes before = dst;
    EXPECT_EQ(copyRect_v00<unsigned char>(nullptr, dst.data(), 1, 1, 0, 0, 0, 0, 0, 0), -2);
    EXPECT_EQ(copyRect_v00<unsigned char>(src.data(), nullptr, 1, 1, 0, 0, 0, 0, 0, 0), -2);
    EXPECT_EQ(copyRect_v00<unsigned char>(src.data(), dst.data(), 3, 0, 10, 7, 0, 0, 0, 0), 0);
    EXPECT_EQ(copyRect_v00<unsigned char>(src.data(), dst.data(), -3, 3, 10, 7, 0, 0, 0, 0), 0);
    EXPECT_EQ(dst, before);
}

TEST(CopyRect, InPlaceAndOverlappingCopiesActLikeACopyThroughATemporary) {
    // Same start address: equal strides do nothing; compacting rows of 6 into
    // rows of 4 and expanding them back both restore the rectangle.
    Bytes buf = ramp(6 * 4);
    const Bytes orig = buf;
    EXPECT_EQ(copyRect_v00<unsigned char>(buf.data(), buf.data(), 4, 4, 6, 6, 0, 0, 0, 0), 0);
    EXPECT_EQ(buf, orig);
    EXPECT_EQ(copyRect_v00<unsigned char>(buf.data(), buf.data(), 4, 4, 6, 4, 0, 0, 0, 0), 0);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(buf[i], orig[(i / 4) * 6 + i % 4]);
    EXPECT_EQ(copyRect_v00<unsigned char>(buf.data(), buf.data(), 4, 4, 4, 6, 0, 0, 0, 0), 0);
    for (int i = 0; i < 24; ++i) EXPECT_EQ(buf[i], i % 6 < 4 ? orig[i] : buf[i]);

    // Shifts in every direction, of sub-rectangles (row-wise) and of whole rows
    // (one move), inside one buffer of stride 9.
    const int cases[][6] = {{5, 4, 0, 0, 1, 1}, {5, 4, 1, 1, 0, 0}, {5, 4, 2, 0, 0, 1},
                            {6, 3, 0, 0, 3, 0}, {9, 5, 0, 0, 4, 1}, {9, 5, 4, 1, 0, 0}};
    for (const auto& c : cases) {
        Bytes img = ramp(9 * 8), want = img;
        for (int y = 0; y < c[1]; ++y)
            for (int x = 0; x < c[0]; ++x) want[(c[5] + y) * 9 + c[4] + x] = img[(c[3] + y) * 9 + c[2] + x];
        EXPECT_EQ(copyRect_v00<unsigned char>(img.data(), img.data(), c[0], c[1], 9, 9, c[2], c[3], c[4], c[5]), 0);
        EXPECT_EQ(img, want) << c[0] << "x" << c[1] << " from " << c[2] << "," << c[3];
    }

    // 16-bit elements: sizes and strides count elements.
    std::vector<short> plane(6 * 4);
    std::iota(plane.begin(), plane.end(), -1000);
    const std::vector<short> p0 = plane;
    EXPECT_EQ(copyRect_v00<short>(plane.data(), plane.data(), 6, 3, 0, 0, 0, 0, 0, 1), 0);
    EXPECT_TRUE(std::equal(plane.begin() + 6, plane.end(), p0.begin()));
    std::vector<short> small(3 * 2, 7);
    EXPECT_EQ(copyRect_v00<short>(p0.data(), small.data(), 2, 2, 6, 3, 1, 1, 1, 0), 0);
    EXPECT_EQ(small, (std::vector<short>{7, p0[7], p0[8], 7, p0[13], p0[14]}));
}

}  // namespace

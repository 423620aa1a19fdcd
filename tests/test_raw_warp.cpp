#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <vector>

#include "imgcore/saturate.h"
#include "registration/bilinear_table.h"
#include "registration/raw_warp.h"

namespace {

using ll = long long;

struct Bounds {
    int top = 0;
    int bottom = 0;
    int reportedTop = 0;
    int reportedBottom = 0;
};

// A source frame of random samples and an output pre-filled with -1 (no data).
struct RawFrames {
    int quadCols;
    int quadRows;
    std::vector<short> src;
    std::vector<short> dst;

    RawFrames(int cols, int rows, std::mt19937& rng, int lo = 0, int hi = 1023)
        : quadCols(cols), quadRows(rows), src(4 * static_cast<size_t>(cols) * rows), dst(src.size(), -1) {
        std::uniform_int_distribution<int> value(lo, hi);
        for (short& s : src) s = static_cast<short>(value(rng));
    }
    short& out(int row, int col) { return dst[static_cast<size_t>(row) * 2 * quadCols + col]; }
    short in(int row, int col) const { return src[static_cast<size_t>(row) * 2 * quadCols + col]; }
};

void warp(RawFrames& f, Rect region, double* h, Bounds& b) {
    qnWarpImgRaw(region, matrixWrap(h, 3, 3), f.quadCols, f.quadRows, 0, 0, nullptr, nullptr, nullptr, nullptr,
                 nullptr, nullptr, nullptr, nullptr, &b.reportedTop, &b.reportedBottom, f.src.data(), f.dst.data(),
                 &b.top, &b.bottom);
}

// The 16 cells of a frame in row-major order, as the alignment driver cuts them.
std::vector<Rect> cells(int quadCols, int quadRows) {
    std::vector<Rect> out;
    const int hw = quadCols / 4, hh = quadRows / 4;
    for (int gy = 0; gy < 4; ++gy)
        for (int gx = 0; gx < 4; ++gx) out.push_back(Rect{gx * hw, gy * hh, hw, hh});
    return out;
}

short blend(const float w[4], short a, short b, short c, short d) {
    return static_cast<short>(static_cast<int>(((w[0] * a + w[1] * b) + w[2] * c) + w[3] * d));
}

// Plain per-quad, per-site form of the raw warp, one model evaluation per run of
// four quads; the vectorised warp must match it sample for sample.
void referenceWarp(RawFrames& f, Rect region, const double* h, Bounds& bounds) {
    const int quadCols = f.quadCols, quadRows = f.quadRows;
    if (region.x == 0 && region.y == 0) {
        bounds.top = 0;
        bounds.bottom = quadRows - 1;
    }
    float table[10][10][4];
    generateBilinearTbl(table);
    int firstRow = quadRows - 1, lastRow = 0;
    const ll right = static_cast<ll>(region.x) + region.width;
    for (int y = region.y; y < region.y + region.height; ++y) {
        ll x0 = region.x, x1;
        do {
            x1 = std::min(x0 + 4, right);
            const ll xc = static_cast<ll>(std::trunc(static_cast<double>(x0 + x1) * 0.5));
            const float sy = static_cast<float>((h[3] * xc + h[4] * y) + (h[5] + h[5]));
            const int r0 = truncToInt(sy);
            if (!(sy < 0 || r0 < 0 || static_cast<ll>(r0) + 1 >= quadRows)) {
                const float sx = static_cast<float>((h[0] * xc + h[1] * y) + (h[2] + h[2]));
                const int fy = truncToInt(sy * 10.0f) % 10;
                const int fx = static_cast<int>(std::llabs(static_cast<ll>(truncToInt(sx * 10.0f)) - (sx < 0)) % 10);
                const ll s0 = truncToInt(std::floor(sx) - static_cast<float>(std::max(xc - x0, 0LL)));
                const ll under = std::max(-s0, 0LL);
                const ll end = s0 + (x1 - x0);
                const ll over = end >= quadCols ? end - quadCols + 1 : 0;
                for (ll x = x0 + under; x < x1 - over; ++x) {
                    const ll s = s0 + (x - x0);
                    for (int dr = 0; dr < 2; ++dr)
                        for (int dc = 0; dc < 2; ++dc) {
                            const int top = 2 * r0 + dr, bottom = 2 * (r0 + 1) + dr;
                            const int left = static_cast<int>(2 * s + dc);
                            const int rightCol = static_cast<int>(2 * (s + 1) + dc);
                            f.out(2 * y + dr, static_cast<int>(2 * x + dc)) =
                                blend(table[fy][fx], f.in(top, left), f.in(top, rightCol), f.in(bottom, left),
                                      f.in(bottom, rightCol));
                        }
                }
                if (region.y == 0 && y < firstRow) firstRow = y;
                if (region.y + region.height == quadRows && y > lastRow) lastRow = y;
            }
            x0 = x1;
        } while (x1 < right);
    }
    if (region.y == 0) bounds.top = std::max(bounds.top, firstRow);
    if (region.y + region.height == quadRows) bounds.bottom = std::min(bounds.bottom, lastRow);
    bounds.reportedTop = bounds.top;
    bounds.reportedBottom = bounds.bottom;
}

void expectSameBounds(const Bounds& a, const Bounds& b) {
    EXPECT_EQ(a.top, b.top);
    EXPECT_EQ(a.bottom, b.bottom);
    EXPECT_EQ(a.reportedTop, b.reportedTop);
    EXPECT_EQ(a.reportedBottom, b.reportedBottom);
}

TEST(RawWarp, IdentityCopiesAllButTheLastQuadRowAndColumn) {
    std::mt19937 rng(1);
    const int quadCols = 13, quadRows = 9;  // runs of 4 end in a partial run
    double identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    double slightlyRight[9] = {1, 0, 0.025, 0, 1, 0, 0, 0, 1};  // 0.05 quad: weight index 0
    for (double* h : {identity, slightlyRight}) {
        for (bool byCells : {false, true}) {
            RawFrames f(quadCols, quadRows, rng);
            Bounds b;
            if (byCells)
                for (const Rect& r : cells(quadCols, quadRows)) warp(f, r, h, b);  // short, partial runs
            else
                warp(f, Rect{0, 0, quadCols, quadRows}, h, b);
            for (int row = 0; row < 2 * quadRows; ++row)
                for (int col = 0; col < 2 * quadCols; ++col) {
                    const bool lastQuad = row / 2 == quadRows - 1 || col / 2 == quadCols - 1;
                    ASSERT_EQ(f.out(row, col), lastQuad ? -1 : f.in(row, col)) << row << "," << col;
                }
        }
    }
    // A rectangle reaching past the frame on every side copies the same quads.
    RawFrames f(quadCols, quadRows, rng);
    Bounds b;
    warp(f, Rect{-5, -3, quadCols + 11, quadRows + 7}, identity, b);
    for (int row = 0; row < 2 * quadRows; ++row)
        for (int col = 0; col < 2 * quadCols; ++col) {
            const bool lastQuad = row / 2 == quadRows - 1 || col / 2 == quadCols - 1;
            ASSERT_EQ(f.out(row, col), lastQuad ? -1 : f.in(row, col)) << row << "," << col;
        }
}

TEST(RawWarp, WeightIndexTruncatesTenthsAndMirrorsNegativeColumns) {
    std::mt19937 rng(2);
    const float index3[4] = {0.7f, 0.3f, 0.0f, 0.0f};
    const float index7[4] = {0.3f, 0.7f, 0.0f, 0.0f};

    // 0.37 quad right of every output quad: weight index 3.
    RawFrames f(12, 6, rng);
    double right037[9] = {1, 0, 0.185, 0, 1, 0, 0, 0, 1};
    Bounds b;
    warp(f, Rect{0, 0, 12, 6}, right037, b);
    for (int row = 0; row < 10; ++row)
        for (int col = 0; col < 22; ++col)
            ASSERT_EQ(f.out(row, col), blend(index3, f.in(row, col), f.in(row, col + 2), 0, 0)) << row << "," << col;

    // Source column x - 2.25: the first run (centre 2) starts at -0.25, which uses
    // index 3 (not 7) from source quads 0 and 1 for output quad 3 and leaves quads
    // 0..2 without data; the second run (centre 6, source 3.75) uses index 7.
    RawFrames g(12, 6, rng);
    double left225[9] = {1, 0, -1.125, 0, 1, 0, 0, 0, 1};
    warp(g, Rect{0, 0, 12, 6}, left225, b);
    for (int row = 0; row < 10; ++row) {
        for (int col = 0; col < 6; ++col) EXPECT_EQ(g.out(row, col), -1);
        for (int dc = 0; dc < 2; ++dc) {
            EXPECT_EQ(g.out(row, 6 + dc), blend(index3, g.in(row, dc), g.in(row, 2 + dc), 0, 0));
            EXPECT_EQ(g.out(row, 8 + dc), blend(index7, g.in(row, 2 + dc), g.in(row, 4 + dc), 0, 0));
        }
    }
}

TEST(RawWarp, AccumulatesFirstAndLastWrittenRowsOverTheCells) {
    std::mt19937 rng(3);
    const int quadCols = 16, quadRows = 24;  // cells of 4 x 6 quads
    RawFrames f(quadCols, quadRows, rng);
    // Top cells move the source up (first written rows 1, 2, 3, 2); bottom cells
    // move it down (last written rows 21, 20, 18, 21); the others are identities.
    const double topShift[4] = {-0.5, -1.0, -1.5, -0.75};
    const double bottomShift[4] = {0.5, 1.0, 2.0, 0.75};
    Bounds b{55, -7, 0, 0};  // stale values from an earlier frame
    const std::vector<Rect> grid = cells(quadCols, quadRows);
    for (int k = 0; k < 16; ++k) {
        double h[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
        if (k < 4) h[5] = topShift[k];
        if (k >= 12) h[5] = bottomShift[k - 12];
        warp(f, grid[k], h, b);
        if (k == 0) {
            EXPECT_EQ(b.reportedTop, 1);
            EXPECT_EQ(b.reportedBottom, quadRows - 1);
        }
    }
    EXPECT_EQ(b.reportedTop, 3);
    EXPECT_EQ(b.reportedBottom, 18);
    EXPECT_EQ(b.top, 3);
    EXPECT_EQ(b.bottom, 18);

    // A rectangle at (0, 0) of height 0 writes nothing but still resets and then
    // records "no row written" as the first row.
    RawFrames g(quadCols, quadRows, rng);
    Bounds c{55, -7, 0, 0};
    double identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    warp(g, Rect{0, 0, 4, 0}, identity, c);
    EXPECT_EQ(c.top, quadRows - 1);
    EXPECT_EQ(c.bottom, quadRows - 1);
    EXPECT_EQ(c.reportedTop, quadRows - 1);
    for (short s : g.dst) ASSERT_EQ(s, -1);
    // A top cell other than the first keeps the accumulators it is given.
    Bounds d{5, 9, 0, 0};
    warp(g, Rect{4, 0, 4, 6}, identity, d);
    EXPECT_EQ(d.reportedTop, 5);
    EXPECT_EQ(d.reportedBottom, 9);
}

// Random affine models (scales, shears and translations that push sources past
// every side of the frame) on random frames of several widths: the vectorised
// warp must match the plain one exactly, outputs and bounds alike.
TEST(RawWarp, MatchesPlainFormOnRandomModelsAndFrames) {
    std::mt19937 rng(4);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    for (int quadCols : {5, 13, 32, 37, 50}) {
        const int quadRows = 12 + quadCols % 7;
        for (int trial = 0; trial < 40; ++trial) {
            RawFrames fast(quadCols, quadRows, rng, -32768, 32767);
            RawFrames plain = fast;
            Bounds fb{3, 4, 0, 0}, pb = fb;
            for (const Rect& r : cells(quadCols, quadRows)) {
                double h[9] = {1 + 0.1 * unit(rng), 0.1 * unit(rng), quadCols * 0.3 * unit(rng),
                               0.1 * unit(rng), 1 + 0.1 * unit(rng), quadRows * 0.3 * unit(rng), 0, 0, 1};
                warp(fast, r, h, fb);
                referenceWarp(plain, r, h, pb);
            }
            // One more rectangle anywhere inside the frame.
            std::uniform_int_distribution<int> px(0, quadCols - 1), py(0, quadRows - 1);
            const int x = px(rng), y = py(rng);
            Rect r{x, y, std::uniform_int_distribution<int>(0, quadCols - x)(rng),
                   std::uniform_int_distribution<int>(0, quadRows - y)(rng)};
            double h[9] = {1 + 0.2 * unit(rng), 0.2 * unit(rng), quadCols * 0.5 * unit(rng),
                           0.2 * unit(rng), 1 + 0.2 * unit(rng), quadRows * 0.5 * unit(rng), 0, 0, 1};
            warp(fast, r, h, fb);
            referenceWarp(plain, r, h, pb);
            ASSERT_EQ(fast.dst, plain.dst) << "quadCols " << quadCols << " trial " << trial;
            expectSameBounds(fb, pb);
        }
    }
}

// Degenerate fits can hand over NaN, infinite or huge coefficients: every run must
// stay inside both frames (checked by the sanitizer build) and still follow the
// plain form with saturating conversions.
TEST(RawWarp, NonFiniteAndHugeModelsStayInsideTheFrames) {
    std::mt19937 rng(5);
    const double nasty[] = {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
                            -std::numeric_limits<double>::infinity(), 1e30, -1e30, 3e9, -3e9, 1e9, -1e9};
    for (int slot = 0; slot < 6; ++slot) {
        for (double v : nasty) {
            RawFrames fast(11, 10, rng);
            RawFrames plain = fast;
            Bounds fb, pb;
            double h[9] = {1, 0, 0.6, 0, 1, 0.6, 0, 0, 1};
            h[slot] = v;
            for (const Rect& r : cells(11, 10)) {
                warp(fast, r, h, fb);
                referenceWarp(plain, r, h, pb);
            }
            ASSERT_EQ(fast.dst, plain.dst) << "slot " << slot << " value " << v;
            expectSameBounds(fb, pb);
            warp(fast, Rect{-3, -2, 20, 15}, h, fb);  // reaching past the frame as well
        }
    }
    for (double shift : {-4.0, 4.0}) {  // sources inside for destinations outside
        RawFrames f(11, 10, rng);
        Bounds b;
        double h[9] = {1, 0, shift, 0, 1, shift, 0, 0, 1};
        warp(f, Rect{-10, -10, 31, 30}, h, b);
    }
}

}  // namespace

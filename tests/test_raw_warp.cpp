#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <vector>

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

// The plain per-quad, per-site form, called directly whatever the build's switch.
void plainWarp(RawFrames& f, Rect region, const double* h, Bounds& b) {
    raw_warp_detail::warpPlain(region, h, f.quadCols, f.quadRows, &b.reportedTop, &b.reportedBottom, f.src.data(),
                               f.dst.data(), &b.top, &b.bottom);
}

void runsWarp(RawFrames& f, Rect region, const double* h, Bounds& b, bool fillGaps = false) {
    raw_warp_detail::warpRuns(region, h, f.quadCols, f.quadRows, &b.reportedTop, &b.reportedBottom, f.src.data(),
                              f.dst.data(), &b.top, &b.bottom, fillGaps);
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
    // Whole frame, the 16 cells (short, partial runs), and a rectangle reaching
    // past the frame on every side all copy the same quads.
    for (double* h : {identity, slightlyRight})
        for (int mode = 0; mode < 3; ++mode) {
            RawFrames f(quadCols, quadRows, rng);
            Bounds b;
            if (mode == 0) warp(f, Rect{0, 0, quadCols, quadRows}, h, b);
            if (mode == 1)
                for (const Rect& r : cells(quadCols, quadRows)) warp(f, r, h, b);
            if (mode == 2) warp(f, Rect{-5, -3, quadCols + 11, quadRows + 7}, h, b);
            for (int row = 0; row < 2 * quadRows; ++row)
                for (int col = 0; col < 2 * quadCols; ++col) {
                    const bool lastQuad = row / 2 == quadRows - 1 || col / 2 == quadCols - 1;
                    ASSERT_EQ(f.out(row, col), lastQuad ? -1 : f.in(row, col)) << row << "," << col << " mode " << mode;
                }
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
// every side of the frame, translations on exact tenths) on random frames of many
// widths, and rectangles reaching past the frame: the run-planned warp must match
// the plain one exactly, outputs and bounds alike.
TEST(RawWarp, RunsMatchPlainFormOnRandomModelsAndFrames) {
    std::mt19937 rng(4);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    std::uniform_int_distribution<int> tenths(-40, 40);
    for (int quadCols : {1, 2, 3, 5, 8, 9, 13, 17, 32, 37, 50}) {
        const int quadRows = 4 + quadCols % 7;
        for (int trial = 0; trial < 30; ++trial) {
            RawFrames fast(quadCols, quadRows, rng, -32768, 32767);
            RawFrames plain = fast;
            Bounds fb{3, 4, 0, 0}, pb = fb;
            const double spread = trial % 3 == 0 ? 0.0 : 0.1;
            for (const Rect& r : cells(quadCols, quadRows)) {
                double h[9] = {1 + spread * unit(rng), spread * unit(rng), quadCols * 0.3 * unit(rng),
                               spread * unit(rng), 1 + spread * unit(rng), quadRows * 0.3 * unit(rng), 0, 0, 1};
                if (trial % 3 == 0) h[2] = tenths(rng) * 0.05, h[5] = tenths(rng) * 0.05;
                runsWarp(fast, r, h, fb);
                plainWarp(plain, r, h, pb);
            }
            // One more rectangle anywhere, reaching past the frame.
            std::uniform_int_distribution<int> px(-3, quadCols), py(-3, quadRows);
            const Rect r{px(rng), py(rng), std::uniform_int_distribution<int>(0, quadCols + 6)(rng),
                         std::uniform_int_distribution<int>(0, quadRows + 6)(rng)};
            double h[9] = {1 + 0.2 * unit(rng), 0.2 * unit(rng), quadCols * 0.5 * unit(rng),
                           0.2 * unit(rng), 1 + 0.2 * unit(rng), quadRows * 0.5 * unit(rng), 0, 0, 1};
            runsWarp(fast, r, h, fb);
            plainWarp(plain, r, h, pb);
            ASSERT_EQ(fast.dst, plain.dst) << "quadCols " << quadCols << " trial " << trial;
            expectSameBounds(fb, pb);
        }
    }
}

// With gap filling, cells that tile the frame write every sample of a destination
// holding anything: the result equals the plain warp into a buffer of -1, both for
// one call per cell and for the cells walked together row by row.
TEST(RawWarp, GapFillingEqualsAPrefilledDestination) {
    std::mt19937 rng(6);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    for (int quadCols : {4, 8, 12, 36, 68})
        for (int quadRows : {4, 12, 20, 44})
            for (int trial = 0; trial < 8; ++trial) {
                RawFrames byCell(quadCols, quadRows, rng, -40, 1100);
                RawFrames plain = byCell;
                for (short& v : byCell.dst) v = static_cast<short>(rng());
                RawFrames byRows = byCell;
                Bounds cb{9, 2, 0, 0}, pb = cb, rb = cb;  // stale accumulators
                const double reach = trial < 4 ? 0.2 : 1.5;  // sources far outside leave wide gaps
                const double tilt = trial % 2 ? 0.5 : 0.1;      // source rows far above or below
                const std::vector<Rect> grid = cells(quadCols, quadRows);
                std::vector<std::vector<double>> models;
                std::vector<const double*> modelPtrs;
                for (size_t c = 0; c < grid.size(); ++c)
                    models.push_back({1 + 0.1 * unit(rng), 0.1 * unit(rng), quadCols * reach * unit(rng),
                                      tilt * unit(rng), 1 + tilt * unit(rng), quadRows * reach * unit(rng), 0, 0, 1});
                for (size_t c = 0; c < grid.size(); ++c) {
                    runsWarp(byCell, grid[c], models[c].data(), cb, true);
                    plainWarp(plain, grid[c], models[c].data(), pb);
                    modelPtrs.push_back(models[c].data());
                }
                // The clamped copy goes over the source itself, row by row as the warp
                // stops reading it.
                raw_warp_detail::warpCellsByRows(grid.data(), modelPtrs.data(), 16, quadCols, quadRows,
                                                 &rb.reportedTop, &rb.reportedBottom, byRows.src.data(),
                                                 byRows.dst.data(), &rb.top, &rb.bottom, true, byRows.src.data());
                ASSERT_EQ(byCell.dst, plain.dst) << quadCols << "x" << quadRows << " trial " << trial;
                ASSERT_EQ(byRows.dst, plain.dst) << quadCols << "x" << quadRows << " trial " << trial;
                std::vector<short> clamped(plain.dst.size());
                raw_warp_detail::clampToTenBits(plain.dst.data(), clamped.data(), clamped.size());
                ASSERT_EQ(byRows.src, clamped);
                expectSameBounds(cb, pb);
                expectSameBounds(rb, pb);
            }
}

// Degenerate fits can hand over NaN, infinite or huge coefficients: every run must
// stay inside both frames (checked by the sanitizer build) and the run-planned
// warp must still follow the plain form with its saturating conversions.
TEST(RawWarp, NonFiniteAndHugeModelsStayInsideTheFrames) {
    std::mt19937 rng(5);
    const double nasty[] = {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
                            -std::numeric_limits<double>::infinity(), 1e30, -1e30, 3e9, -3e9, 1e9, -1e9, 2.5e6};
    for (int slot = 0; slot < 6; ++slot) {
        for (double v : nasty) {
            RawFrames fast(12, 8, rng);
            RawFrames plain = fast, filled = fast;
            for (short& s : filled.dst) s = 77;
            Bounds fb, pb, gb;
            double h[9] = {1, 0, 0.6, 0, 1, 0.6, 0, 0, 1};
            h[slot] = v;
            RawFrames inPlace = filled;
            std::vector<const double*> models(16, h);
            for (const Rect& r : cells(12, 8)) {
                runsWarp(fast, r, h, fb);
                runsWarp(filled, r, h, gb, true);
                plainWarp(plain, r, h, pb);
            }
            const std::vector<Rect> grid = cells(12, 8);
            Bounds ib;
            raw_warp_detail::warpCellsByRows(grid.data(), models.data(), 16, 12, 8, &ib.reportedTop,
                                             &ib.reportedBottom, inPlace.src.data(), inPlace.dst.data(), &ib.top,
                                             &ib.bottom, true, inPlace.src.data());
            ASSERT_EQ(filled.dst, plain.dst) << "slot " << slot << " value " << v;
            ASSERT_EQ(inPlace.dst, plain.dst) << "slot " << slot << " value " << v;
            runsWarp(fast, Rect{-3, -2, 20, 15}, h, fb);  // reaching past the frame as well
            plainWarp(plain, Rect{-3, -2, 20, 15}, h, pb);
            ASSERT_EQ(fast.dst, plain.dst) << "slot " << slot << " value " << v;
            expectSameBounds(fb, pb);
        }
    }
}

}  // namespace

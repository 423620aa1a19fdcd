#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "registration/bilinear_table.h"
#include "registration/gray_warp.h"

namespace {

struct GrayFrames {
    int width;
    int height;
    std::vector<unsigned char> src;
    std::vector<unsigned char> dst;

    GrayFrames(int w, int h, unsigned seed) : width(w), height(h), src(static_cast<size_t>(w) * h), dst(src.size(), 7) {
        std::mt19937 rng(seed);
        for (unsigned char& p : src) p = static_cast<unsigned char>(rng() & 255);
    }
    unsigned char out(int x, int y) const { return dst[static_cast<size_t>(y) * width + x]; }
    unsigned char in(int x, int y) const { return src[static_cast<size_t>(y) * width + x]; }
};

void warpSmall(GrayFrames& f, Rect region, double* h) {
    EXPECT_EQ(qnWarpImgSmallGray(region, matrixWrap(h, 3, 3), f.width, f.height, f.src.data(), f.dst.data()), 0);
}

void warpGrid(GrayFrames& f, rect box, std::vector<float>& models, int gx, int gy) {
    qnWarpImgBilinear(box, models.data(), f.src.data(), f.dst.data(), f.width, f.height, gx, gy);
}

// Lengths of the maximal stretches of equal output values along row y of [x0, x1).
std::vector<int> plateaus(const GrayFrames& f, int y, int x0, int x1) {
    std::vector<int> lengths{1};
    for (int x = x0 + 1; x < x1; ++x) {
        if (f.out(x, y) == f.out(x - 1, y))
            ++lengths.back();
        else
            lengths.push_back(1);
    }
    return lengths;
}

TEST(BilinearTable, HoldsTenthWeightsForTheFourNeighbours) {
    float t[10][10][4];
    generateBilinearTbl(t);
    EXPECT_EQ(t[0][0][0], 1.0f);
    EXPECT_EQ(t[0][0][1] + t[0][0][2] + t[0][0][3], 0.0f);
    // fy = 3, fx = 7: (7*3, 7*7, 3*3, 7*3) / 100
    EXPECT_EQ(t[3][7][0], 21.0f / 100.0f);
    EXPECT_EQ(t[3][7][1], 49.0f / 100.0f);
    EXPECT_EQ(t[3][7][2], 9.0f / 100.0f);
    EXPECT_EQ(t[3][7][3], 21.0f / 100.0f);
}

TEST(SmallGrayWarp, IdentityCopiesAllButTheLastRowAndColumn) {
    GrayFrames f(23, 11, 1);
    double identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    warpSmall(f, Rect{0, 0, 23, 11}, identity);
    for (int y = 0; y < 11; ++y)
        for (int x = 0; x < 23; ++x)
            ASSERT_EQ(f.out(x, y), (x == 22 || y == 10) ? 7 : f.in(x, y)) << x << "," << y;

    // A single-pixel run is still shifted by one pixel to the left.
    GrayFrames g(23, 11, 2);
    warpSmall(g, Rect{5, 3, 1, 1}, identity);
    EXPECT_EQ(g.out(5, 3), g.in(4, 3));
}

// The source rows are flat (value 20 per row), so an output pixel shows the tenths
// of its run's source row: each run is one plateau, and with a vertical slope of
// 0.1 per run neighbouring runs always differ.
TEST(SmallGrayWarp, RunLengthFollowsTheDriftFromTranslation) {
    struct Case {
        double h0, h3;
        int runLength;
    };
    for (const Case& c : {Case{1.01, 0.01, 10}, Case{1.2, 0.05, 2}, Case{1.0, 0.011, 8} /* 9, made even */}) {
        GrayFrames f(100, 12, 3);
        for (int y = 0; y < 12; ++y)
            for (int x = 0; x < 100; ++x) f.src[y * 100 + x] = static_cast<unsigned char>(20 * y);
        double h[9] = {c.h0, 0, 0, c.h3, 1, 0, 0, 0, 1};
        const int width = 4 * c.runLength;  // source columns stay inside the image
        warpSmall(f, Rect{3, 2, width, 1}, h);
        const std::vector<int> lengths = plateaus(f, 2, 3, 3 + width);
        ASSERT_EQ(lengths.size(), 4u) << "h0 " << c.h0;
        for (int len : lengths) EXPECT_EQ(len, c.runLength) << "h0 " << c.h0;
    }
}

TEST(SmallGrayWarp, SkipsRunsWithoutATableEntryAndDegenerateModelsStayInside) {
    // Source row y - 0.5: row 0 reads from (-1, 0) and keeps dst; row 1 is written.
    GrayFrames f(16, 6, 4);
    double up[9] = {1, 0, 0, 0, 1, -0.25, 0, 0, 1};
    warpSmall(f, Rect{0, 0, 16, 2}, up);
    int rowOneWritten = 0;
    for (int x = 0; x < 16; ++x) {
        EXPECT_EQ(f.out(x, 0), 7);
        rowOneWritten += f.out(x, 1) != 7;
    }
    EXPECT_GT(rowOneWritten, 8);

    // One run per row centred at x = 8 reading from column -0.5: its pixels from
    // x = 8 on have sources inside, but a negative fraction has no weight entry,
    // so the whole run is skipped.
    GrayFrames g(16, 6, 5);
    double left[9] = {1, 0, -4.25, 0, 1, 0, 0, 0, 1};
    warpSmall(g, Rect{0, 0, 16, 6}, left);
    for (unsigned char p : g.dst) EXPECT_EQ(p, 7);

    // NaN, infinite and huge coefficients, and a rectangle past every side: nothing
    // may be read or written outside the images (checked by the sanitizer build).
    const double nasty[] = {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
                            -std::numeric_limits<double>::infinity(), 1e30, -1e30, 3e9, -3e9};
    for (int slot = 0; slot < 6; ++slot)
        for (double v : nasty) {
            GrayFrames n(9, 7, 6);
            double m[9] = {1, 0, 0.3, 0, 1, 0.3, 0, 0, 1};
            m[slot] = v;
            warpSmall(n, Rect{0, 0, 9, 7}, m);
            warpSmall(n, Rect{-4, -3, 20, 15}, m);
        }
    for (double shift : {-4.0, 4.0}) {  // sources inside for destinations outside
        GrayFrames n(9, 7, 6);
        double m[9] = {1, 0, shift, 0, 1, shift, 0, 0, 1};
        warpSmall(n, Rect{-10, -10, 30, 30}, m);
    }
    // Source column x - 8 over a row reaching past the right edge: only x = 8 has
    // its source inside, and nothing spills into the next row.
    GrayFrames n(9, 7, 6);
    double shiftLeft[9] = {1, 0, -4, 0, 1, 0, 0, 0, 1};
    warpSmall(n, Rect{-10, 0, 30, 7}, shiftLeft);
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 9; ++x)
            EXPECT_EQ(n.out(x, y), x == 8 && y < 6 ? n.in(0, y) : 7) << x << "," << y;
}

// Model grid of 4 x 2 affine models, 9 floats each, all set to a junk model
// except where assigned.
std::vector<float> modelGrid() { return std::vector<float>(4 * 2 * 9, 1000.0f); }

void setModel(std::vector<float>& grid, int gx, int gy, std::initializer_list<float> six) {
    std::copy(six.begin(), six.end(), grid.begin() + (gx + gy * 4) * 9);
}

TEST(GridGrayWarp, TopRowCellFollowsItsOwnModel) {
    // Cell (0, 0) has no models above: a whole-pixel shift by (3, 2) copies the
    // source wherever it lies inside, and nothing outside the box is written.
    std::vector<float> grid = modelGrid();
    setModel(grid, 0, 0, {1, 0, 3, 0, 1, 2});
    GrayFrames f(32, 24, 7);
    const rect box{4, 6, 20, 14};
    warpGrid(f, box, grid, 0, 0);
    for (int y = 0; y < 24; ++y)
        for (int x = 0; x < 32; ++x) {
            const bool inside = x >= box.left && x < box.right && y >= box.top && y < box.bottom;
            ASSERT_EQ(f.out(x, y), inside ? f.in(x + 3, y + 2) : 7) << x << "," << y;
        }
}

TEST(GridGrayWarp, BlendsFromTheModelsAboveToTheCellsOwn) {
    // Cell (1, 1): the models above (and above-left) shift by (2, 0), the cell's own
    // (and the left one) by (0, 2). The first row follows the models above; halfway
    // down the box (t = 0.5) the shift is (1, 1).
    std::vector<float> grid = modelGrid();
    setModel(grid, 0, 0, {1, 0, 2, 0, 1, 0});
    setModel(grid, 1, 0, {1, 0, 2, 0, 1, 0});
    setModel(grid, 0, 1, {1, 0, 0, 0, 1, 2});
    setModel(grid, 1, 1, {1, 0, 0, 0, 1, 2});
    GrayFrames f(40, 30, 8);
    const rect box{8, 4, 24, 12};  // 8 rows: t = 0, 1/8, ..., 7/8
    warpGrid(f, box, grid, 1, 1);
    for (int x = box.left; x < box.right; ++x) {
        EXPECT_EQ(f.out(x, 4), f.in(x + 2, 4)) << x;
        EXPECT_EQ(f.out(x, 8), f.in(x + 1, 9)) << x;
    }

    // Empty boxes leave dst alone.
    GrayFrames g(40, 30, 9);
    const std::vector<unsigned char> before = g.dst;
    warpGrid(g, rect{8, 4, 8, 12}, grid, 1, 1);
    warpGrid(g, rect{8, 4, 4, 12}, grid, 1, 1);
    warpGrid(g, rect{8, 12, 24, 12}, grid, 1, 1);
    warpGrid(g, rect{8, 12, 24, 4}, grid, 1, 1);
    EXPECT_EQ(g.dst, before);

    // Non-finite models and a box past every side stay inside the images.
    std::vector<float> bad = modelGrid();
    setModel(bad, 0, 0, {std::numeric_limits<float>::quiet_NaN(), 0, 1e30f, 0, 1, -1e30f});
    warpGrid(g, rect{-5, -5, 50, 40}, bad, 0, 0);
    for (float shift : {-15.0f, 15.0f}) {  // sources inside for destinations outside
        setModel(bad, 0, 0, {1, 0, shift, 0, 1, shift});
        warpGrid(g, rect{-20, -20, 60, 50}, bad, 0, 0);
    }
}

}  // namespace

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>

#include "features/dog.h"
#include "features/grid_features.h"

namespace {

using Bytes = std::vector<unsigned char>;

struct Detector {
    int width, height, extremaRadius = 1, borderFar = 6, borderNear = 6, maxFeatures = 640;
    QNGridFeaturePointList list{};
    int featureCount = -7;

    Detector(int w, int h) : width(w), height(h) {}
    ~Detector() { std::free(list.cells); }

    int run(Bytes& image, Bytes* mask = nullptr) {
        Bytes usable(image.size(), 1);
        QNGet4x4GridFeatureParam_ p{image.data(),  extremaRadius, -3.0f,      3.0f,   6.0f, maxFeatures,
                                    &featureCount, borderFar,     borderNear, height, width};
        std::free(list.cells);
        list.cells = nullptr;
        return qnGet4x4GridFeature(&p, &list, mask ? mask->data() : usable.data());
    }
    const GridCell& cell(int i) const { return list.cells[i]; }
};

// A flat guide of 200 with dark (0) dots; a lone dot scores 800^2/(400*400) = 4.
Bytes dots(int w, int h, std::vector<std::pair<int, int>> at, unsigned char v = 0) {
    Bytes img(static_cast<std::size_t>(w) * h, 200);
    for (auto [x, y] : at) img[static_cast<std::size_t>(y) * w + x] = v;
    return img;
}

// One dot in the middle of every 24x24 cell of a 96x96 guide.
Bytes cellDots() {
    std::vector<std::pair<int, int>> at;
    for (int c = 0; c < 16; ++c) at.push_back({12 + 24 * (c % 4), 12 + 24 * (c / 4)});
    return dots(96, 96, at);
}

TEST(GridFeatures, Selection) {
    // (The curvature stencil itself is covered by the Hessian tests.)
    EXPECT_TRUE(fp_compare({9, 9, 1.0f, 0}, {0, 0, 2.0f, 1}));
    EXPECT_FALSE(fp_compare({0, 0, 1.0f, 1}, {9, 9, 1.0f, 1}));

    // Few points keep detection order. B beats A (A dropped, B's scan goes on);
    // C loses to B; E is 106 away from B; F ties with D and, later, is dropped;
    // 98 apart is suppressed, 100 apart is not.
    auto* c = static_cast<GridCell*>(std::calloc(1, sizeof(GridCell)));
    const QNFeaturePoint pts[] = {{10, 10, 3, 1}, {15, 10, 1, 1}, {12, 11, 2, 1}, {40, 40, 5, 1}, {10, 19, 1, 1},
                                  {41, 43, 5, 1}, {60, 60, 1, 1}, {67, 67, 2, 1}, {66, 68, 2, 1}};
    c->count = 9;
    std::copy(pts, pts + 9, c->points);
    EXPECT_EQ(selectAndThinCell(*c, 40), 5);
    const int wantValid[] = {0, 1, 0, 1, 1, 0, 1, 0, 1};
    for (int k = 0; k < 9; ++k) {
        EXPECT_EQ(c->points[k].x, pts[k].x);
        EXPECT_EQ(c->points[k].valid, wantValid[k]) << k;
    }
    // More points than allowed: sorted, cut, thinned in sorted order ((50,0)
    // is 2 px from the better (52,0)).
    const QNFeaturePoint many[] = {{0, 0, 9, 1}, {50, 0, 4, 1}, {52, 0, 2, 1}, {0, 50, 7, 1}, {90, 90, 1, 1}};
    c->count = 5;
    std::copy(many, many + 5, c->points);
    EXPECT_EQ(selectAndThinCell(*c, 3), 2);
    EXPECT_EQ(c->count, 3);
    const float sorted[] = {1, 2, 4};
    for (int k = 0; k < 3; ++k) EXPECT_EQ(c->points[k].score, sorted[k]);
    EXPECT_EQ(c->points[2].valid, 0);
    std::free(c);
}

TEST(GridFeatures, DotsPlateausAndTheMask) {
    Bytes img = cellDots();
    img[36 * 96 + 60] = 255;  // cell 6: a bright dot, a response minimum (score 110^2*4/110^2)
    img[60 * 96 + 61] = 0;    // cell 10: a pair, two equal maxima scoring 600^2/(200*400)
    Detector d(96, 96);
    ASSERT_EQ(d.run(img), 0);
    EXPECT_EQ(d.list.gridCols, 4);
    EXPECT_EQ(d.list.gridRows, 4);
    EXPECT_EQ(d.featureCount, 16);
    for (int i = 0; i < 16; ++i) {
        const GridCell& c = d.cell(i);
        EXPECT_EQ(c.x, 24 * (i % 4));
        EXPECT_EQ(c.height, 24);
        ASSERT_EQ(c.count, i == 10 ? 2 : 1) << i;
        EXPECT_EQ(c.points[0].x, 12 + c.x);
        EXPECT_EQ(c.points[0].y, 12 + c.y);
        EXPECT_EQ(c.points[0].score, i == 10 ? 4.5f : 4.0f);
        EXPECT_EQ(c.points[0].valid, 1);
    }
    EXPECT_EQ(d.cell(10).points[1].score, 4.5f);
    EXPECT_EQ(d.cell(10).points[1].valid, 0);  // equal scores: the later point goes

    // A mask of 20x25 = 500 usable pixels around the dot of cell 0 is ignored;
    // one more usable pixel and it zeroes the response everywhere else.
    Bytes plain = cellDots(), mask(plain.size(), 0);
    for (int y = 0; y < 25; ++y) std::fill_n(mask.begin() + y * 96 + 2, 20, 1);
    ASSERT_EQ(d.run(plain, &mask), 0);
    EXPECT_EQ(d.featureCount, 16);
    mask[90 * 96 + 90] = 255;
    ASSERT_EQ(d.run(plain, &mask), 0);
    EXPECT_EQ(d.featureCount, 1);
    EXPECT_EQ(d.cell(0).count, 1);
}

TEST(GridFeatures, ExtremumWindowAndSearchArea) {
    // A fainter dot 2 px right of a dark one is the maximum of its own 3x3
    // response window but not of 5x5, which radius 0 and 1 still use.
    Bytes near = dots(96, 96, {{36, 36}});
    near[36 * 96 + 38] = 60;
    std::vector<short> dog(near.size());
    qnDoG(near.data(), dog.data(), 0.2f, 1.5f, 96, 96);
    for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) ASSERT_LE(dog[(36 + dy) * 96 + 38 + dx], dog[36 * 96 + 38]);
    Detector d(96, 96);
    for (int radius : {0, 1, 2}) {
        d.extremaRadius = radius;
        ASSERT_EQ(d.run(near), 0);
        EXPECT_EQ(d.cell(5).count, 1) << radius;
    }
    // Three pixels apart: found (then thinned) with 5x5, hidden by 7x7.
    Bytes far = dots(96, 96, {{36, 36}});
    far[36 * 96 + 39] = 60;
    d.extremaRadius = 2;
    ASSERT_EQ(d.run(far), 0);
    EXPECT_EQ(d.cell(5).count, 2);
    EXPECT_EQ(d.featureCount, 1);
    d.extremaRadius = 3;
    ASSERT_EQ(d.run(far), 0);
    EXPECT_EQ(d.cell(5).count, 1);

    // 99x99 with margins of only the window radius: column 96 and row 96 lie
    // inside the margins but in no cell (cells are 24x24).
    Bytes odd = dots(99, 99, {{94, 30}, {30, 94}, {96, 60}, {60, 96}});
    Detector e(99, 99);
    e.borderFar = e.borderNear = 0;
    ASSERT_EQ(e.run(odd), 0);
    EXPECT_EQ(e.featureCount, 2);
    EXPECT_EQ(e.cell(7).count, 1);
    EXPECT_EQ(e.cell(13).count, 1);
}

TEST(GridFeatures, HistogramFailureAndFullCells) {
    // A fine checkerboard responds with about +-120 inside the border: the
    // inner cells have no in-range sample.
    Bytes board(40 * 40);
    for (int i = 0; i < 1600; ++i) board[i] = (i % 40 + i / 40) % 2 ? 255 : 0;
    GridCell* sentinel = reinterpret_cast<GridCell*>(board.data());
    QNGridFeaturePointList list{11, 12, {}, sentinel, {}};
    int count = -7;
    QNGet4x4GridFeatureParam_ p{board.data(), 1, -3.0f, 3.0f, 6.0f, 640, &count, 6, 6, 40, 40};
    testing::internal::CaptureStdout();
    Bytes usable(board.size(), 1);
    EXPECT_EQ(qnGet4x4GridFeature(&p, &list, usable.data()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "DoG histogram error\n");
    EXPECT_EQ(list.cells, sentinel);
    EXPECT_EQ(list.gridCols, 11);
    EXPECT_EQ(count, -7);

    // Dots 2 px apart give cell 0 (216 x 128) about 6400 equal maxima; it keeps
    // the first 5000 in raster order (unsorted: the per-cell limit is higher).
    std::vector<std::pair<int, int>> lattice;
    for (int y = 0; y < 128; y += 2)
        for (int x = 0; x < 216; x += 2) lattice.push_back({x, y});
    Bytes img = dots(864, 512, lattice);
    Detector big(864, 512);
    big.maxFeatures = 16 * 6000;
    ASSERT_EQ(big.run(img), 0);
    const GridCell& c = big.cell(0);
    ASSERT_EQ(c.count, 5000);
    for (int k = 1; k < c.count; ++k)
        ASSERT_LT(c.points[k - 1].y * 864 + c.points[k - 1].x, c.points[k].y * 864 + c.points[k].x);
}

TEST(GridFeatures, TexturedGuideYieldsWellSpreadValidPoints) {
    // Random grey squares on a grey background, 200x150 (cells 50x37).
    const int w = 200, h = 150;
    std::mt19937 rng(5);
    Bytes img(w * h, 120);
    for (int k = 0; k < 220; ++k) {
        const int side = 4 + rng() % 11, x0 = rng() % w, y0 = rng() % h;
        const auto grey = static_cast<unsigned char>(rng() >> 24);
        for (int y = y0; y < std::min(h, y0 + side); ++y)
            std::fill_n(img.begin() + y * w + x0, std::min(side, w - x0), grey);
    }
    Detector d(w, h);
    ASSERT_EQ(d.run(img), 0);
    int valid = 0, cellsWithPoints = 0;
    for (int ci = 0; ci < 16; ++ci) {
        const GridCell& c = d.cell(ci);
        EXPECT_LE(c.count, 40);
        int cellValid = 0;
        for (int k = 0; k < c.count; ++k) {
            const QNFeaturePoint& p = c.points[k];
            EXPECT_TRUE(p.x >= std::max(c.x, 6) && p.x < std::min(c.x + 50, w - 6)) << p.x;
            EXPECT_TRUE(p.y >= std::max(c.y, 6) && p.y < std::min(c.y + 37, h - 6)) << p.y;
            EXPECT_TRUE(p.score > 0.0f && p.score < 49.0f / 6.0f) << p.score;
            if (p.valid != 1) continue;
            ++cellValid;
            for (int m = 0; m < k; ++m) {
                const int dx = p.x - c.points[m].x, dy = p.y - c.points[m].y;
                EXPECT_TRUE(c.points[m].valid != 1 || dx * dx + dy * dy > 99) << k << " vs " << m;
            }
        }
        valid += cellValid;
        cellsWithPoints += cellValid > 0;
    }
    EXPECT_EQ(d.featureCount, valid);
    EXPECT_GE(valid, 60);
    EXPECT_GE(cellsWithPoints, 14);
}

}  // namespace

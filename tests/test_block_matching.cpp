#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "imgcore/row_stripes.h"
#include "motion/block_matching.h"
#include "motion/subpixel.h"

namespace {

const int kCoarse[] = {0, 0, 2, 0, -2, 0, 0, -2, 0, 2, 1, 1, 1, -1, -1, 1, -1, -1};
const int kFine[] = {0, 0, 1, 0, -1, 0, 0, -1, 0, 1};

using Image = std::vector<unsigned char>;
using Field = std::function<double(double x, double y)>;

Image render(int w, int h, const Field& f) {
    Image img(static_cast<size_t>(w * h));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const double v = std::round(f(x, y));
            img[static_cast<size_t>(y * w + x)] = static_cast<unsigned char>(v < 0 ? 0 : (v > 255 ? 255 : v));
        }
    return img;
}

// Smooth random texture: a few plane waves of 7..20 px wavelength.
Field smoothTexture(unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> uni(0.0, 1.0);
    struct Wave {
        double kx, ky, phase, amp;
    };
    std::vector<Wave> waves;
    for (int i = 0; i < 6; ++i) {
        const double angle = uni(rng) * 2 * M_PI;
        const double k = 2 * M_PI / (7.0 + 13.0 * uni(rng));
        waves.push_back({k * std::cos(angle), k * std::sin(angle), uni(rng) * 2 * M_PI, 14.0 + 6.0 * uni(rng)});
    }
    return [waves](double x, double y) {
        double v = 128.0;
        for (const Wave& w : waves) v += w.amp * std::sin(w.kx * x + w.ky * y + w.phase);
        return v;
    };
}

// A bowl with its bottom at (cx, cy): block costs grow steadily with the distance
// from the true displacement, so the diamond search walks straight to it.
Field bowl(double cx, double cy) {
    return [cx, cy](double x, double y) { return 20.0 + 0.04 * ((x - cx) * (x - cx) + (y - cy) * (y - cy)); };
}

Field shifted(const Field& f, double sx, double sy) {
    return [f, sx, sy](double x, double y) { return f(x - sx, y - sy); };
}

QNMatchSingleBlockParam_ driverParams(Image& ref, Image& cur, int w, int h, int x, int y) {
    QNMatchSingleBlockParam_ p{};
    p.refImg = ref.data();
    p.curImg = cur.data();
    p.imgHeight = h;
    p.imgWidth = w;
    p.searchRadiusX = 12;
    p.searchRadiusY = 12;
    p.halfBlockW = 6;
    p.halfBlockH = 6;
    p.coarsePattern = const_cast<int*>(kCoarse);
    p.finePattern = const_cast<int*>(kFine);
    p.coarseCount = 9;
    p.fineCount = 5;
    p.x = x;
    p.y = y;
    p.costPower = 2.0f;
    return p;
}

template <typename Body>
void inFreshThread(Body body) {
    std::thread t(body);
    t.join();
}

TEST(CalcMad, PlainAndTabledExponents) {
    unsigned char a[6] = {10, 20, 30, 40, 50, 60};
    unsigned char b[6] = {13, 20, 25, 40, 57, 60};  // |d| = 3 0 5 / 0 7 0
    const Rect r = {0, 0, 3, 2};
    inFreshThread([&] {
        EXPECT_DOUBLE_EQ(qnCalcMad(a, b, r, r, 0, 3, 1.0f), 15.0 / 3 / 2);
        EXPECT_DOUBLE_EQ(qnCalcMad(a, b, r, r, 0, 3, 2.0f), 83.0 / 3 / 2);
        // Only x and y of the second rectangle matter.
        EXPECT_DOUBLE_EQ(qnCalcMad(a, b, r, Rect{0, 0, 99, 99}, 0, 3, 2.0f), 83.0 / 3 / 2);
        EXPECT_EQ(qnCalcMad(a, b, Rect{0, 0, 3, 0}, r, 0, 3, 2.0f), 0.0);
        // 2.0005 lies within 0.001 of the table's exponent and, even after a plain
        // call in between, reuses the table of 2 (7^2.0005 would truncate to 49 too,
        // so use a pair with a large difference).
        unsigned char c[1] = {0}, d[1] = {200};
        const Rect one = {0, 0, 1, 1};
        EXPECT_EQ(qnCalcMad(c, d, one, one, 0, 1, 1.0f), 200.0);
        EXPECT_EQ(qnCalcMad(c, d, one, one, 0, 1, 2.0005f), 40000.0);
        EXPECT_EQ(qnCalcMad(c, d, one, one, 0, 1, 2.002f), std::trunc(std::pow(200.0, double(2.002f))));
        // Exponents whose powers overflow int saturate.
        EXPECT_EQ(qnCalcMad(c, d, one, one, 0, 1, 5.0f), 2147483647.0);
    });
}

// The integer total against the double one: block widths 1 .. 2 x 16 + 1, the
// plain exponent and tables up to saturated entries, extreme pixel values.
TEST(CalcMad, IntegerTotalMatchesThePlainSum) {
    std::mt19937 rng(21);
    const int w = 40, h = 20;
    std::vector<unsigned char> a(w * h), b(w * h);
    int tables[3][256];
    for (int d = 0; d < 256; ++d) {
        tables[0][d] = d * d;
        tables[1][d] = static_cast<int>(std::pow(d, 2.5));
        tables[2][d] = d == 0 ? 0 : 2147483647;
    }
    for (int trial = 0; trial < 40; ++trial) {
        for (size_t i = 0; i < a.size(); ++i) {
            a[i] = static_cast<unsigned char>(trial % 4 == 0 ? (rng() & 1) * 255 : rng());
            b[i] = static_cast<unsigned char>(trial % 4 == 0 ? (rng() & 1) * 255 : rng());
        }
        for (int bw = 1; bw <= 33; bw += trial % 3 + 1) {
            const Rect ra{static_cast<int>(rng() % (w - bw + 1)), static_cast<int>(rng() % 8), bw, 1 + trial % 12};
            const Rect rb{static_cast<int>(rng() % (w - bw + 1)), static_cast<int>(rng() % 8), 0, 0};
            ASSERT_TRUE(block_matching_detail::madFitsInteger(ra));
            ASSERT_EQ(block_matching_detail::madSquares(a.data(), b.data(), ra, rb, w),
                      block_matching_detail::madPlain(a.data(), b.data(), ra, rb, w, false, tables[0]));
            for (int t = -1; t < 3; ++t) {
                const int* table = t < 0 ? nullptr : tables[t];
                ASSERT_EQ(block_matching_detail::madInteger(a.data(), b.data(), ra, rb, w, t < 0, table),
                          block_matching_detail::madPlain(a.data(), b.data(), ra, rb, w, t < 0, table))
                    << "width " << bw << " table " << t;
            }
        }
    }
    EXPECT_FALSE(block_matching_detail::madFitsInteger(Rect{0, 0, 4096, 1025}));
    EXPECT_FALSE(block_matching_detail::madFitsInteger(Rect{0, 0, 0, 5}));
}

TEST(CalcMad, InitialTableIsUsedForTinyExponentUntilAnotherExponentIsSeen) {
    unsigned char a[4] = {5, 9, 100, 7};
    unsigned char b[4] = {5, 8, 100, 200};  // two equal, two different
    const Rect r = {0, 0, 4, 1};
    inFreshThread([&] {
        // Initial table: 1 at difference 0, 0 elsewhere.
        EXPECT_DOUBLE_EQ(qnCalcMad(a, b, r, r, 0, 4, 0.0005f), 0.5);
        EXPECT_DOUBLE_EQ(qnCalcMad(a, b, r, r, 0, 4, 0.0f), 0.5);
        qnCalcMad(a, b, r, r, 0, 4, 2.0f);
        // Rebuilt for 0.0005: pow(0, p) = 0 and pow(d, p) truncates to 1.
        EXPECT_DOUBLE_EQ(qnCalcMad(a, b, r, r, 0, 4, 0.0005f), 0.5);
        EXPECT_DOUBLE_EQ(qnCalcMad(a, a, r, r, 0, 4, 0.0005f), 0.0);
    });
}

TEST(CalcMad, ConcurrentThreadsWithDifferentExponentsMatchSingleThreadedResults) {
    const int w = 64, h = 48;
    std::mt19937 rng(7);
    Image a(w * h), b(w * h);
    for (auto& v : a) v = static_cast<unsigned char>(rng());
    for (auto& v : b) v = static_cast<unsigned char>(rng());
    const float exponents[4][2] = {{2.0f, 3.0f}, {1.5f, 2.0f}, {3.0f, 0.5f}, {2.5f, 1.0f}};

    // Each worker alternates between its two exponents, forcing a rebuild of a
    // shared table on nearly every call.
    auto sequence = [&](int k, std::vector<double>& out) {
        for (int i = 0; i < 2000; ++i) {
            const int x = i % 40, y = (i * 7) % 30;
            const Rect ra = {x, y, 13, 13}, rb = {(x + 5) % 40, (y + 3) % 30, 13, 13};
            out.push_back(qnCalcMad(a.data(), b.data(), ra, rb, h, w, exponents[k][i % 2]));
        }
    };
    std::vector<double> reference[4], concurrent[4];
    for (int k = 0; k < 4; ++k) inFreshThread([&] { sequence(k, reference[k]); });
    runFourWorkers([&](int k) { sequence(k, concurrent[k]); });
    for (int k = 0; k < 4; ++k) EXPECT_EQ(concurrent[k], reference[k]) << "worker " << k;
}

TEST(DetectSubpixel, RecoversExtremumOfAQuadraticAndRefusesFlatSamples) {
    double v[9];
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) {
            const double u = r - 1 - 0.3, w = c - 1 + 0.2;
            v[r * 3 + c] = 2 * u * u + 3 * w * w + u * w + 5;
        }
    Point2f off = {9, 9};
    ASSERT_EQ(qnDetectSubpixel(v, off), 0);
    EXPECT_NEAR(off.y, 0.3f, 1e-6);
    EXPECT_NEAR(off.x, -0.2f, 1e-6);

    // Nine equal samples: the stored fit leaves a curvature determinant of about
    // 1e-30 (non-zero in single precision) that the 2x2 inverse refuses; nine zeros
    // give an exact zero. Both are degenerate.
    for (double level : {0.0, 4.0, 100.0, 12345.678}) {
        double flat[9];
        for (double& x : flat) x = level;
        Point2f untouched = {9, 9};
        EXPECT_EQ(qnDetectSubpixel(flat, untouched), -1) << level;
        EXPECT_EQ(untouched.x, 9.0f);
        EXPECT_EQ(untouched.y, 9.0f);
    }
}

TEST(MatchSingleBlock, IdenticalBlockStaysAtCentreAndFlatCostMapIsAmbiguous) {
    const int w = 80, h = 60;
    Image ref = render(w, h, smoothTexture(3));
    QNMatchSingleBlockParam_ p = driverParams(ref, ref, w, h, 40, 30);
    int ambiguous = 0;
    ASSERT_EQ(qnMatchSingleBlock(&p, &ambiguous), 0);
    EXPECT_EQ(p.bestCost, 0.0);
    EXPECT_LT(std::fabs(p.motionX) + std::fabs(p.motionY), 0.5f);
    EXPECT_EQ(p.centerX, 40.0f);
    EXPECT_EQ(p.centerY, 30.0f);
    EXPECT_EQ(ambiguous, 0);  // a zero cost against positive neighbours: infinite ratio
    EXPECT_GE(p.eigen1, p.eigen2);

    Image flat = render(w, h, [](double, double) { return 100.0; });
    Image brighter = render(w, h, [](double, double) { return 110.0; });
    p = driverParams(flat, brighter, w, h, 40, 30);
    ambiguous = 3;
    ASSERT_EQ(qnMatchSingleBlock(&p, &ambiguous), 0);
    EXPECT_EQ(ambiguous, 4);
    EXPECT_EQ(p.bestCost, 100.0);
    // Nine equal sub-pixel samples: no refinement, the integer result stays.
    EXPECT_EQ(p.motionX, 0.0f);
    EXPECT_EQ(p.motionY, 0.0f);
    EXPECT_EQ(p.eigen1, 0.0);
}

TEST(MatchSingleBlock, SearchRangeLimits) {
    const int w = 120, h = 100, x = 60, y = 50;
    Image ref = render(w, h, bowl(x, y));
    auto match = [&](double sx, double sy, int radiusX, int& status) {
        Image cur = render(w, h, shifted(bowl(x, y), sx, sy));
        QNMatchSingleBlockParam_ p = driverParams(ref, cur, w, h, x, y);
        p.searchRadiusX = radiusX;
        int ambiguous = 0;
        status = qnMatchSingleBlock(&p, &ambiguous);
        return p;
    };
    // Shifts at the search radius fail; with a wide search area a shift of 16
    // takes eight moves and succeeds, 30 would need fifteen and fails after the
    // tenth pass.
    const struct {
        double sx, sy;
        int radius;
        bool found;
    } cases[] = {{10, 0, 12, true}, {12, 0, 12, false}, {-12, 0, 12, false}, {0, 12, 12, false},
                 {0, -12, 12, false}, {16, 0, 40, true}, {30, 0, 40, false}};
    for (const auto& c : cases) {
        int status;
        const QNMatchSingleBlockParam_ p = match(c.sx, c.sy, c.radius, status);
        ASSERT_EQ(status, c.found ? 0 : -1) << c.sx << "," << c.sy;
        if (c.found) {
            EXPECT_NEAR(p.motionX, c.sx, 0.1);
            EXPECT_NEAR(p.motionY, c.sy, 0.1);
        }
    }
}

TEST(MatchSingleBlock, CostExponentIsTruncatedAndSubpixelSamplesUseTwo) {
    const int w = 80, h = 60;
    Image ref = render(w, h, smoothTexture(11));
    Image cur = render(w, h, shifted(smoothTexture(11), 3.4, -2.3));
    auto run = [&](float power) {
        QNMatchSingleBlockParam_ p = driverParams(ref, cur, w, h, 40, 30);
        p.costPower = power;
        int ambiguous = 0;
        EXPECT_EQ(qnMatchSingleBlock(&p, &ambiguous), 0);
        return p;
    };
    const QNMatchSingleBlockParam_ two = run(2.0f), twoAndHalf = run(2.5f), one = run(1.0f);
    EXPECT_EQ(twoAndHalf.bestCost, two.bestCost);
    EXPECT_EQ(twoAndHalf.motionX, two.motionX);
    EXPECT_EQ(twoAndHalf.eigen1, two.eigen1);
    // Exponent 1 ranks the same integer displacement; the sub-pixel step is always
    // fitted to squared differences, so the refined motion is identical too.
    EXPECT_NE(one.bestCost, two.bestCost);
    EXPECT_EQ(one.motionX, two.motionX);
    EXPECT_EQ(one.motionY, two.motionY);
}

TEST(MatchSingleBlock, FindsSubpixelShiftOfSmoothTexture) {
    const int w = 160, h = 120;
    const double shifts[2][2] = {{2.3, -1.6}, {-4.7, 3.2}};
    for (const auto& s : shifts) {
        Image ref = render(w, h, smoothTexture(5));
        Image cur = render(w, h, shifted(smoothTexture(5), s[0], s[1]));
        int matched = 0, textured = 0, accurate = 0;
        for (int y = 20; y < h - 20; y += 8)
            for (int x = 20; x < w - 20; x += 8) {
                QNMatchSingleBlockParam_ p = driverParams(ref, cur, w, h, x, y);
                int ambiguous = 0;
                if (qnMatchSingleBlock(&p, &ambiguous) != 0) continue;
                ++matched;
                if (p.eigen2 < 100.0) continue;  // weakly textured along some direction
                ++textured;
                if (std::fabs(p.motionX - s[0]) < 0.1 && std::fabs(p.motionY - s[1]) < 0.1) ++accurate;
            }
        EXPECT_GT(matched, 120);
        EXPECT_GT(textured, matched / 3) << s[0] << "," << s[1];
        EXPECT_EQ(accurate, textured) << s[0] << "," << s[1];
    }
}

}  // namespace

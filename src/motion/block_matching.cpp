#include "motion/block_matching.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "imgcore/saturate.h"
#include "motion/hessian.h"
#include "motion/subpixel.h"

namespace {

// Exponent table of qnCalcMad. It starts out as the table of exponent 0 with only
// the first entry set, and is rebuilt lazily whenever another exponent is asked
// for. Each thread keeps its own copy so that concurrent matchers using different
// exponents cannot corrupt each other; a single thread sees exactly the behaviour
// of one shared table.
struct PowerTable {
    float exponent;
    int values[256];
};

thread_local PowerTable powerTable = {0.0f, {1}};

void rebuildPowerTableIfNeeded(float power) {
    if (!(std::fabs(powerTable.exponent - power) > 0.001f)) return;
    for (int d = 0; d < 256; ++d) powerTable.values[d] = truncToInt(std::pow(static_cast<double>(d), static_cast<double>(power)));
    powerTable.exponent = power;
}

// Offset of the searched block from the reference block's position.
struct Displacement {
    int x;
    int y;
};

// Block costs by displacement, computed on first use. Entry (dx, dy) lives at
// column dx + radiusX, row dy + radiusY; -1 marks an entry not yet computed.
class CostCache {
public:
    explicit CostCache(const QNMatchSingleBlockParam_& p)
        : p_(p),
          cols_(p.searchRadiusX >= 0 ? 2 * p.searchRadiusX + 1 : 0),
          rows_(p.searchRadiusY >= 0 ? 2 * p.searchRadiusY + 1 : 0),
          costs_(static_cast<size_t>(cols_) * static_cast<size_t>(rows_), -1.0f),
          power_(static_cast<float>(truncToInt(p.costPower))) {}

    bool contains(long long dx, long long dy) const {
        return std::llabs(dx) <= p_.searchRadiusX && std::llabs(dy) <= p_.searchRadiusY;
    }

    // Cost of a displacement inside the search area.
    float cost(int dx, int dy) { return costAt(dx + p_.searchRadiusX, dy + p_.searchRadiusY); }

    // Cost at a cache column and row inside the cache.
    float costAt(int col, int row) {
        float& entry = costs_[static_cast<size_t>(row) * static_cast<size_t>(cols_) + static_cast<size_t>(col)];
        if (entry < 0.0f) {
            const Rect ref = referenceBlock(p_);
            const Rect cur = {ref.x + col - p_.searchRadiusX, ref.y + row - p_.searchRadiusY, ref.width, ref.height};
            entry = static_cast<float>(qnCalcMad(p_.refImg, p_.curImg, ref, cur, p_.imgHeight, p_.imgWidth, power_));
        }
        return entry;
    }

    const std::vector<float>& entries() const { return costs_; }

    static Rect referenceBlock(const QNMatchSingleBlockParam_& p) {
        return Rect{p.x - p.halfBlockW, p.y - p.halfBlockH, 2 * p.halfBlockW + 1, 2 * p.halfBlockH + 1};
    }

private:
    const QNMatchSingleBlockParam_& p_;
    int cols_;
    int rows_;
    std::vector<float> costs_;
    float power_;
};

constexpr float kNoCostYet = 10000000.0f;

// Coarse diamond search: moves the centre by the best pattern offset until the
// centre itself wins. Fails when a pattern position leaves the search area or the
// search has not settled after nine moves.
bool coarseSearch(const QNMatchSingleBlockParam_& p, CostCache& cache, Displacement& centre) {
    int moves = 0;
    for (;;) {
        float best = kNoCostYet;
        Displacement bestOffset = {0, 0};
        for (int i = 0; i < p.coarseCount; ++i) {
            const int px = p.coarsePattern[2 * i];
            const int py = p.coarsePattern[2 * i + 1];
            const long long tx = static_cast<long long>(centre.x) + px;
            const long long ty = static_cast<long long>(centre.y) + py;
            if (std::llabs(ty) > p.searchRadiusY) return false;
            if (std::llabs(tx) > p.searchRadiusX) return false;
            const float c = cache.cost(static_cast<int>(tx), static_cast<int>(ty));
            if (c < best) {
                best = c;
                bestOffset = {px, py};
            }
        }
        if (bestOffset.x == 0 && bestOffset.y == 0) return true;
        centre.x += bestOffset.x;
        centre.y += bestOffset.y;
        if (moves == 9) return false;
        ++moves;
    }
}

// Fine search around the settled centre; the result is an absolute displacement
// and stays (0, 0) when nothing beats the start value.
bool fineSearch(QNMatchSingleBlockParam_& p, CostCache& cache, Displacement centre, Displacement& result) {
    float best = kNoCostYet;
    result = {0, 0};
    for (int i = 0; i < p.fineCount; ++i) {
        const long long tx = static_cast<long long>(centre.x) + p.finePattern[2 * i];
        const long long ty = static_cast<long long>(centre.y) + p.finePattern[2 * i + 1];
        if (!cache.contains(tx, ty)) return false;
        const float c = cache.cost(static_cast<int>(tx), static_cast<int>(ty));
        if (c < best) {
            best = c;
            p.bestCost = c;
            result = {static_cast<int>(tx), static_cast<int>(ty)};
        }
    }
    return true;
}

// True when the two lowest costs computed so far are within a factor 1.2.
bool isAmbiguous(const std::vector<float>& costs) {
    float lowest = 1000000.0f;
    size_t lowestIndex = costs.size();
    for (size_t i = 0; i < costs.size(); ++i) {
        if (costs[i] != -1.0f && costs[i] < lowest) {
            lowest = costs[i];
            lowestIndex = i;
        }
    }
    float second = 1000000.0f;
    for (size_t i = 0; i < costs.size(); ++i) {
        if (costs[i] != -1.0f && i != lowestIndex && costs[i] < second) second = costs[i];
    }
    return second / lowest < 1.2f;
}

// Gathers the 3x3 costs around the best displacement; fails unless it lies at
// least one step inside the search area on every side. The checks mirror the
// order in which the three columns of each row are read.
bool gatherCurvatureSamples(const QNMatchSingleBlockParam_& p, CostCache& cache, Displacement result, float* g) {
    const int col = result.x + p.searchRadiusX;
    const int row = result.y + p.searchRadiusY;
    const int lastCol = 2 * p.searchRadiusX;
    const int lastRow = 2 * p.searchRadiusY;
    for (int r = row - 1, k = 0; r <= row + 1; ++r, k += 3) {
        if (r < 0 || r > lastRow || col - 1 > lastCol || col < 1) return false;
        g[k] = cache.costAt(col - 1, r);
        if (col > lastCol || col < 0) return false;
        g[k + 1] = cache.costAt(col, r);
        if (col >= lastCol || col < -1) return false;
        g[k + 2] = cache.costAt(col + 1, r);
    }
    return true;
}

// Eigenvalues and principal-axis angle of the cost-surface curvature (informational).
void writeCurvature(QNMatchSingleBlockParam_& p, float* g) {
    float h[4];
    qnCalcHessian(g, h);
    const float det = h[0] * h[3] - h[1] * h[1];
    if (det == 0.0f) {
        p.eigen1 = 0.0;
        p.eigen2 = 0.0;
        p.angle = 0.0;
        return;
    }
    const float tr = h[0] + h[3];
    const double disc = static_cast<double>(tr) * static_cast<double>(tr) + static_cast<double>(det * -4.0f);
    const double s = std::fabs(std::sqrt(disc));
    p.eigen1 = (s + tr) * 0.5;
    p.eigen2 = (tr - s) * 0.5;
    const double q = h[1] / (h[0] - p.eigen1);
    p.angle = std::atan(-q) / 3.141592654 * 180.0;
    if (q > 0) p.angle += 180.0;
}

bool subpixelRowInRange(int step, int row, int lastRow) {
    switch (step) {
        case 0: return row >= 1 && row - 1 <= lastRow;
        case 1: return row >= 0 && row <= lastRow;
        default: return row >= -1 && row < lastRow;
    }
}

// Nine uncached costs with exponent 2 around the best block position, row by row.
bool gatherSubpixelSamples(const QNMatchSingleBlockParam_& p, Displacement result, double* v) {
    const Rect ref = CostCache::referenceBlock(p);
    const int bx = ref.x + result.x;
    const int by = ref.y + result.y;
    const int row = result.y + p.searchRadiusY;
    for (int dy = -1; dy <= 1; ++dy) {
        if (!subpixelRowInRange(dy + 1, row, 2 * p.searchRadiusY)) {
            std::fputs("search beyond limited area, failed\n", stdout);
            std::fflush(stdout);
            return false;
        }
        for (int dx = -1; dx <= 1; ++dx) {
            const Rect cur = {bx + dx, by + dy, ref.width, ref.height};
            v[(dy + 1) * 3 + dx + 1] = qnCalcMad(p.refImg, p.curImg, ref, cur, p.imgHeight, p.imgWidth, 2.0f);
        }
    }
    return true;
}

}  // namespace

double qnCalcMad(unsigned char* a, unsigned char* b, Rect ra, Rect rb, int /*height*/, int stride, float power) {
    const bool plain = power == 1.0f;
    if (!plain) rebuildPowerTableIfNeeded(power);
    if (ra.height < 1) return 0.0;
    double sum = 0.0;
    for (int j = 0; j < ra.height; ++j) {
        const unsigned char* rowA = a + static_cast<long>(ra.y + j) * stride + ra.x;
        const unsigned char* rowB = b + static_cast<long>(rb.y + j) * stride + rb.x;
        for (int i = 0; i < ra.width; ++i) {
            const int d = std::abs(static_cast<int>(rowA[i]) - static_cast<int>(rowB[i]));
            sum += plain ? static_cast<double>(d) : static_cast<double>(powerTable.values[d]);
        }
    }
    return sum / ra.width / ra.height;
}

bool compare_dist(FP_Match a, FP_Match b) { return a.dist < b.dist; }

int qnMatchSingleBlock(QNMatchSingleBlockParam_* param, int* ambiguousCount) {
    QNMatchSingleBlockParam_& p = *param;
    CostCache cache(p);

    Displacement centre = {0, 0};
    if (!coarseSearch(p, cache, centre)) return -1;
    Displacement result;
    if (!fineSearch(p, cache, centre, result)) return -1;

    p.motionY = static_cast<float>(result.y);
    p.motionX = static_cast<float>(result.x);
    p.centerY = static_cast<float>(p.y);
    p.centerX = static_cast<float>(p.x);

    if (isAmbiguous(cache.entries())) ++*ambiguousCount;

    float g[9];
    if (!gatherCurvatureSamples(p, cache, result, g)) return -1;
    writeCurvature(p, g);

    double v[9];
    if (!gatherSubpixelSamples(p, result, v)) return -1;
    Point2f offset = {0.0f, 0.0f};
    if (qnDetectSubpixel(v, offset) == 0) {
        p.motionY += offset.y;
        p.motionX += offset.x;
    }
    return 0;
}

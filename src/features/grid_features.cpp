#include "features/grid_features.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <iostream>

#include "features/dog.h"
#include "motion/hessian.h"

namespace {

constexpr int kGridSide = 4;
constexpr int kCellCount = kGridSide * kGridSide;
constexpr int kMaxPointsPerCell = 5000;
constexpr int kMaskMinUsable = 500;  // the mask applies only with more usable pixels than this
constexpr int kThinDistanceSq = 99;  // squared distances up to this are "closer than 10 pixels"

// DoG response parameters: blur(1.5) minus the identity blur of sigma 0.2.
constexpr float kSigmaFine = 0.2f;
constexpr float kSigmaCoarse = 1.5f;

struct SearchRange {
    int x0, x1, y0, y1;  // half-open
};

std::size_t pixelCount(int width, int height) {
    if (width < 1 || height < 1) return 0;
    return static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
}

void applyMask(short* dog, const unsigned char* mask, std::size_t n) {
    if (mask == nullptr) return;
    std::size_t usable = 0;
    for (std::size_t i = 0; i < n; ++i) usable += mask[i] != 0;
    if (usable <= static_cast<std::size_t>(kMaskMinUsable)) return;
    for (std::size_t i = 0; i < n; ++i)
        if (mask[i] == 0) dog[i] = 0;
}

int windowMax(const short* dog, int width, int x, int y, int r) {
    int best = -10000;
    for (int dy = -r; dy <= r; ++dy) {
        const short* row = dog + static_cast<std::ptrdiff_t>(y + dy) * width + x;
        for (int dx = -r; dx <= r; ++dx) best = std::max(best, static_cast<int>(row[dx]));
    }
    return best;
}

int windowMin(const short* dog, int width, int x, int y, int r) {
    int best = 10000;
    for (int dy = -r; dy <= r; ++dy) {
        const short* row = dog + static_cast<std::ptrdiff_t>(y + dy) * width + x;
        for (int dx = -r; dx <= r; ++dx) best = std::min(best, static_cast<int>(row[dx]));
    }
    return best;
}

// Hessian edge test on the guide: accepts when 0 < trace^2/det < thr.
bool cornerScore(unsigned char* image, int x, int y, int width, int height, float thr, float* score) {
    float h[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    qnCalcHessianFromImg(image, x, y, width, height, h);
    const float det = h[0] * h[3] - h[1] * h[1];
    if (det == 0.0f) return false;
    const float trace = h[0] + h[3];
    const float s = (trace * trace) / det;
    if (!(s < thr && s > 0.0f)) return false;
    *score = s;
    return true;
}

void initCells(GridCell* cells, int cw, int ch) {
    for (int gy = 0; gy < kGridSide; ++gy) {
        for (int gx = 0; gx < kGridSide; ++gx) {
            GridCell& c = cells[gy * kGridSide + gx];
            c.x = gx * cw;
            c.y = gy * ch;
            c.width = cw;
            c.height = ch;
            c.count = 0;
        }
    }
}

// Search rectangle of a cell: inside the cell and inside both margins, which are
// never narrower than the extremum window radius, so windows and the Hessian
// stencil stay inside the image.
SearchRange searchRange(const GridCell& c, const QNGet4x4GridFeatureParam_& p, int r2) {
    const int nearMargin = std::max(r2, p.borderNear);
    const int farMargin = std::max(p.borderFar, r2);
    return SearchRange{std::max(c.x, nearMargin), std::min(c.x + c.width, p.width - farMargin),
                       std::max(c.y, nearMargin), std::min(c.y + c.height, p.height - farMargin)};
}

void appendPoint(GridCell* cells, int cw, int ch, int x, int y, float score) {
    GridCell& target = cells[x / cw + (y / ch) * kGridSide];
    if (target.count > kMaxPointsPerCell - 1) return;  // full cell: dropped silently
    target.points[target.count] = QNFeaturePoint{x, y, score, 1};
    ++target.count;
}

void searchCells(const QNGet4x4GridFeatureParam_& p, const short* dog, const float* negThr, const float* posThr,
                 GridCell* cells, int r2, float thr) {
    const int cw = p.width / kGridSide;
    const int ch = p.height / kGridSide;
    for (int c = 0; c < kCellCount; ++c) {
        const SearchRange r = searchRange(cells[c], p, r2);
        for (int y = r.y0; y < r.y1; ++y) {
            const short* row = dog + static_cast<std::ptrdiff_t>(y) * p.width;
            for (int x = r.x0; x < r.x1; ++x) {
                const int v = row[x];
                bool extremum;
                if (posThr[c] <= static_cast<float>(v))
                    extremum = v == windowMax(dog, p.width, x, y, r2);
                else if (negThr[c] >= static_cast<float>(v))
                    extremum = v == windowMin(dog, p.width, x, y, r2);
                else
                    continue;
                float score = 0.0f;
                if (extremum && cornerScore(p.image, x, y, p.width, p.height, thr, &score))
                    appendPoint(cells, cw, ch, x, y, score);
            }
        }
    }
}

}  // namespace

bool fp_compare(QNFeaturePoint a, QNFeaturePoint b) { return a.score < b.score; }

int selectAndThinCell(GridCell& cell, int maxPerCell) {
    maxPerCell = std::max(maxPerCell, 0);
    if (cell.count > maxPerCell) {
        std::sort(cell.points, cell.points + cell.count, fp_compare);
        cell.count = maxPerCell;
    }
    QNFeaturePoint* pts = cell.points;
    int suppressed = 0;
    for (int j = 1; j < cell.count; ++j) {
        for (int i = 0; i < j; ++i) {
            if (pts[i].valid != 1) continue;
            const long long dx = static_cast<long long>(pts[j].x) - pts[i].x;
            const long long dy = static_cast<long long>(pts[j].y) - pts[i].y;
            if (dx * dx + dy * dy > kThinDistanceSq) continue;
            ++suppressed;
            if (pts[j].score < pts[i].score) {
                pts[i].valid = 0;
            } else {
                pts[j].valid = 0;
                break;
            }
        }
    }
    return cell.count - suppressed;
}

int qnGet4x4GridFeature(QNGet4x4GridFeatureParam_* param, QNGridFeaturePointList* list, unsigned char* mask) {
    if (param == nullptr || list == nullptr) return -1;
    const QNGet4x4GridFeatureParam_& p = *param;
    const int r2 = std::max(p.extremaRadius, 2);
    const int maxPerCell = p.maxFeatures / kCellCount;
    const float ratioPlusOne = p.edgeRatio + 1.0f;
    const float thr = (ratioPlusOne * ratioPlusOne) / p.edgeRatio;

    const std::size_t n = pixelCount(p.width, p.height);
    short* dog = static_cast<short*>(std::calloc(n == 0 ? 1 : n, sizeof(short)));
    if (dog == nullptr) return -1;
    qnDoG(p.image, dog, kSigmaFine, kSigmaCoarse, p.width, p.height);
    applyMask(dog, mask, n);

    float negThr[kCellCount] = {};
    float posThr[kCellCount] = {};
    if (qnGetHistogram(dog, -8.0f, 8.0f, 2.0f, p.width, p.height, 2, 0.02f, -2.0f, 2.0f, negThr, posThr) == -1) {
        std::cout << "DoG histogram error" << std::endl;
        std::free(dog);
        return -1;
    }

    GridCell* cells = static_cast<GridCell*>(std::calloc(kCellCount, sizeof(GridCell)));
    if (cells == nullptr) {
        std::free(dog);
        return -1;
    }
    list->gridCols = kGridSide;
    list->gridRows = kGridSide;
    list->cells = cells;
    const int cw = p.width / kGridSide;
    const int ch = p.height / kGridSide;
    initCells(cells, cw, ch);

    searchCells(p, dog, negThr, posThr, cells, r2, thr);

    int valid = 0;
    for (int c = 0; c < kCellCount; ++c) valid += selectAndThinCell(cells[c], maxPerCell);
    if (p.featureCount != nullptr) *p.featureCount = valid;

    std::free(dog);
    return 0;
}

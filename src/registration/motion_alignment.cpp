#include "registration/motion_alignment.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "imgcore/fast_paths.h"
#include "motion/block_match_types.h"
#include "motion/block_matching.h"
#include "motion/homography_fit.h"
#include "motion/matrix.h"
#include "motion/ransac.h"
#include "registration/raw_warp.h"

namespace {

constexpr int kGridSide = 4;
constexpr int kSearchRadius = 12;
constexpr float kRansacThreshold = 1.5f;
constexpr float kRansacConfidence = 0.999999f;
constexpr int kRansacMaxIterations = 10000;
constexpr int kRansacSampleSize = 3;
constexpr int kMinCellPoints = 20;
constexpr double kMinCellSpread = 800.0;
constexpr double kMaxAmbiguousShare = 0.85;
constexpr int kMaxBlankRows = 30;
constexpr int kMaxBlankQuads = 30;
constexpr int kBorderScanQuads = 200;

// Large and small diamond search patterns as (dx, dy) pairs; their order decides ties.
int kCoarsePattern[18] = {0, 0, 2, 0, -2, 0, 0, -2, 0, 2, 1, 1, 1, -1, -1, 1, -1, -1};
int kFinePattern[10] = {0, 0, 1, 0, -1, 0, 0, -1, 0, 1};

bool isAffineModel(const Matrix& m) { return m.data != nullptr && m.rows == 2 && m.cols == 3; }

// Gives a model that a degenerate fit left without a 2x3 buffer the identity model.
void ensureModel(Matrix& m) {
    if (isAffineModel(m)) return;
    matrixRelease(m);
    m.data = static_cast<double*>(std::calloc(6, sizeof(double)));
    m.rows = 2;
    m.cols = 3;
    m.state = 2;
    m.data[0] = 1.0;
    m.data[4] = 1.0;
}

struct Matches {
    std::vector<FP_Match> list;
    std::vector<Point2f> current;
    std::vector<Point2f> reference;
    int count = 0;
};

// Block-matches every valid point far enough from the guide border; failed
// matches are dropped silently.
void matchFeaturePoints(QNGridFeaturePointList& grid, QNMatchSingleBlockParam_& param, Size halfBlock, int width,
                        int height, int* ambiguousCount, Matches& m) {
    const int capacity = static_cast<int>(m.list.size());
    for (int gy = 0; gy < kGridSide; ++gy) {
        for (int gx = 0; gx < kGridSide; ++gx) {
            const int cellIndex = gy * kGridSide + gx;
            const GridCell& cell = grid.cells[cellIndex];
            for (int p = 0; p < cell.count && m.count < capacity; ++p) {
                const QNFeaturePoint& fp = cell.points[p];
                if (fp.valid != 1) continue;
                if (!(kSearchRadius + halfBlock.width < fp.x && kSearchRadius + halfBlock.height < fp.y &&
                      fp.x < width - 1 - halfBlock.width - kSearchRadius &&
                      fp.y < height - 1 - halfBlock.height - kSearchRadius))
                    continue;
                param.x = fp.x;
                param.y = fp.y;
                if (qnMatchSingleBlock(&param, ambiguousCount) != 0) continue;
                const float curX = param.centerX + param.motionX;
                const float curY = param.centerY + param.motionY;
                m.reference[m.count] = Point2f{param.centerX, param.centerY};
                m.current[m.count] = Point2f{curX, curY};
                m.list[m.count] = FP_Match{curX, curY, param.centerX, param.centerY, 0.0f, cellIndex};
                ++m.count;
            }
        }
    }
}

struct CellPoints {
    std::vector<Point2f> current;
    std::vector<Point2f> reference;
    std::vector<double> error;
    int count = 0;

    explicit CellPoints(int capacity) : current(capacity), reference(capacity), error(capacity) {}
    void append(const FP_Match& match, double e) {
        if (count >= static_cast<int>(current.size())) return;
        current[count] = Point2f{match.x, match.y};
        reference[count] = Point2f{match.refX, match.refY};
        error[count] = e;
        ++count;
    }
};

double transferError(const Matrix& H, const FP_Match& match) {
    return calc_homo_error(H, Point2f{match.x, match.y}, Point2f{match.refX, match.refY});
}

// Inliers of the global model among the matches of one cell, in match order.
void collectCellInliers(const Matrix& H, const Matches& m, int cellIndex, double limit, CellPoints& pts) {
    for (int i = 0; i < m.count; ++i) {
        const FP_Match& match = m.list[i];
        if (match.cell != cellIndex) continue;
        const double e = transferError(H, match);
        if (e < limit) pts.append(match, e);
    }
}

// Refills the point set from the inliers nearest the cell centre until the set is
// spread enough. The match list stays sorted for the following cells.
void fillFromNeighbourhood(const Matrix& H, const GridCell& cell, Matches& m, double limit, CellPoints& pts) {
    const float cx = static_cast<float>(cell.x + cell.width * 0.5);
    const float cy = static_cast<float>(cell.y + cell.height * 0.5);
    for (int i = 0; i < m.count; ++i) {
        const float dx = cx - m.list[i].x;
        const float dy = cy - m.list[i].y;
        m.list[i].dist = dx * dx + dy * dy;
    }
    std::sort(m.list.begin(), m.list.begin() + m.count, compare_dist);
    pts.count = 0;
    for (int i = 0; i < m.count; ++i) {
        const double e = transferError(H, m.list[i]);
        if (!(e < limit)) continue;
        pts.append(m.list[i], e);
        if (pts.count >= kMinCellPoints && linearity_error(pts.current.data(), pts.count) > kMinCellSpread) break;
    }
}

// One weighted fit with the diagonal weights w: through the k x k weight matrix
// as defined, or (fast form) from the diagonal alone.
void fitWeighted(const Point2f* src, const Point2f* dst, Matrix& H, const std::vector<double>& w, int k) {
    if (kUseFastPaths && calcHomoWlsqDiagonal(src, dst, H, w.data(), k) != -1) return;
    std::vector<double> weights(static_cast<size_t>(k) * k, 0.0);
    for (int i = 0; i < k; ++i) weights[static_cast<size_t>(i) * k + i] = w[static_cast<size_t>(i)];
    calc_homo_wlsq(const_cast<Point2f*>(src), const_cast<Point2f*>(dst), H, matrixWrap(weights.data(), k, k), k);
}

// Weighted fits in both directions and the weighted RMS transfer error.
void fitCellModels(GridCell& cell, CellPoints& pts, double weightScale) {
    const int k = pts.count;
    std::vector<double> w(static_cast<size_t>(k));
    for (int i = 0; i < k; ++i) w[static_cast<size_t>(i)] = std::exp(-(pts.error[i] * weightScale));
    fitWeighted(pts.current.data(), pts.reference.data(), cell.homography, w, k);
    fitWeighted(pts.reference.data(), pts.current.data(), cell.inverseHomography, w, k);
    ensureModel(cell.homography);
    ensureModel(cell.inverseHomography);

    double s = 0.0;
    for (int i = 0; i < k; ++i) {
        const double wi = w[static_cast<size_t>(i)];
        const double e = calc_homo_error(cell.homography, pts.current[i], pts.reference[i]);
        s += wi * (e * wi);
    }
    cell.fitError = std::fabs(std::sqrt(s / static_cast<double>(k - 1)));
}

void fitAllCells(QNGridFeaturePointList& grid, const Matrix& H, Matches& m, int capacity, double inlierLimit,
                 double weightScale) {
    const double limit = inlierLimit * inlierLimit;
    for (int c = 0; c < kGridSide * kGridSide; ++c) {
        GridCell& cell = grid.cells[c];
        CellPoints pts(capacity);
        collectCellInliers(H, m, c, limit, pts);
        const double spread = pts.count > kMinCellPoints ? linearity_error(pts.current.data(), pts.count) : 0.0;
        if (!(pts.count >= kMinCellPoints && spread > kMinCellSpread)) fillFromNeighbourhood(H, cell, m, limit, pts);
        fitCellModels(cell, pts, weightScale);
    }
}

// Cell rectangles in quads for the warp: the guide's 4x4 grid at twice the scale.
void setQuadRectangles(QNGridFeaturePointList& grid, int width, int height) {
    const int hw = width / 2, hh = height / 2;
    for (int gy = 0; gy < kGridSide; ++gy) {
        for (int gx = 0; gx < kGridSide; ++gx) {
            GridCell& cell = grid.cells[gy * kGridSide + gx];
            cell.x = gx * hw;
            cell.y = gy * hh;
            cell.width = hw;
            cell.height = hh;
        }
    }
}

// Largest number of unfilled quads among the first (or last) border quads of the
// rows [top, bottom]; a quad is unfilled when its top-left sample is still -1.
int widestBlankBand(const short* dstRaw, int quadCols, int top, int bottom, bool leftSide) {
    const int scan = std::min(kBorderScanQuads, quadCols);
    const long rawWidth = 2L * quadCols;
    int widest = 0;
    for (int r = top; r <= bottom; ++r) {
        const short* row = dstRaw + 2L * r * rawWidth;
        int blank = 0;
        for (int i = 0; i < scan; ++i) {
            const int q = leftSide ? i : quadCols - 1 - i;
            if (row[2 * q] == -1) ++blank;
        }
        widest = std::max(widest, blank);
    }
    return widest;
}

}  // namespace

bool motion_alignment_detail::estimateModels(unsigned char* curGuide, unsigned char* refGuide,
                                             QNGridFeaturePointList& grid, Size halfBlock, int featureCount,
                                             double weightScale, double inlierLimit, int width, int height,
                                             char* rejectFlag, int* ambiguousCount, int featureTotal,
                                             int frameIndex) {
    const int capacity = std::max(featureCount, 0);
    Matches m;
    m.list.assign(capacity, FP_Match{});
    m.current.assign(capacity, Point2f{0.0f, 0.0f});
    m.reference.assign(capacity, Point2f{0.0f, 0.0f});

    QNMatchSingleBlockParam_ param{};
    param.refImg = refGuide;
    param.curImg = curGuide;
    param.imgHeight = height;
    param.imgWidth = width;
    param.searchRadiusX = kSearchRadius;
    param.searchRadiusY = kSearchRadius;
    param.halfBlockW = halfBlock.width;
    param.halfBlockH = halfBlock.height;
    param.coarsePattern = kCoarsePattern;
    param.finePattern = kFinePattern;
    param.coarseCount = 9;
    param.fineCount = 5;
    param.costPower = 2.0f;
    matchFeaturePoints(grid, param, halfBlock, width, height, ambiguousCount, m);

    // Frames 0 and 1 are never rejected here; a negative index counts as large.
    const float ambiguousShare = static_cast<float>(*ambiguousCount) / static_cast<float>(featureTotal);
    if (static_cast<unsigned>(frameIndex) >= 2u && static_cast<double>(ambiguousShare) > kMaxAmbiguousShare) {
        *rejectFlag = 1;
        return false;
    }

    // Both fits see the full capacity, the (0, 0) pairs past the last match
    // included. The reverse fit is never used, but it draws from the same random
    // sequence as every later fit of the burst, so it must run.
    Matrix H = matrixEmpty();
    Matrix reverse = matrixEmpty();
    run_ransac(m.current.data(), m.reference.data(), H, featureCount, kRansacThreshold, kRansacConfidence,
               kRansacMaxIterations, kRansacSampleSize);
    run_ransac(m.reference.data(), m.current.data(), reverse, featureCount, kRansacThreshold, kRansacConfidence,
               kRansacMaxIterations, kRansacSampleSize);
    matrixRelease(reverse);
    if (!isAffineModel(H)) {
        matrixRelease(H);
        *rejectFlag = 1;
        return false;
    }

    fitAllCells(grid, H, m, capacity, inlierLimit, weightScale);
    matrixRelease(H);
    setQuadRectangles(grid, width, height);
    for (int c = 0; c < kGridSide * kGridSide; ++c) ensureModel(grid.cells[c].inverseHomography);
    return true;
}

int motion_alignment_detail::alignImages(unsigned char* curGuide, unsigned char* refGuide,
                                         QNGridFeaturePointList& grid, Size halfBlock, int featureCount,
                                         double weightScale, double inlierLimit, int width, int height, short* srcRaw,
                                         short* dstRaw, int* validTop, int* validBottom, int* validLeft,
                                         int* validRight, char* rejectFlag, int* ambiguousCount, int featureTotal,
                                         int frameIndex, bool dstPrefilled, short* writeBack) {
    // An unfilled destination receives -1 wherever the warp leaves it, and all of
    // it when the frame is rejected before the warp.
    const size_t rawSamples = 16 * static_cast<size_t>(std::max(width, 0)) * static_cast<size_t>(std::max(height, 0));
    if (width % 2 != 0 || height % 2 != 0) {  // the cells would not tile the frame
        if (!dstPrefilled) std::fill(dstRaw, dstRaw + rawSamples, static_cast<short>(-1));
        dstPrefilled = true;
    }
    if (!estimateModels(curGuide, refGuide, grid, halfBlock, featureCount, weightScale, inlierLimit, width, height,
                        rejectFlag, ambiguousCount, featureTotal, frameIndex)) {
        if (!dstPrefilled) std::fill(dstRaw, dstRaw + rawSamples, static_cast<short>(-1));
        // The whole buffer, as it was left.
        if (writeBack != nullptr) raw_warp_detail::clampToTenBits(dstRaw, writeBack, rawSamples);
        return 0;
    }

    const int quadCols = 2 * width, quadRows = 2 * height;
    int top = 0, bottom = quadRows - 1;
    int reportedTop = 0, reportedBottom = 0;
    Rect rects[kGridSide * kGridSide];
    const double* models[kGridSide * kGridSide];
    for (int c = 0; c < kGridSide * kGridSide; ++c) {
        GridCell& cell = grid.cells[c];
        rects[c] = Rect{cell.x, cell.y, cell.width, cell.height};
        models[c] = cell.inverseHomography.data;
    }
    if (dstPrefilled) {
        for (int c = 0; c < kGridSide * kGridSide; ++c)
            qnWarpImgRaw(rects[c], grid.cells[c].inverseHomography, quadCols, quadRows, 0, 0, nullptr, nullptr, nullptr,
                         nullptr, nullptr, nullptr, nullptr, nullptr, &reportedTop, &reportedBottom, srcRaw, dstRaw,
                         &top, &bottom);
        if (writeBack != nullptr) raw_warp_detail::clampToTenBits(dstRaw, writeBack, rawSamples);
    } else {
        // The cells tile the frame, so every quad is written once; the cells of a
        // grid row are warped together row by row, and each warped row is written
        // back as soon as no later row reads it.
        raw_warp_detail::warpCellsByRows(rects, models, kGridSide * kGridSide, quadCols, quadRows, &reportedTop,
                                         &reportedBottom, srcRaw, dstRaw, &top, &bottom, true, writeBack);
    }

    const int lastRow = quadRows - 1;
    if (reportedTop > kMaxBlankRows || lastRow - reportedBottom > kMaxBlankRows) {
        *rejectFlag = 1;
        return 0;
    }
    const int firstValid = std::min(reportedTop + 5, kMaxBlankRows);
    const int bottomMargin = std::min(lastRow - (reportedBottom - 5), kMaxBlankRows);
    const int lastValid = lastRow - bottomMargin;

    const int leftMax = widestBlankBand(dstRaw, quadCols, firstValid, lastValid, true);
    const int rightMax = widestBlankBand(dstRaw, quadCols, firstValid, lastValid, false);
    if (leftMax > kMaxBlankQuads || rightMax > kMaxBlankQuads) {
        *rejectFlag = 1;
        return 0;
    }
    *validTop = std::max(*validTop, firstValid);
    *validBottom = std::min(*validBottom, lastValid);
    *validLeft = std::max(*validLeft, leftMax);
    *validRight = std::min(*validRight, (quadCols - 1) - rightMax);
    return 0;
}

int QNMotion_alignImages_native(unsigned char* curGuide, unsigned char* /*spareGuide*/, unsigned char* refGuide,
                                QNGridFeaturePointList& grid, Size halfBlock, int featureCount, double weightScale,
                                double inlierLimit, int width, int height, short* /*plane0*/, short* /*plane1*/,
                                short* /*plane2*/, short* /*plane3*/, short* /*plane4*/, short* /*plane5*/,
                                short* /*plane6*/, short* /*plane7*/, short* srcRaw, short* dstRaw, int* validTop,
                                int* validBottom, int* validLeft, int* validRight, char* rejectFlag,
                                int* ambiguousCount, int featureTotal, int frameIndex) {
    return motion_alignment_detail::alignImages(curGuide, refGuide, grid, halfBlock, featureCount, weightScale,
                                                inlierLimit, width, height, srcRaw, dstRaw, validTop, validBottom,
                                                validLeft, validRight, rejectFlag, ambiguousCount, featureTotal,
                                                frameIndex, true, nullptr);
}

#include "motion/ransac.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "imgcore/saturate.h"
#include "motion/homography_fit.h"

namespace {

constexpr int kDrawsPerSample = 500;

// Same test for counting and collecting: the squared transfer error, rounded to
// float, must lie strictly below threshold^2. The model's shape has been checked.
bool isInlier(const Matrix& H, Point2f s, Point2f d, float squaredThreshold) {
    double u = 0.0, v = 0.0;
    mapThroughModel(H, s.x, s.y, u, v);
    const double du = d.x - u;
    const double dv = d.y - v;
    const float err = static_cast<float>(du * du + dv * dv);
    return squaredThreshold > err;
}

bool isMappingModel(const Matrix& H) { return H.cols == 3 && H.rows >= 2 && H.data != nullptr; }

bool alreadyDrawn(const std::vector<int>& drawn, int k, int r) {
    for (int i = 0; i < k; ++i)
        if (drawn[static_cast<size_t>(i)] == r) return true;
    return false;
}

// The sample search shared by both entry points. Keeps in H the first sample model
// with the highest inlier count above sampleSize - 1 and reports that count in
// best (0 when none qualified). Returns false, H untouched, when the very first
// sample could not be fitted.
bool searchBestModel(Point2f* src, Point2f* dst, Matrix& H, int n, float threshold, float confidence, int maxIters,
                     int sampleSize, int& best) {
    best = 0;
    if (maxIters < 1) return true;
    int limit = maxIters;
    for (int iteration = 0;;) {
        Matrix model = matrixEmpty();
        if (generate_homomat_from_subset(src, dst, model, n, sampleSize, kDrawsPerSample) == 0) {
            matrixRelease(model);
            if (iteration == 0) return false;
            break;
        }
        const int count = countModelInliers(model, src, dst, n, threshold);
        if (count > std::max(sampleSize - 1, best)) {
            model.copyTo(H);
            best = count;
        }
        // The ratio comes from this sample's count, not the best one's: it decides
        // when the search stops.
        const float outlierRatio = static_cast<float>(n - count) / static_cast<float>(n);
        limit = ransac_update_iter_num(confidence, outlierRatio, sampleSize, limit);
        matrixRelease(model);
        ++iteration;
        if (iteration >= limit) break;
    }
    return true;
}

}  // namespace

int countModelInliers(const Matrix& H, const Point2f* src, const Point2f* dst, int n, float threshold) {
    if (!isMappingModel(H)) return 0;
    const float squaredThreshold = threshold * threshold;
    int count = 0;
    for (int i = 0; i < n; ++i)
        if (isInlier(H, src[i], dst[i], squaredThreshold)) ++count;
    return count;
}

int generate_homomat_from_subset(Point2f* src, Point2f* dst, Matrix& H, int n, int sampleSize, int maxTries) {
    if (n < 1) return 0;  // nothing to draw from
    const size_t size = static_cast<size_t>(std::max(sampleSize, 0));
    std::vector<int> drawn(size);
    std::vector<Point2f> sampleSrc(size), sampleDst(size);
    int tries = 0;
    while (tries < maxTries) {
        std::fill(sampleSrc.begin(), sampleSrc.end(), Point2f{0.0f, 0.0f});
        std::fill(sampleDst.begin(), sampleDst.end(), Point2f{0.0f, 0.0f});
        int k = 0;
        while (k < sampleSize && tries < maxTries) {
            const int r = std::rand() % n;
            drawn[static_cast<size_t>(k)] = r;
            if (!alreadyDrawn(drawn, k, r)) {
                sampleSrc[static_cast<size_t>(k)] = src[r];
                sampleDst[static_cast<size_t>(k)] = dst[r];
                ++k;
            }
            ++tries;
        }
        // Fitted even when the tries ran out mid-sample: the missing entries are
        // then zero points.
        if (calc_homo_from_points(sampleSrc.data(), sampleDst.data(), H, sampleSize) & 1) return 1;
        ++tries;
    }
    return 0;
}

int ransac_update_iter_num(float confidence, float outlierRatio, int sampleSize, int maxIters) {
    const float ratio = static_cast<float>(std::min(std::max(static_cast<double>(outlierRatio), 0.0), 1.0));
    const float conf = static_cast<float>(std::min(std::max(static_cast<double>(confidence), 0.0), 1.0));

    // Probability that a sample contains at least one outlier.
    const float q = static_cast<float>(1.0 - std::pow(1.0 - static_cast<double>(ratio), sampleSize));
    if (q < 1.1754944e-38f) return 0;

    const float a = std::log(static_cast<float>(std::max(1.0 - static_cast<double>(conf), 1.1754943508222875e-38)));
    const float b = std::log(q);
    if (b >= 0.0f) return maxIters;
    if (a <= static_cast<float>(maxIters) * b) return maxIters;
    return truncToInt(std::round(a / b));
}

int run_ransac(Point2f* src, Point2f* dst, Matrix& H, int n, float threshold, float confidence, int maxIters,
               int sampleSize) {
    if (n < sampleSize) return 0;
    int best = 0;
    if (!searchBestModel(src, dst, H, n, threshold, confidence, maxIters, sampleSize, best)) return 0;

    // Inliers of the best sample model, in index order. Without an accepted model
    // (best == 0) nothing is collected and the refit below gives the identity.
    std::vector<Point2f> inlierSrc(static_cast<size_t>(best)), inlierDst(static_cast<size_t>(best));
    if (best > 0) {
        const float squaredThreshold = threshold * threshold;
        int k = 0;
        for (int i = 0; i < n && k < best; ++i) {
            if (!isInlier(H, src[i], dst[i], squaredThreshold)) continue;
            inlierSrc[static_cast<size_t>(k)] = src[i];
            inlierDst[static_cast<size_t>(k)] = dst[i];
            ++k;
        }
    }

    // The refit's status is not consulted: whatever it holds replaces H.
    Matrix refit = matrixEmpty();
    calc_homo_lsq(inlierSrc.data(), inlierDst.data(), refit, best);
    refit.copyTo(H);
    matrixRelease(refit);
    return best > 0 ? 1 : 0;
}

int run_ransac_no_lsq(Point2f* src, Point2f* dst, Matrix& H, int n, float threshold, float confidence, int maxIters,
                      int sampleSize) {
    if (n < sampleSize) return 0;
    int best = 0;
    if (!searchBestModel(src, dst, H, n, threshold, confidence, maxIters, sampleSize, best)) return 0;
    return best > 0 ? 1 : 0;
}

#pragma once

#include "imgcore/kep_export.h"
#include "imgcore/types.h"
#include "motion/matrix.h"

// Robust fitting of the 2x3 motion model from n correspondences src[i] -> dst[i]
// with minimal samples of sampleSize (= 3) correspondences drawn with rand(),
// which the library never seeds. A correspondence is an inlier of a model when
// threshold^2 > its squared transfer error (in single precision). The iteration
// limit adapts to the outlier ratio of each sample model. Returns 1 when a model
// with at least sampleSize inliers was found, else 0; with n < sampleSize, or when
// no sample could be fitted in the first iteration, H is left untouched.
//
// run_ransac refits the best sample model by least squares on its inliers and
// stores the refit in H whatever the refit's status: the identity model when
// there are fewer than three inliers (including when no model was accepted), and
// the all-zero 2x3 model calc_homo_lsq allocated when there are more than 1000
// inliers or their system is singular. Callers keep n at most 1000.
KEP_API int run_ransac(Point2f* src, Point2f* dst, Matrix& H, int n, float threshold, float confidence, int maxIters,
                       int sampleSize);
// The same search without the refit: H holds the best sample model.
KEP_API int run_ransac_no_lsq(Point2f* src, Point2f* dst, Matrix& H, int n, float threshold, float confidence,
                              int maxIters, int sampleSize);

// Draws sampleSize distinct correspondences (duplicate draws are discarded, every
// draw counts as a try) and fits a model to them into H, repeating until a fit is
// not singular or maxTries is used up. Returns 1 when a model was fitted, else 0
// (also for n < 1, where nothing can be drawn).
KEP_API int generate_homomat_from_subset(Point2f* src, Point2f* dst, Matrix& H, int n, int sampleSize, int maxTries);

// Number of iterations needed to draw an outlier-free sample with the given
// confidence, log(1 - confidence) / log(1 - (1 - outlierRatio)^sampleSize), never
// above maxIters; 0 when a sample can no longer contain an outlier.
KEP_API int ransac_update_iter_num(float confidence, float outlierRatio, int sampleSize, int maxIters);

// ---- internal helper (not exported) ----

// Number of correspondences for which threshold*threshold > err, err being the
// squared transfer error under H rounded to float. 0 when H is not a three-column
// model of at least two rows.
int countModelInliers(const Matrix& H, const Point2f* src, const Point2f* dst, int n, float threshold);

#pragma once

#include "features/feature_types.h"
#include "imgcore/kep_export.h"

// Detects well-spread, corner-like feature points on the 8-bit guide
// param->image (width x height, stride = width) over a 4x4 grid of cells.
//
//  1. DoG response blur(1.5) - image (0 on the one-pixel border).
//  2. If mask (width x height, nonzero = usable) has more than 500 usable pixels,
//     the response is zeroed outside it; with 500 or fewer the mask is ignored.
//  3. Per-cell thresholds from the response histogram; on failure prints
//     "DoG histogram error" and returns -1 with the list untouched.
//  4. Thresholded extrema of the response over a (2r+1)^2 window,
//     r = max(extremaRadius, 2) (ties pass), inside the borders, that pass the
//     Hessian edge test 0 < trace^2/det < (edgeRatio+1)^2/edgeRatio.
//  5. Per cell, the maxFeatures/16 lowest scores are kept (sorted only when
//     there are more), then points closer than 10 pixels to a better one are
//     invalidated; *featureCount receives the number of valid points.
//
// On success list->cells is a new calloc'ed block of 16 cells (row-major) that
// the caller releases with free(); an old block is not released here. Returns 0
// on success, -1 on histogram failure (also, without a message, for a null
// param or list, or when the response plane or the cell block cannot be
// allocated). A null mask is treated like an ignored mask; a null featureCount
// is not written.
KEP_API int qnGet4x4GridFeature(QNGet4x4GridFeatureParam_* param, QNGridFeaturePointList* list, unsigned char* mask);

// Ascending order of score: the ordering of the per-cell selection sort.
KEP_API bool fp_compare(QNFeaturePoint a, QNFeaturePoint b);

// Selection and thinning of one cell (step 5 above). When count exceeds
// maxPerCell the points are sorted by score and count is cut to maxPerCell
// (a negative maxPerCell counts as 0); otherwise they keep detection order. Then,
// for j = 1..count-1 and every earlier valid point i, a pair closer than 10
// pixels invalidates i when j scores strictly lower, else j (ending j's scan).
// Returns the number of valid points among the first count. Internal.
int selectAndThinCell(GridCell& cell, int maxPerCell);

#pragma once

#include "imgcore/kep_export.h"
#include "imgcore/types.h"
#include "motion/block_match_types.h"

// Matches the block of param->refImg centred on (param->x, param->y) into
// param->curImg: a diamond search over cached block costs, a curvature measure of
// the cost surface and a sub-pixel refinement. Returns 0 and writes the outputs of
// *param on success; returns -1 when the search leaves the search area, does not
// settle within nine moves, or ends on the border of the search area (outputs may
// then be partly written). *ambiguousCount is incremented when the two lowest
// costs computed are within a factor 1.2 of each other.
//
// Blocks are not clipped to the images: the caller keeps every point at least
// searchRadius + halfBlock + 1 pixels away from each edge. A fine-pattern position
// outside the search area (possible only with caller patterns that reach further
// than the coarse pattern) fails the match instead of leaving the cost cache.
KEP_API int qnMatchSingleBlock(QNMatchSingleBlockParam_* param, int* ambiguousCount);

// Mean of |a - b|^power over the block ra of a and the block of the same size at
// (rb.x, rb.y) in b; both images have the given row stride, height is unused.
// Exponent 1.0 sums plain differences; any other exponent goes through a 256-entry
// table of (int)pow(d, power) that is rebuilt only when power moves more than
// 0.001 away from the exponent it was built for. The table is per thread, starts
// out built for exponent 0 as {1, 0, 0, ...}, and keeps its last exponent between
// calls. A block with height below 1 gives 0.0.
KEP_API double qnCalcMad(unsigned char* a, unsigned char* b, Rect ra, Rect rb, int height, int stride, float power);

// Orders matches by ascending dist.
KEP_API bool compare_dist(FP_Match a, FP_Match b);

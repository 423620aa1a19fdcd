#pragma once

#include "features/feature_types.h"
#include "imgcore/kep_export.h"
#include "imgcore/types.h"

// Aligns one frame of a burst to the reference: block-matches every valid feature
// point of the reference grid into the frame's guide, rejects frames whose matches
// are mostly ambiguous, fits a global model by RANSAC and one weighted model per
// grid cell, warps the frame's raw quads onto the reference geometry into dstRaw
// (pre-filled with -1 by the caller) and narrows the caller's valid-area bounds
// (in quads). Always returns 0; a rejected frame gets *rejectFlag = 1.
//
// Guides are width x height pixels, raw frames 4*width x 4*height samples.
// spareGuide and plane0..plane7 are accepted and not read. The grid is changed:
// its cells receive the fitted models and fit errors, and their rectangles become
// quad rectangles for the warp.
//
// Beyond the plain algorithm, two degenerate cases have a defined outcome: when
// RANSAC yields no usable global model (no 2x3 model) the frame is rejected
// before anything is warped, and a cell whose fit leaves no 2x3 model keeps the
// identity model.
KEP_API int QNMotion_alignImages_native(unsigned char* curGuide, unsigned char* spareGuide, unsigned char* refGuide,
                                        QNGridFeaturePointList& grid, Size halfBlock, int featureCount,
                                        double weightScale, double inlierLimit, int width, int height, short* plane0,
                                        short* plane1, short* plane2, short* plane3, short* plane4, short* plane5,
                                        short* plane6, short* plane7, short* srcRaw, short* dstRaw, int* validTop,
                                        int* validBottom, int* validLeft, int* validRight, char* rejectFlag,
                                        int* ambiguousCount, int featureTotal, int frameIndex);

namespace motion_alignment_detail {
// QNMotion_alignImages_native without the ignored arguments. With dstPrefilled
// false, dstRaw may hold anything on entry and ends exactly as a pre-filled one
// would: the warp writes -1 into every quad it does not blend (the 16 cell
// rectangles must then tile the frame: width and height even) and a frame
// rejected before the warp gets -1 everywhere. With writeBack given, it receives
// dstRaw clamped to 0..1023 on every path (raw frame sized); it may be srcRaw
// itself, whose rows are then overwritten only once the warp no longer reads them.
int alignImages(unsigned char* curGuide, unsigned char* refGuide, QNGridFeaturePointList& grid, Size halfBlock,
                int featureCount, double weightScale, double inlierLimit, int width, int height, short* srcRaw,
                short* dstRaw, int* validTop, int* validBottom, int* validLeft, int* validRight, char* rejectFlag,
                int* ambiguousCount, int featureTotal, int frameIndex, bool dstPrefilled, short* writeBack);

// The estimation half of the alignment, without the warp: matching, the ambiguity
// gate, RANSAC and the per-cell fits. Returns false (with *rejectFlag = 1) when
// the frame is rejected; otherwise every cell holds a 2x3 inverseHomography
// (reference quad position to source position, translation in guide pixels) and
// the grid's rectangles are the cells' quad rectangles.
bool estimateModels(unsigned char* curGuide, unsigned char* refGuide, QNGridFeaturePointList& grid, Size halfBlock,
                    int featureCount, double weightScale, double inlierLimit, int width, int height, char* rejectFlag,
                    int* ambiguousCount, int featureTotal, int frameIndex);
}  // namespace motion_alignment_detail

#pragma once

#include "imgcore/kep_export.h"
#include "imgcore/types.h"
#include "motion/matrix.h"

// Warps one rectangle of a raw Bayer frame onto the reference geometry, quad by
// quad (a quad is one 2x2 Bayer cell, so colour sites never mix).
//
// region is the output rectangle in quads; the frames are quadCols x quadRows quads
// (2*quadCols samples per row, 2*quadRows rows). model is a 3x3 matrix whose first
// two rows map an output quad position to a source position in guide pixels; its
// translation is doubled to reach quads. The model is evaluated once per run of up
// to four output quads, and the run is shifted by one integer offset and blended
// with one set of bilinear weights quantised to tenths of a quad. Output quads
// whose source lies outside the frame keep what dstRaw held (the caller pre-fills
// it with -1). srcRaw and dstRaw must not overlap.
//
// topAcc / bottomAcc accumulate, over the cells of one frame, the largest first row
// written by a top cell and the smallest last row written by a bottom cell; a call
// at region (0, 0) resets them. Their values are copied to reportedTop /
// reportedBottom at the end of every call. spare0, spare1 and plane0..plane7 are not
// read. Returns 0.
KEP_API int qnWarpImgRaw(Rect region, Matrix model, int quadCols, int quadRows, int spare0, int spare1,
                         short* plane0, short* plane1, short* plane2, short* plane3, short* plane4, short* plane5,
                         short* plane6, short* plane7, int* reportedTop, int* reportedBottom, short* srcRaw,
                         short* dstRaw, int* topAcc, int* bottomAcc);

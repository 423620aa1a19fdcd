#pragma once

#include <type_traits>

#include "motion/matrix.h"

// One detected feature point of the reference guide.
struct QNFeaturePoint {
    int x;        // column in the guide image
    int y;        // row in the guide image
    float score;  // Hessian trace^2 / determinant; smaller is more corner-like
    int valid;    // 1 while in use, 0 once suppressed by thinning
};

// One cell of the 4x4 feature grid. The detector fills the rectangle and the
// points; the motion alignment writes the models, the fit error and, for the
// warp, quad rectangles over the guide rectangle.
struct GridCell {
    int x, y, width, height;
    int count;
    QNFeaturePoint points[5000];
    Matrix homography;         // fitted from current-frame points to reference points
    Matrix inverseHomography;  // fitted from reference points to current-frame points; drives the warp
    double fitError;           // weighted RMS transfer error of `homography`
};

struct QNGridFeaturePointList {
    int gridCols;
    int gridRows;
    char reserved0[8];
    GridCell* cells;  // gridRows * gridCols cells, calloc'ed by the detector, released by the caller
    char reserved1[8];
};

// Input of the grid feature detector, fields in interface order.
struct QNGet4x4GridFeatureParam_ {
    unsigned char* image;  // 8-bit guide, row stride = width
    int extremaRadius;     // half-size of the extremum window (raised to at least 2)
    float reserved0;
    float reserved1;
    float edgeRatio;    // r of the Hessian edge test
    int maxFeatures;    // total points kept; maxFeatures / 16 per cell
    int* featureCount;  // receives the number of valid points
    int borderFar;      // margin kept free at the right and bottom
    int borderNear;     // margin kept free at the left and top
    int height;
    int width;
};

static_assert(sizeof(QNFeaturePoint) == 16, "QNFeaturePoint is 16 bytes");
static_assert(std::is_standard_layout<GridCell>::value, "GridCell layout");
static_assert(std::is_trivially_copyable<QNGridFeaturePointList>::value, "QNGridFeaturePointList layout");

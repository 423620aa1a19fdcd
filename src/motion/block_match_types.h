#pragma once

#include <type_traits>

// One accepted block match as the alignment keeps it.
struct FP_Match {
    float x;     // matched column in the aligned frame's guide
    float y;     // matched row
    float refX;  // feature column in the reference guide
    float refY;  // feature row
    float dist;  // sort key, written before sorting
    int cell;    // grid cell (0..15, row-major) of the feature point
};

// One block-matching request. The caller fills the inputs; the matcher writes the
// outputs (note: vertical components come before horizontal ones).
struct QNMatchSingleBlockParam_ {
    unsigned char* refImg;  // image the reference block is taken from
    unsigned char* curImg;  // image searched
    int imgHeight;          // carried to the cost function, unused there
    int imgWidth;           // row stride of both images
    int searchRadiusX;
    int searchRadiusY;
    int halfBlockW;
    int halfBlockH;
    int* coarsePattern;  // (dx, dy) pairs of the large diamond
    int* finePattern;    // (dx, dy) pairs of the small diamond
    int coarseCount;
    int fineCount;
    int x;  // block centre column
    int y;  // block centre row
    // outputs
    float motionY;
    float motionX;
    float centerY;
    float centerX;
    double bestCost;
    double eigen1;
    double eigen2;
    double angle;
    // input: cost exponent, truncated to a whole number before use
    float costPower;
};

static_assert(sizeof(FP_Match) == 24 && std::is_trivially_copyable<FP_Match>::value, "FP_Match layout");
static_assert(std::is_standard_layout<QNMatchSingleBlockParam_>::value, "QNMatchSingleBlockParam_ layout");

#pragma once

#include "imgcore/kep_export.h"

// Bilinear blend weights for fractional source positions quantised to tenths.
// Entry [fy][fx] holds the weights of the top-left, top-right, bottom-left and
// bottom-right source samples for a position fy/10 below and fx/10 right of the
// top-left one: {(10-fy)(10-fx), (10-fy)fx, (10-fx)fy, fx*fy} / 100.
using BilinearWeights = float[10][10][4];

// Fills the table; the warps build it on their own stack at every call.
void buildBilinearTable(float (*table)[10][4]);

// Writes the same table into the caller's 10 x 10 x 4 array.
KEP_API void generateBilinearTbl(float (*table)[10][4]);

#pragma once

#include "imgcore/kep_export.h"

// Dense lookup curve through the control points (xs[k], ys[k]) by monotone
// piecewise-cubic Hermite interpolation (tone-curve style). Returns a calloc'ed
// array of xs[count-1] + 1 floats that the caller releases with free(). xs must be
// increasing and count >= 1; secants of different sign are not forced flat (only
// an exact zero secant is), and the end slopes never go below zero.
// Returns null when count < 1 or xs[count-1] < 0; points outside [0, xs[count-1]]
// are never written.
KEP_API float* getNInterpolation(int* xs, int* ys, int count);

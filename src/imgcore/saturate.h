#pragma once

#include <climits>
#include <cmath>

// Float-to-integer conversion that is defined for every input: truncation toward
// zero, NaN gives 0 and values outside the int range give the nearest limit (the
// behaviour of the AArch64 conversion instructions). Use it wherever a value that
// derives from a caller's float or a fitted model is converted; values that are
// provably in range can use a plain cast.
inline int truncToInt(double v) {
    if (!(v == v)) return 0;
    if (v >= 2147483647.0) return INT_MAX;
    if (v <= -2147483648.0) return INT_MIN;
    return static_cast<int>(v);
}

inline int truncToInt(float v) { return truncToInt(static_cast<double>(v)); }

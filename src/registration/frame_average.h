#pragma once

#include "imgcore/kep_export.h"

// Per-sample mean of n frames, rounded up: (sum + n - 1) / n. Samples are expected
// in 0..1023 (sums are formed in unsigned 16-bit arithmetic). Returns 1 when the
// output was written, 0 when n < 1. The output must not be one of the inputs.
// For n = 3 and n >= 5 the division goes through a table of n x 1024 entries; a
// sum outside the table (a caller's sample above 1023 or below 0) is divided
// directly instead of reading past it, which gives the table's value wherever the
// table has one.
KEP_API int frameAverage(const short** frames, short* output, int width, int height, int n);

namespace frame_average_detail {
// Last step of the general case: output[p] = (output[p] + last[p] + n - 1) / n,
// through the division table when given, else by 32-bit signed division.
void divideLastSum(short* output, const short* last, long count, int n, const unsigned short* table);

// x / n == ((x * multiplier) >> 16) >> shift for every x in 0..32767, n = 2..16.
struct Reciprocal {
    unsigned multiplier;
    int shift;
};
Reciprocal reciprocalFor(int n);

// The general case (n = 3 or n >= 5) as defined: copy frame 0, add frames 1 .. n-2
// in place, divide the last sum through the table.
void averageTable(const short* const* frames, short* output, long count, int n);

// The general case (n = 3 or 5..16) in one pass over every frame: equal to the
// copy, the in-place additions and the table division, for an output that
// overlaps no frame (framesApart).
void averageChunked(const short* const* frames, short* output, long count, int n);
bool framesApart(const short* const* frames, const short* output, long count, int n);
}  // namespace frame_average_detail

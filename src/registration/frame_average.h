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
}  // namespace frame_average_detail

#pragma once

#include <functional>

// Runs body(k) for k = 0..3 on exactly four worker threads and joins them in
// creation order; every threaded stage of the library goes through here. Workers
// must write disjoint data; there are no locks.
//
// If a worker cannot be started, the workers already running are joined and a
// std::system_error with the text "thread constructor failed" is thrown.
void runFourWorkers(const std::function<void(int worker)>& body);

// Bounds of stripe k (0..3) of the row range [0, rows) cut at q = rows / 4; the
// last stripe takes the remainder.
inline int stripeStart(int rows, int k) { return k * (rows / 4); }
inline int stripeEnd(int rows, int k) { return k == 3 ? rows : (k + 1) * (rows / 4); }

// The common case: body(rowStart, rowEnd) on the four stripes of [0, rows).
void runOnFourStripes(int rows, const std::function<void(int rowStart, int rowEnd)>& body);

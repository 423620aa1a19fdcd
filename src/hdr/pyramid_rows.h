#pragma once

#include <cstddef>
#include <vector>

#include "imgcore/simd_dispatch.h"

// Row-level pieces of the pyramid fast paths, shared by the pyramid functions and
// the exposure fusion (internal, not exported). Each piece produces exactly the
// samples of its plain counterpart in pyramid.cpp, a band of rows at a time, so that
// callers can fuse passes and cut the work into stripes.
namespace pyramid_rows {

// True when downSampleKeptRows may replace the low-pass-then-decimate definition:
// both source sides at least 4 (the border of the low-pass then repeats samples
// four positions inward, which stay inside the image) and every kept source row and
// column inside the source.
bool keptQuadDownSampleApplies(int height, int width, int outHeight, int outWidth);

// Output rows [rowStart, rowEnd) of the 2:1 quad decimation of the Bayer low-pass,
// computing the low-pass only at the kept samples: output (o, c) is the low-passed
// source sample (2o - o % 2, 2c - c % 2). Exact integer sums (see pyramid.cpp).
// Runs the compilation `isa` of the row kernel (see imgcore/simd_dispatch.h).
template <typename T>
void downSampleKeptRows(const T* src, T* dst, int height, int width, int outWidth, int rowStart, int rowEnd,
                        KernelIsa isa);

// The whole down-sampling on four workers (output row stripes).
template <typename T>
void downSampleKept(const T* src, T* dst, int height, int width, int outHeight, int outWidth, KernelIsa isa);

// True when UpSampledRows may replace the zero-insert-and-filter definition: even
// source sides of at least 2, remainders 0 or 2, positive strides, src and dst apart.
bool separableUpSampleApplies(const short* src, const short* dst, int height, int width, std::ptrdiff_t srcStride,
                              std::ptrdiff_t dstStride, int extraRows, int extraCols);

// Rows of the up-sampled image of a height x width level, one at a time, without
// materialising the zero-inserted image: the binomial kernel is an outer product and
// every tap on an inserted zero is skipped. Requires separableUpSampleApplies. Keeps
// the horizontally filtered quad rows of the last three source quad rows, so rows
// asked for in increasing order cost one horizontal pass per source quad row.
class UpSampledRows {
public:
    UpSampledRows(const short* src, int height, int width, std::ptrdiff_t srcStrideBytes, int extraRows,
                  int extraCols, KernelIsa isa);
    int rows() const { return outRows_; }
    int cols() const { return outCols_; }
    // Writes the outCols samples of output row y (0 <= y < rows()).
    void row(int y, short* out);

private:
    static constexpr int kSlots = 3;
    int sourceRow(int quad, int site) const;
    void filteredQuadRow(int quad, const int* rows[2]);
    void horizontal(const short* in, int* out);

    const short* src_;
    int height_;
    int width_;
    std::ptrdiff_t srcStride_;
    int quadRows_;
    int quadCols_;
    int rowLen_;
    int outRows_;
    int outCols_;
    std::vector<short> evenSites_;
    std::vector<short> oddSites_;
    std::vector<int> ring_;
    KernelIsa isa_;
    int slotQuad_[kSlots];
};

}  // namespace pyramid_rows

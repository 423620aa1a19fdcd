#pragma once

#include "imgcore/kep_export.h"

namespace zel {
namespace cpp {
namespace memory {

// Copies a width x height rectangle of elements from
// src + srcY*srcStride + srcX to dst + dstY*dstStride + dstX.
//
// Units: width, strides and offsets count elements of T. For unsigned char that
// is bytes; for short the natural generalisation (a row of width shorts, strides
// in shorts) is used, so a plane of W shorts per row has stride W, not 2W.
//
// Strides: 0 means width. A negative stride means the rectangle is stored
// bottom-up: its start row (computed with the signed stride) is the top row as
// the caller sees it, and the copy works on the rows in memory order, starting
// from the lowest address (start + (height-1)*stride) with the stride's
// magnitude. With exactly one negative stride the copy therefore flips the
// rectangle vertically; with two it is a plain row-to-row copy.
//
// Overlap (after the strides are normalised):
//  - same start address: equal strides need no work; otherwise rows are copied
//    top to bottom when the source stride is the larger one, bottom to top when
//    it is the smaller one;
//  - different start addresses: the spans [start, start + height*stride) of the
//    two sides are compared; overlapping spans are copied with memmove (one call
//    when both strides equal width, else row by row, top to bottom when the
//    source lies at or after the destination, bottom to top otherwise), disjoint
//    spans with memcpy (one call when both strides equal width, else row by row).
//
// Returns -2 if src or dst is null, otherwise 0. A rectangle with width < 1 or
// height < 1 copies nothing.
//
// Explicitly instantiated for unsigned char and short.
template <typename T>
KEP_API int copyRect_v00(const T* src, T* dst, int width, int height, int srcStride, int dstStride, int srcX, int srcY,
                         int dstX, int dstY);

extern template int copyRect_v00<unsigned char>(const unsigned char*, unsigned char*, int, int, int, int, int, int, int,
                                                int);
extern template int copyRect_v00<short>(const short*, short*, int, int, int, int, int, int, int, int);

}  // namespace memory
}  // namespace cpp
}  // namespace zel

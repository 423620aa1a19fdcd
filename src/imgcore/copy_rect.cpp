#include "imgcore/copy_rect.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zel {
namespace cpp {
namespace memory {

namespace {

// Start of the rectangle on one side, normalised to a positive stride (in
// elements) that walks the rows from the lowest address upward.
template <typename T>
struct Side {
    T* start;
    std::ptrdiff_t stride;
};

template <typename T>
Side<T> normaliseSide(T* base, int width, int height, int stride, int x, int y) {
    std::ptrdiff_t s = stride == 0 ? width : stride;
    T* start = base + static_cast<std::ptrdiff_t>(y) * s + x;
    if (s < 0) {
        // Bottom-up storage: the last row lies lowest in memory.
        start += static_cast<std::ptrdiff_t>(height - 1) * s;
        s = -s;
    }
    return Side<T>{start, s};
}

enum class RowFunction { kCopy, kMove };
enum class RowOrder { kTopDown, kBottomUp };

template <typename T>
void copyRows(const Side<T>& src, const Side<T>& dst, int width, int height, RowFunction fn, RowOrder order) {
    const std::size_t rowBytes = static_cast<std::size_t>(width) * sizeof(T);
    for (int k = 0; k < height; ++k) {
        const int row = order == RowOrder::kTopDown ? k : height - 1 - k;
        const T* s = src.start + static_cast<std::ptrdiff_t>(row) * src.stride;
        T* d = dst.start + static_cast<std::ptrdiff_t>(row) * dst.stride;
        if (fn == RowFunction::kCopy)
            std::memcpy(d, s, rowBytes);
        else
            std::memmove(d, s, rowBytes);
    }
}

// Address arithmetic for the overlap test is done on integers: the spans may
// reach past the end of the caller's buffer (the last row's stride padding).
template <typename T>
bool spansOverlap(const Side<T>& a, const Side<T>& b, int height) {
    const std::uintptr_t a0 = reinterpret_cast<std::uintptr_t>(a.start);
    const std::uintptr_t b0 = reinterpret_cast<std::uintptr_t>(b.start);
    const std::uintptr_t a1 =
        a0 + static_cast<std::uintptr_t>(height) * static_cast<std::uintptr_t>(a.stride) * sizeof(T);
    const std::uintptr_t b1 =
        b0 + static_cast<std::uintptr_t>(height) * static_cast<std::uintptr_t>(b.stride) * sizeof(T);
    return a0 < b1 && b0 < a1;
}

}  // namespace

template <typename T>
int copyRect_v00(const T* src, T* dst, int width, int height, int srcStride, int dstStride, int srcX, int srcY,
                 int dstX, int dstY) {
    if (src == nullptr || dst == nullptr) return -2;
    if (width < 1 || height < 1) return 0;

    const Side<T> s = normaliseSide(const_cast<T*>(src), width, height, srcStride, srcX, srcY);
    const Side<T> d = normaliseSide(dst, width, height, dstStride, dstX, dstY);
    const bool packed = s.stride == width && d.stride == width;

    if (s.start == d.start) {
        if (s.stride == d.stride) return 0;
        // Rows after the first may overlap their destination partially; memmove
        // gives each row copy a defined result where memcpy would not.
        copyRows(s, d, width, height, RowFunction::kMove,
                 s.stride > d.stride ? RowOrder::kTopDown : RowOrder::kBottomUp);
        return 0;
    }

    if (spansOverlap(s, d, height)) {
        if (packed) {
            std::memmove(d.start, s.start, static_cast<std::size_t>(height) * s.stride * sizeof(T));
        } else {
            copyRows(s, d, width, height, RowFunction::kMove,
                     s.start >= d.start ? RowOrder::kTopDown : RowOrder::kBottomUp);
        }
        return 0;
    }

    if (packed)
        std::memcpy(d.start, s.start, static_cast<std::size_t>(height) * width * sizeof(T));
    else
        copyRows(s, d, width, height, RowFunction::kCopy, RowOrder::kTopDown);
    return 0;
}

template KEP_API int copyRect_v00<unsigned char>(const unsigned char*, unsigned char*, int, int, int, int, int, int,
                                                 int, int);
template KEP_API int copyRect_v00<short>(const short*, short*, int, int, int, int, int, int, int, int);

}  // namespace memory
}  // namespace cpp
}  // namespace zel

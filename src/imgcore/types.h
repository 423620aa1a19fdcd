#pragma once

#include <type_traits>

// Plain records shared by every subsystem. Field order and types are part of the
// binary interface: callers lay these out themselves.

// Valid area of a merged frame (first valid row/column, right/bottom limits) and
// the number of feature points found on the reference guide.
struct USERZOOM {
    int top;
    int left;
    int right;
    int bottom;
    int pointCount;
};

struct Point2f {
    float x;
    float y;
};

struct Size {
    int width;
    int height;
};

struct Rect {
    int x;
    int y;
    int width;
    int height;
};

// Rectangle given by its edges; right and bottom are exclusive.
struct rect {
    int left;
    int top;
    int right;
    int bottom;
};

static_assert(sizeof(USERZOOM) == 20 && std::is_trivially_copyable<USERZOOM>::value, "USERZOOM layout");
static_assert(sizeof(Point2f) == 8 && sizeof(Size) == 8, "Point2f/Size layout");
static_assert(sizeof(Rect) == 16 && sizeof(rect) == 16, "Rect/rect layout");

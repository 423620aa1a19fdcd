#include "registration/gray_warp.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "imgcore/saturate.h"
#include "registration/bilinear_table.h"

namespace {

// ---- single-model warp ----

// Pixels per model evaluation: 0.1 over the larger of |1 - h0| and |h3| (how fast
// the model drifts from a pure translation along a row), at least 2 and even.
long long grayRunLength(double h0, double h3) {
    const float drift = std::max(static_cast<float>(std::fabs(1.0 - h0)), static_cast<float>(std::fabs(h3)));
    long long length = truncToInt(0.1 / static_cast<double>(drift));  // a pure translation saturates
    if (length <= 2) length = 2;
    return length & ~1LL;
}

struct GrayImage {
    const unsigned char* src;
    unsigned char* dst;
    long long width;
    long long height;
};

// Bilinear blend of the 2x2 source block whose top-left pixel is p; the order of
// the additions is part of the result.
inline unsigned char blendGray(const unsigned char* p, std::size_t stride, const float* w) {
    const float v = ((w[0] * static_cast<float>(p[0]) + w[1] * static_cast<float>(p[1])) +
                     w[2] * static_cast<float>(p[stride])) +
                    w[3] * static_cast<float>(p[stride + 1]);
    // The weights sum to one, so v stays within 0..255.
    return static_cast<unsigned char>(static_cast<int>(v));
}

// One run [x0, x1) of output row y, evaluated once at its centre column.
void warpGrayRun(const GrayImage& img, const double* h, long long y, long long x0, long long x1,
                 const float (*table)[10][4]) {
    if (x0 >= x1) return;
    const double xc = std::trunc(static_cast<double>(x0 + x1) * 0.5);
    const double yd = static_cast<double>(y);
    const float sy = static_cast<float>((h[3] * xc + h[4] * yd) + (h[5] + h[5]));
    const int r0 = truncToInt(sy);
    // A row in (-1, 0) truncates to 0 but would need a negative weight index: skip it.
    if (r0 < 0 || r0 >= img.height - 1 || sy < 0.0f) return;

    const float sx = static_cast<float>((h[0] * xc + h[1] * yd) + (h[2] + h[2]));
    const int fy = truncToInt(10.0f * sy) % 10;  // sy >= 0 (or NaN, which converts to 0)
    const int fx = truncToInt(10.0f * sx) % 10;  // remainder keeps the dividend's sign
    if (fx < 0) return;  // a negative column fraction has no table entry
    const float* w = table[fy][fx];

    // The run is shifted left by at least one pixel, even a single-pixel run.
    const long long c0 = truncToInt(sx) - std::max(static_cast<long long>(xc) - x0, 1LL);
    // Pixel x0 + i reads columns c0 + i and c0 + i + 1, both inside the image, and
    // is written only when it lies inside the image itself.
    const long long first = std::max({0LL, -c0, -x0});
    const long long last = std::min({x1 - x0, img.width - 1 - c0, img.width - x0});
    const std::size_t stride = static_cast<std::size_t>(img.width);
    const unsigned char* srcRow = img.src + static_cast<std::size_t>(r0) * stride;
    unsigned char* dstRow = img.dst + static_cast<std::size_t>(y) * stride;
    for (long long i = first; i < last; ++i)
        dstRow[x0 + i] = blendGray(srcRow + (c0 + i), stride, w);
}

// ---- model-grid warp ----

constexpr int kGridModelsPerRow = 4;
constexpr int kFloatsPerModel = 9;

const float* gridModel(const float* models, int gx, int gy) {
    return models + (static_cast<std::ptrdiff_t>(gx) + static_cast<std::ptrdiff_t>(gy) * kGridModelsPerRow) *
                        kFloatsPerModel;
}

struct Point2 {
    float x;
    float y;
};

// (a2 + a0*x + a1*y, a5 + a3*x + a4*y) in single precision, in that order.
Point2 applyAffine(const float* a, float x, float y) {
    return Point2{(a[2] + a[0] * x) + a[1] * y, (a[5] + a[3] * x) + a[4] * y};
}

// t*p + s*q per coordinate.
Point2 mix(float t, Point2 p, float s, Point2 q) { return Point2{t * p.x + s * q.x, t * p.y + s * q.y}; }

}  // namespace

int qnWarpImgSmallGray(Rect region, Matrix model, int width, int height, unsigned char* src, unsigned char* dst) {
    float table[10][10][4];
    buildBilinearTable(table);
    const double* h = model.data;
    const GrayImage img{src, dst, width, height};
    const long long runLength = grayRunLength(h[0], h[3]);

    const long long right = static_cast<long long>(region.x) + region.width;
    // Rows outside the image have nothing to write.
    const long long rowBegin = std::max(static_cast<long long>(region.y), 0LL);
    const long long rowEnd = std::min(static_cast<long long>(region.y) + region.height, img.height);
    for (long long y = rowBegin; y < rowEnd; ++y) {
        for (long long x0 = region.x; x0 < right;) {
            const long long x1 = std::min(x0 + runLength, right);
            warpGrayRun(img, h, y, x0, x1, table);
            x0 = x1;
        }
    }
    return 0;
}

void qnWarpImgBilinear(rect box, float* models, unsigned char* src, unsigned char* dst, int width, int height,
                       int gx, int gy) {
    // Neighbours outside the grid fall back to the cell's own column or row.
    const int leftGx = gx < 1 ? gx : gx - 1;
    const int upperGy = gy < 1 ? gy : gy - 1;
    const float* own = gridModel(models, gx, gy);
    const float* left = gridModel(models, leftGx, gy);
    const float* upper = gridModel(models, gx, upperGy);
    const float* upperLeft = gridModel(models, leftGx, upperGy);

    if (!(box.top < box.bottom)) return;
    const long long n = static_cast<long long>(box.right) - box.left;
    if (n <= 0) return;
    float table[10][10][4];
    buildBilinearTable(table);

    const std::size_t stride = static_cast<std::size_t>(std::max(width, 0));
    const float maxX = static_cast<float>(width - 1);
    const float maxY = static_cast<float>(height - 1);
    const float count = static_cast<float>(n);
    const float span = static_cast<float>(static_cast<long long>(box.bottom) - box.top);
    // Pixels outside the image are never written.
    const long long rowBegin = std::max(static_cast<long long>(box.top), 0LL);
    const long long rowEnd = std::min(static_cast<long long>(box.bottom), static_cast<long long>(height));
    const long long iBegin = std::max(-static_cast<long long>(box.left), 0LL);
    const long long iEnd = std::min(n, static_cast<long long>(width) - box.left);

    for (long long y = rowBegin; y < rowEnd; ++y) {
        const float t = static_cast<float>(y - box.top) / span;
        const float s = 1.0f - t;
        const float yf = static_cast<float>(y);
        const Point2 start = mix(t, applyAffine(left, static_cast<float>(box.left), yf), s,
                                 applyAffine(upperLeft, static_cast<float>(box.left), yf));
        const Point2 end = mix(t, applyAffine(own, static_cast<float>(box.right), yf), s,
                               applyAffine(upper, static_cast<float>(box.right), yf));
        const float stepX = (end.x - start.x) / count;
        const float stepY = (end.y - start.y) / count;
        unsigned char* dstRow = dst + static_cast<std::size_t>(y) * stride;
        for (long long i = iBegin; i < iEnd; ++i) {
            const float fi = static_cast<float>(i);
            const float xp = start.x + stepX * fi;
            const float yp = start.y + stepY * fi;
            // Also false for NaN, so no conversion below sees one.
            if (!(xp >= 0.0f && yp >= 0.0f && xp < maxX && yp < maxY)) continue;
            const int ix = static_cast<int>(xp);  // 0 <= xp < width - 1
            const int iy = static_cast<int>(yp);
            const float* w = table[truncToInt(yp * 10.0f) % 10][truncToInt(xp * 10.0f) % 10];
            dstRow[box.left + i] = blendGray(src + static_cast<std::size_t>(iy) * stride + ix, stride, w);
        }
    }
}

#include "features/dog.h"

#include <cstddef>
#include <cstdlib>

#include "features/gauss3x3.h"
#include "imgcore/saturate.h"

namespace {

void subtractPlanes(const unsigned char* __restrict a, const unsigned char* __restrict b, short* __restrict dst,
                    std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) dst[i] = static_cast<short>(a[i] - b[i]);
}

// Histogram of one cell: bin edges and counts, released by the destructor so
// every return path frees them.
struct CellHistogram {
    int bins;
    float* edge;  // bins + 1 entries
    int* count;   // bins entries
    int total = 0;

    explicit CellHistogram(int n)
        : bins(n),
          edge(static_cast<float*>(std::calloc(static_cast<std::size_t>(n) + 1, sizeof(float)))),
          count(static_cast<int*>(std::calloc(static_cast<std::size_t>(n), sizeof(int)))) {}
    ~CellHistogram() {
        std::free(edge);
        std::free(count);
    }
    CellHistogram(const CellHistogram&) = delete;
    CellHistogram& operator=(const CellHistogram&) = delete;

    bool allocated() const { return edge != nullptr && count != nullptr; }

    void setEdges(float lo, float hi, float binWidth) {
        for (int i = 0; i < bins; ++i) edge[i] = static_cast<float>(i) * binWidth + lo;
        edge[bins] = static_cast<float>(static_cast<double>(hi) + 1e-6);
    }

    void add(float v) {
        for (int i = 0; i < bins; ++i) {
            if (edge[i] <= v && v < edge[i + 1]) {
                ++count[i];
                ++total;
            }
        }
    }
};

void sampleCell(CellHistogram& h, const short* dog, int width, int x0, int x1, int y0, int y1, int step, float lo,
                float hi) {
    // 64-bit positions so that a large step cannot overflow past the cell end.
    for (std::ptrdiff_t y = y0; y < y1; y += step) {
        if (width < 4) continue;
        const short* row = dog + y * width;
        for (std::ptrdiff_t x = x0; x < x1; x += step) {
            const float v = static_cast<float>(row[x]);
            if (v < lo || v > hi) break;  // the rest of this row segment is not sampled
            h.add(v);
        }
    }
}

void negativeThreshold(const CellHistogram& h, float binWidth, float frac, float negCap, float* out) {
    const float n = static_cast<float>(h.total);
    for (int i = 0; i < h.bins; ++i) {
        const float ci = static_cast<float>(h.count[i]);
        if (ci / n > frac) {
            const float t = ((n * frac) * binWidth) / ci + h.edge[i];
            *out = t < negCap ? t : negCap;
            return;
        }
    }
}

void positiveThreshold(const CellHistogram& h, float binWidth, float frac, float posCap, float* out) {
    const float n = static_cast<float>(h.total);
    for (int i = h.bins - 1; i >= 0; --i) {
        const float ci = static_cast<float>(h.count[i]);
        if (ci / n > frac) {
            const float t = h.edge[i + 1] - ((n * frac) * binWidth) / ci;
            *out = t > posCap ? t : posCap;
            return;
        }
    }
}

}  // namespace

void qnDoG(unsigned char* src, short* dst, float sigma1, float sigma2, int width, int height) {
    if (width < 1 || height < 1) return;
    const std::size_t n = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    unsigned char* first = static_cast<unsigned char*>(std::calloc(n, 1));
    unsigned char* second = static_cast<unsigned char*>(std::calloc(n, 1));
    if (first != nullptr && second != nullptr) {
        qnGauss3x3Filter(src, first, width, height, sigma1);
        qnGauss3x3Filter(src, second, width, height, sigma2);
        subtractPlanes(second, first, dst, n);
    }
    std::free(first);
    std::free(second);
}

void qnImgDiff(unsigned char* a, unsigned char* b, short* dst, int width, int height) {
    if (width < 1) return;
    for (int y = 0; y < height; ++y) {
        const std::ptrdiff_t o = static_cast<std::ptrdiff_t>(y) * width;
        subtractPlanes(a + o, b + o, dst + o, static_cast<std::size_t>(width));
    }
}

int qnGetHistogram(short* dog, float lo, float hi, float binWidth, int width, int height, int step, float frac,
                   float negCap, float posCap, float* negThr, float* posThr) {
    // The bin count derives from the caller's floats: NaN or absurd ranges must
    // not reach the allocation. A range without bins can hold no sample.
    const int bins = truncToInt((hi - lo) / binWidth);
    if (bins < 1 || step < 1) return -1;
    const int cellW = width / 4;
    const int cellH = height / 4;

    for (int gy = 0; gy < 4; ++gy) {
        for (int gx = 0; gx < 4; ++gx) {
            CellHistogram h(bins);
            if (!h.allocated()) return -1;
            if (height < 4) return -1;
            h.setEdges(lo, hi, binWidth);
            sampleCell(h, dog, width, gx * cellW, (gx + 1) * cellW, gy * cellH, (gy + 1) * cellH, step, lo, hi);
            if (h.total == 0) return -1;
            const int index = gy * 4 + gx;
            negativeThreshold(h, binWidth, frac, negCap, &negThr[index]);
            positiveThreshold(h, binWidth, frac, posCap, &posThr[index]);
        }
    }
    return 0;
}

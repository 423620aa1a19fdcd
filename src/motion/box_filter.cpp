#include "motion/box_filter.h"

#include <vector>

#include "imgcore/saturate.h"

namespace {

// Kernel sizes up to 3 become 3; even sizes grow by one.
int oddKernel(int k) {
    if (k <= 3) k = 3;
    if (k % 2 == 0) k += 1;
    return k;
}

// Reads sample i of a line whose samples are `step` apart.
template <typename T>
struct Line {
    const T* base;
    long step;
    T operator[](int i) const { return base[static_cast<long>(i) * step]; }
};

// Clipped mean of every sample of a line shorter than the kernel, straight from
// the definition.
template <typename T, typename Out>
void meanShortLine(Line<T> in, int n, int r, Out out) {
    for (int i = 0; i < n; ++i) {
        const int lo = i - r < 0 ? 0 : i - r;
        const int hi = static_cast<long long>(i) + r > n - 1 ? n - 1 : i + r;
        float sum = 0.0f;
        for (int j = lo; j <= hi; ++j) sum += static_cast<float>(in[j]);
        out(i, sum * (1.0f / static_cast<float>(hi - lo + 1)));
    }
}

// Sliding-window mean of a row at least K samples long: the window grows over the
// first r + 1 outputs, slides with a fixed count K (gaining the integer difference
// of the entering and leaving samples), and shrinks over the last r outputs.
void meanLongRow(const unsigned char* s, int n, int K, int r, float* d) {
    float sum = 0.0f;
    for (int j = 0; j <= r; ++j) sum += static_cast<float>(s[j]);
    d[0] = sum * (1.0f / static_cast<float>(r + 1));
    for (int i = 1; i <= r; ++i) {
        sum += static_cast<float>(s[i + r]);
        d[i] = sum * (1.0f / static_cast<float>(r + 1 + i));
    }
    for (int i = r + 1; i <= n - r - 1; ++i) {
        sum += static_cast<float>(static_cast<int>(s[i + r]) - static_cast<int>(s[i - r - 1]));
        d[i] = sum * (1.0f / static_cast<float>(K));
    }
    int count = K - 1;
    for (int i = n - r; i <= n - 1; ++i, --count) {
        sum -= static_cast<float>(s[i - r - 1]);
        d[i] = sum * (1.0f / static_cast<float>(count));
    }
}

// The stored byte is the mean truncated toward zero (wrapped like any int when a
// caller's float lies outside 0..255).
unsigned char meanToByte(float mean) { return static_cast<unsigned char>(truncToInt(mean)); }

}  // namespace

void qnBoxfilterHor(unsigned char* src, float* dst, int rows, int cols, int k) {
    const int K = oddKernel(k);
    const int r = (K - 1) / 2;
    for (int y = 0; y < rows; ++y) {
        const unsigned char* s = src + static_cast<long>(y) * cols;
        float* d = dst + static_cast<long>(y) * cols;
        if (cols >= K)
            meanLongRow(s, cols, K, r, d);
        else
            meanShortLine(Line<unsigned char>{s, 1}, cols, r, [d](int i, float mean) { d[i] = mean; });
    }
}

void qnBoxfilterVer(float* src, unsigned char* dst, int rows, int cols, int k) {
    const int K = oddKernel(k);
    const int r = (K - 1) / 2;
    if (rows < K) {
        for (int x = 0; x < cols; ++x) {
            unsigned char* d = dst + x;
            meanShortLine(Line<float>{src + x, cols}, rows, r, [d, cols](int i, float mean) { d[static_cast<long>(i) * cols] = meanToByte(mean); });
        }
        return;
    }
    // One running sum per column, advanced a whole row at a time so that both
    // images are read and written row by row; each column sees the same sequence
    // of additions as a sliding window down that column.
    std::vector<float> sum(static_cast<size_t>(cols > 0 ? cols : 0), 0.0f);
    auto row = [src, cols](int i) { return src + static_cast<long>(i) * cols; };
    auto emit = [dst, cols, &sum](int i, int count) {
        const float reciprocal = 1.0f / static_cast<float>(count);
        unsigned char* d = dst + static_cast<long>(i) * cols;
        for (int x = 0; x < cols; ++x) d[x] = meanToByte(sum[x] * reciprocal);
    };
    for (int j = 0; j <= r; ++j)
        for (int x = 0; x < cols; ++x) sum[x] += row(j)[x];
    emit(0, r + 1);
    for (int i = 1; i <= r; ++i) {
        const float* add = row(i + r);
        for (int x = 0; x < cols; ++x) sum[x] += add[x];
        emit(i, r + 1 + i);
    }
    for (int i = r + 1; i <= rows - r - 1; ++i) {
        const float* add = row(i + r);
        const float* drop = row(i - r - 1);
        for (int x = 0; x < cols; ++x) sum[x] += add[x] - drop[x];
        emit(i, K);
    }
    int count = K - 1;
    for (int i = rows - r; i <= rows - 1; ++i, --count) {
        const float* drop = row(i - r - 1);
        for (int x = 0; x < cols; ++x) sum[x] -= drop[x];
        emit(i, count);
    }
}

void qnBoxfilter(unsigned char* src, unsigned char* dst, int rows, int cols, Size k) {
    if (rows <= 0 || cols <= 0) return;
    std::vector<float> horizontal(static_cast<size_t>(rows) * static_cast<size_t>(cols));
    qnBoxfilterHor(src, horizontal.data(), rows, cols, k.width);
    qnBoxfilterVer(horizontal.data(), dst, rows, cols, k.height);
}

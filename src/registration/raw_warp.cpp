#include "registration/raw_warp.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "imgcore/saturate.h"
#include "registration/bilinear_table.h"

namespace {

// Output quads per model evaluation.
constexpr int kRunQuads = 4;

// The parts of the model that stay fixed along one output quad row. The products
// h1*y and h4*y and the doubled translations are the same values the full
// expressions (h0*xc + h1*y) + (h2 + h2) and (h3*xc + h4*y) + (h5 + h5) use.
struct RowTerms {
    double h0;
    double h3;
    double h1y;
    double h4y;
    double h2x2;
    double h5x2;
};

RowTerms rowTerms(const double* h, int y) {
    const double yd = static_cast<double>(y);
    return RowTerms{h[0], h[3], h[1] * yd, h[4] * yd, h[2] + h[2], h[5] + h[5]};
}

// Where one run of output quads [x0, x1) reads from, after its single model
// evaluation at the run's centre column.
struct RawRun {
    bool skipped;             // source rows outside the frame: nothing written, not tracked
    int r0;                   // upper source quad row (the lower one is r0 + 1)
    int fy;                   // weight indices into the bilinear table
    int fx;
    long long srcShift;       // source quad column minus output quad column
    long long writeBegin;     // output quads [writeBegin, writeEnd) are written
    long long writeEnd;
};

RawRun planRun(const RowTerms& t, long long x0, long long x1, int quadCols, int quadRows) {
    RawRun run{true, 0, 0, 0, 0, 0, 0};
    // trunc((x0 + x1) * 0.5): the halving is exact in double and integer division
    // truncates toward zero as well.
    const long long xc = (x0 + x1) / 2;
    const double xcd = static_cast<double>(xc);

    const float sy = static_cast<float>((t.h3 * xcd + t.h4y) + t.h5x2);
    const int r0 = truncToInt(sy);
    if (sy < 0.0f || r0 < 0 || static_cast<long long>(r0) + 1 >= quadRows) return run;
    run.skipped = false;
    run.r0 = r0;

    const float sx = static_cast<float>((t.h0 * xcd + t.h1y) + t.h2x2);
    // sy >= 0 here, so the remainder is 0..9 (NaN converts to 0).
    run.fy = truncToInt(sy * 10.0f) % 10;
    // A negative column mirrors its fraction (-0.25 gives 3); 64-bit so that a
    // saturated conversion cannot overflow.
    const long long tenthsX = static_cast<long long>(truncToInt(sx * 10.0f)) - (sx < 0.0f ? 1 : 0);
    run.fx = static_cast<int>((tenthsX < 0 ? -tenthsX : tenthsX) % 10);

    const long long centreOffset = std::max(xc - x0, 0LL);  // 0..2 for a real run
    const long long s0 = truncToInt(std::floor(sx) - static_cast<float>(centreOffset));
    run.srcShift = s0 - x0;

    // Clip so that source quads s and s + 1 stay inside 0..quadCols-1.
    const long long under = std::max(-s0, 0LL);
    const long long end = s0 + (x1 - x0);
    const long long over = end >= quadCols ? end - quadCols + 1 : 0;
    // The output quads must also exist in the destination frame.
    run.writeBegin = std::max(x0 + under, 0LL);
    run.writeEnd = std::min(x1 - over, static_cast<long long>(quadCols));
    return run;
}

// Blends `count` consecutive samples of one output raw row. top and bottom point at
// the samples of the upper and lower source rows that sit under the first output
// sample; the right-hand neighbours are one quad (two samples) further on. The
// order of the additions is part of the result.
inline void blendSpan(const short* __restrict top, const short* __restrict bottom, short* __restrict out,
                      long long count, const float* w) {
    const float w0 = w[0], w1 = w[1], w2 = w[2], w3 = w[3];
    for (long long j = 0; j < count; ++j) {
        const float v = ((w0 * static_cast<float>(top[j]) + w1 * static_cast<float>(top[j + 2])) +
                         w2 * static_cast<float>(bottom[j])) +
                        w3 * static_cast<float>(bottom[j + 2]);
        // The weights sum to one, so v stays within the 16-bit range.
        out[j] = static_cast<short>(static_cast<int>(v));
    }
}

// Consecutive runs of a row that read the same source rows with the same weights
// and the same column shift are blended as one span: every sample gets exactly the
// value its own run would give, and the longer loops vectorise well.
bool continuesSpan(const RawRun& span, const RawRun& run) {
    // One combined test instead of a chain of branches.
    return ((run.r0 ^ span.r0) | (run.fy ^ span.fy) | (run.fx ^ span.fx) | (run.srcShift ^ span.srcShift) |
            (run.writeBegin ^ span.writeEnd)) == 0;
}

// Writes the span's quads on output quad row y: two raw rows of 2*(writeEnd -
// writeBegin) samples each.
void writeSpan(const RawRun& span, int y, const short* src, short* dst, std::size_t stride,
               const float (*table)[10][4]) {
    const float* w = table[span.fy][span.fx];
    const long long samples = 2 * (span.writeEnd - span.writeBegin);
    const std::size_t outCol = static_cast<std::size_t>(2 * span.writeBegin);
    const std::size_t srcCol = static_cast<std::size_t>(2 * (span.writeBegin + span.srcShift));
    for (int dr = 0; dr < 2; ++dr) {
        const short* top = src + (2 * static_cast<std::size_t>(span.r0) + dr) * stride + srcCol;
        const short* bottom = top + 2 * stride;
        short* out = dst + (2 * static_cast<std::size_t>(y) + dr) * stride + outCol;
        blendSpan(top, bottom, out, samples, w);
    }
}

}  // namespace

int qnWarpImgRaw(Rect region, Matrix model, int quadCols, int quadRows, int /*spare0*/, int /*spare1*/,
                 short* /*plane0*/, short* /*plane1*/, short* /*plane2*/, short* /*plane3*/, short* /*plane4*/,
                 short* /*plane5*/, short* /*plane6*/, short* /*plane7*/, int* reportedTop, int* reportedBottom,
                 short* srcRaw, short* dstRaw, int* topAcc, int* bottomAcc) {
    if (region.x == 0 && region.y == 0) {
        *topAcc = 0;
        *bottomAcc = quadRows - 1;
    }
    float table[10][10][4];
    buildBilinearTable(table);

    const long long regionRight = static_cast<long long>(region.x) + region.width;
    const long long regionBottom = static_cast<long long>(region.y) + region.height;
    const bool touchesTop = region.y == 0;
    const bool touchesBottom = regionBottom == quadRows;
    int firstRow = quadRows - 1;
    int lastRow = 0;

    // Rows outside the frame have nothing to write, and leaving them out cannot
    // change the tracked rows: only rows inside 0..quadRows-1 can move them.
    const long long rowBegin = std::max(static_cast<long long>(region.y), 0LL);
    const long long rowEnd = std::min(regionBottom, static_cast<long long>(quadRows));
    const std::size_t stride = 2 * static_cast<std::size_t>(std::max(quadCols, 0));

    for (long long yy = rowBegin; yy < rowEnd; ++yy) {
        const int y = static_cast<int>(yy);  // inside 0..quadRows-1
        const RowTerms terms = rowTerms(model.data, y);
        bool rowTracked = false;
        RawRun span{};
        bool spanOpen = false;
        long long x0 = region.x;
        long long x1;
        do {
            x1 = std::min(x0 + kRunQuads, regionRight);
            const RawRun run = planRun(terms, x0, x1, quadCols, quadRows);
            if (!run.skipped) {
                rowTracked = true;
                if (run.writeBegin < run.writeEnd) {
                    if (spanOpen && continuesSpan(span, run)) {
                        span.writeEnd = run.writeEnd;
                    } else {
                        if (spanOpen) writeSpan(span, y, srcRaw, dstRaw, stride, table);
                        span = run;
                        spanOpen = true;
                    }
                }
            }
            x0 = x1;
        } while (x1 < regionRight);
        if (spanOpen) writeSpan(span, y, srcRaw, dstRaw, stride, table);

        if (rowTracked) {
            if (touchesTop && y < firstRow) firstRow = y;
            if (touchesBottom && y > lastRow) lastRow = y;
        }
    }

    if (touchesTop) *topAcc = std::max(*topAcc, firstRow);
    if (touchesBottom) *bottomAcc = std::min(*bottomAcc, lastRow);
    *reportedTop = *topAcc;
    *reportedBottom = *bottomAcc;
    return 0;
}

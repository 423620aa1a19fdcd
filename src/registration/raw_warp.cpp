#include "registration/raw_warp.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <vector>

#include "imgcore/fast_paths.h"
#include "imgcore/saturate.h"
#include "imgcore/simd_clones.h"
#include "registration/bilinear_table.h"

namespace {

using ll = long long;

// Output quads per model evaluation.
constexpr int kRunQuads = 4;

// Where one run of output quads [x0, x1) reads from, after its single model
// evaluation at the run's centre column.
struct RawRun {
    bool skipped;  // source rows outside the frame: nothing written, not tracked
    int r0;        // upper source quad row (the lower one is r0 + 1)
    int fy;        // weight indices into the bilinear table
    int fx;
    ll s0;         // source quad of the run's first output quad
};

// The model evaluation of one run, exactly as written: centre column, source
// row and column in double precision rounded to float, tenths truncated, the
// source start from the floor of the column. Conversions saturate, so any model
// (NaN and infinities included) gives defined indices.
RawRun planRunPlain(const double* h, ll x0, ll x1, int y, int quadRows) {
    RawRun run{true, 0, 0, 0, 0};
    const ll xc = static_cast<ll>(std::trunc(static_cast<double>(x0 + x1) * 0.5));
    const double xcd = static_cast<double>(xc);
    const double yd = static_cast<double>(y);
    const float sy = static_cast<float>((h[3] * xcd + h[4] * yd) + (h[5] + h[5]));
    const int r0 = truncToInt(sy);
    if (sy < 0.0f || r0 < 0 || static_cast<ll>(r0) + 1 >= quadRows) return run;
    const float sx = static_cast<float>((h[0] * xcd + h[1] * yd) + (h[2] + h[2]));
    run.skipped = false;
    run.r0 = r0;
    run.fy = truncToInt(sy * 10.0f) % 10;  // sy >= 0: 0..9
    // A negative column mirrors its fraction (-0.25 gives 3).
    const ll tenthsX = static_cast<ll>(truncToInt(sx * 10.0f)) - (sx < 0.0f ? 1 : 0);
    run.fx = static_cast<int>((tenthsX < 0 ? -tenthsX : tenthsX) % 10);
    run.s0 = truncToInt(std::floor(sx) - static_cast<float>(std::max(xc - x0, 0LL)));
    return run;
}

// Output quads [begin, end) of a run that read source quads s and s + 1 inside
// 0..quadCols-1 and land inside the destination frame.
struct WriteRange {
    ll begin;
    ll end;
};

WriteRange clipRun(ll x0, ll x1, ll s0, int quadCols) {
    const ll under = std::max(-s0, 0LL);
    const ll end = s0 + (x1 - x0);
    const ll over = end >= quadCols ? end - quadCols + 1 : 0;
    return WriteRange{std::max(x0 + under, 0LL), std::min(x1 - over, static_cast<ll>(quadCols))};
}

// One output sample from the four source samples of its site: the order of the
// additions is part of the result. The weights sum to one, so the value stays in
// the 16-bit range and a plain conversion truncates it.
inline short blendSample(const float* w, short a, short b, short c, short d) {
    const float v = ((w[0] * static_cast<float>(a) + w[1] * static_cast<float>(b)) + w[2] * static_cast<float>(c)) +
                    w[3] * static_cast<float>(d);
    return static_cast<short>(static_cast<int>(v));
}

void updateBounds(Rect region, int quadRows, int firstRow, int lastRow, int* reportedTop, int* reportedBottom,
                  int* topAcc, int* bottomAcc) {
    if (region.y == 0) *topAcc = std::max(*topAcc, firstRow);
    if (static_cast<ll>(region.y) + region.height == quadRows) *bottomAcc = std::min(*bottomAcc, lastRow);
    *reportedTop = *topAcc;
    *reportedBottom = *bottomAcc;
}

// ---- fast path: runs planned a row at a time, equal runs blended as one span ----

// Blends `count` consecutive samples of one output raw row. top and bottom point at
// the samples of the upper and lower source rows under the first output sample;
// the right-hand neighbours are one quad (two samples) further on. Every sample is
// blendSample() of its own four sources.
KEP_SIMD_CLONES
void blendSpan(const short* __restrict top, const short* __restrict bottom, short* __restrict out, long count,
               const float* weights) {
    const float w0 = weights[0], w1 = weights[1], w2 = weights[2], w3 = weights[3];
    for (long j = 0; j < count; ++j) {
        const float v = ((w0 * static_cast<float>(top[j]) + w1 * static_cast<float>(top[j + 2])) +
                         w2 * static_cast<float>(bottom[j])) +
                        w3 * static_cast<float>(bottom[j + 2]);
        out[j] = static_cast<short>(static_cast<int>(v));
    }
}

// Source positions of every run of one row. Runs are planned with int32 and float
// arithmetic, which equals the saturating plain form while every source position
// lies well inside the int range; rows outside that range go run by run.
constexpr float kPlannedRange = 4194304.0f;  // 2^22: floor and tenths exact in float

// What the row's span loop does with a run.
enum RunState : unsigned char {
    kRunSkipped = 0,  // source rows outside the frame
    kRunStarts = 1,   // clipped, or differs from the run before it: goes through clipRun
    kRunJoins = 2,    // same source rows, weights and shift as the run before it, both unclipped
};

// sy and sx of every run; returns false when some position is outside the planned
// range (or not a number). Bitwise tests keep the loops free of branches, so that
// they vectorise.
KEP_SIMD_CLONES
bool evaluateRuns(const double* __restrict xc, float* __restrict sy, float* __restrict sx, int runs, const double* h,
                  int y) {
    const double yd = static_cast<double>(y);
    const double h0 = h[0], h3 = h[3], h1y = h[1] * yd, h4y = h[4] * yd, h2x2 = h[2] + h[2], h5x2 = h[5] + h[5];
    for (int i = 0; i < runs; ++i) {
        sy[i] = static_cast<float>((h3 * xc[i] + h4y) + h5x2);
        sx[i] = static_cast<float>((h0 * xc[i] + h1y) + h2x2);
    }
    int outside = 0;
    for (int i = 0; i < runs; ++i)
        outside |= static_cast<int>(!(sy[i] > -kPlannedRange)) | static_cast<int>(!(sy[i] < kPlannedRange)) |
                   static_cast<int>(!(sx[i] > -kPlannedRange)) | static_cast<int>(!(sx[i] < kPlannedRange));
    return outside == 0;
}

// Source row, weight index fy * 10 + fx, shift (source quad minus output quad) and
// state of every run, from positions inside the planned range.
KEP_SIMD_CLONES
void planRuns(const float* __restrict sy, const float* __restrict sx, const int* __restrict offset,
              const int* __restrict x0, const int* __restrict x1, int* __restrict r0, int* __restrict weight,
              int* __restrict shift, unsigned char* __restrict inside, unsigned char* __restrict state, int runs,
              int quadCols, int quadRows) {
    for (int i = 0; i < runs; ++i) {
        const float y = sy[i], x = sx[i];
        const int row = static_cast<int>(y);
        const int fy = static_cast<int>(y * 10.0f) % 10;
        const int tenthsX = static_cast<int>(x * 10.0f) - static_cast<int>(x < 0.0f);
        const int fx = std::abs(tenthsX) % 10;
        // floor(sx) - offset is a small whole number, exact in float and int alike.
        const int truncX = static_cast<int>(x);
        const int s0 = truncX - static_cast<int>(static_cast<float>(truncX) > x) - offset[i];
        r0[i] = row;
        weight[i] = fy * 10 + fx;
        shift[i] = s0 - x0[i];
        const int kept = static_cast<int>(y >= 0.0f) & static_cast<int>(row + 1 < quadRows);
        // Inside: sources s0 .. s0 + (x1 - x0) and outputs x0 .. x1 - 1 all in the frames.
        inside[i] = static_cast<unsigned char>(kept & static_cast<int>(s0 >= 0) &
                                               static_cast<int>(s0 + (x1[i] - x0[i]) < quadCols) &
                                               static_cast<int>(x0[i] >= 0) & static_cast<int>(x1[i] <= quadCols));
        state[i] = static_cast<unsigned char>(kept);
    }
    for (int i = 1; i < runs; ++i) {
        const int joins = inside[i] & inside[i - 1] & static_cast<int>(r0[i] == r0[i - 1]) &
                          static_cast<int>(weight[i] == weight[i - 1]) & static_cast<int>(shift[i] == shift[i - 1]);
        state[i] = static_cast<unsigned char>(state[i] + joins);
    }
}

struct RowPlanner {
    // Per run, fixed for the whole call.
    std::vector<double> xc;   // centre column
    std::vector<int> offset;  // max(xc - x0, 0)
    std::vector<int> x0;
    std::vector<int> x1;
    // Per run, for the current row.
    std::vector<float> sy, sx;
    std::vector<int> r0, weight, shift;
    std::vector<unsigned char> inside, state;

    RowPlanner(ll regionX, ll regionRight, int runs)
        : xc(runs), offset(runs), x0(runs), x1(runs), sy(runs), sx(runs), r0(runs), weight(runs), shift(runs),
          inside(runs), state(runs) {
        for (int i = 0; i < runs; ++i) {
            const ll a = regionX + static_cast<ll>(kRunQuads) * i;
            const ll b = std::min(a + kRunQuads, regionRight);
            const ll c = (a + b) / 2;  // trunc((a + b) * 0.5): both truncate toward zero
            xc[i] = static_cast<double>(c);
            offset[i] = static_cast<int>(std::max(c - a, 0LL));
            x0[i] = static_cast<int>(a);
            x1[i] = static_cast<int>(b);
        }
    }

    bool planRow(const double* h, int y, int runs, int quadCols, int quadRows) {
        if (!evaluateRuns(xc.data(), sy.data(), sx.data(), runs, h, y)) return false;
        planRuns(sy.data(), sx.data(), offset.data(), x0.data(), x1.data(), r0.data(), weight.data(), shift.data(),
                 inside.data(), state.data(), runs, quadCols, quadRows);
        return true;
    }
};

struct Span {
    int r0;
    int fy;
    int fx;
    ll shift;  // source quad minus output quad
    ll begin;
    ll end;
};

void writeSpan(const Span& span, int y, const short* src, short* dst, std::size_t stride,
               const float (*table)[10][4]) {
    const float* w = table[span.fy][span.fx];
    const long samples = static_cast<long>(2 * (span.end - span.begin));
    const std::size_t outCol = static_cast<std::size_t>(2 * span.begin);
    const std::size_t srcCol = static_cast<std::size_t>(2 * (span.begin + span.shift));
    for (int dr = 0; dr < 2; ++dr) {
        const short* top = src + (2 * static_cast<std::size_t>(span.r0) + dr) * stride + srcCol;
        const short* bottom = top + 2 * stride;
        short* out = dst + (2 * static_cast<std::size_t>(y) + dr) * stride + outCol;
        blendSpan(top, bottom, out, samples, w);
    }
}

// Collects the written quads of one row into spans and blends each span once.
// With gap filling, every quad of [rowBegin, rowEnd) that no span covers gets -1
// on both of its raw rows, as a destination pre-filled with -1 would hold.
class SpanWriter {
public:
    SpanWriter(int y, const short* src, short* dst, std::size_t stride, const float (*table)[10][4], bool fillGaps,
               ll rowBegin, ll rowEnd)
        : y_(y), src_(src), dst_(dst), stride_(stride), table_(table), fillGaps_(fillGaps), cursor_(rowBegin),
          rowEnd_(rowEnd) {}

    // Adds output quads [begin, end) of a run; consecutive runs with the same
    // source rows, weights and shift extend the open span.
    void add(int r0, int fy, int fx, ll shift, ll begin, ll end) {
        if (begin >= end) return;
        if (open_ && span_.end == begin && span_.r0 == r0 && span_.fy == fy && span_.fx == fx && span_.shift == shift) {
            span_.end = end;
            return;
        }
        flush();
        span_ = Span{r0, fy, fx, shift, begin, end};
        open_ = true;
    }
    // Extends the open span by a run known to continue it.
    void extend(ll end) { span_.end = end; }

    void flush() {
        if (!open_) return;
        fillUpTo(span_.begin);
        writeSpan(span_, y_, src_, dst_, stride_, table_);
        cursor_ = span_.end;
        open_ = false;
    }
    void finishRow() {
        flush();
        fillUpTo(rowEnd_);
    }

private:
    void fillUpTo(ll end) {
        if (!fillGaps_ || end <= cursor_) return;
        for (int dr = 0; dr < 2; ++dr) {
            short* row = dst_ + (2 * static_cast<std::size_t>(y_) + dr) * stride_;
            std::fill(row + 2 * cursor_, row + 2 * end, static_cast<short>(-1));
        }
        cursor_ = end;
    }

    int y_;
    const short* src_;
    short* dst_;
    std::size_t stride_;
    const float (*table_)[10][4];
    bool fillGaps_;
    ll cursor_;
    ll rowEnd_;
    Span span_{};
    bool open_ = false;
};

bool runsFitInInt(Rect region, int quadCols) {
    const ll right = static_cast<ll>(region.x) + region.width;
    return region.x > -(1 << 29) && right < (1 << 29) && quadCols < (1 << 29);
}


// out = in clamped to 0..1023.
KEP_SIMD_CLONES
void clampRows(const short* __restrict in, short* __restrict out, std::size_t count) {
    for (std::size_t k = 0; k < count; ++k) out[k] = static_cast<short>(std::min(std::max<int>(in[k], 0), 1023));
}

// The rows of one rectangle warped by runs: warpRow(y) does one output quad row
// and tracks it as the first or last row when the rectangle touches the top or
// the bottom of the frame.
struct CellWarp {
    Rect region;
    const double* h;
    int quadCols, quadRows;
    const short* src;
    short* dst;
    bool fillGaps;
    ll right, rowBegin, rowEnd;
    std::size_t stride;
    int runs;
    bool planned;
    bool touchesTop, touchesBottom;
    int firstRow, lastRow;
    float table[10][10][4];
    RowPlanner planner;

    CellWarp(Rect r, const double* model, int cols, int rows, const short* srcRaw, short* dstRaw, bool fill)
        : region(r), h(model), quadCols(cols), quadRows(rows), src(srcRaw), dst(dstRaw), fillGaps(fill),
          right(static_cast<ll>(r.x) + r.width),
          // Rows outside the frame have nothing to write, and leaving them out cannot
          // change the tracked rows: a rectangle that starts at row 0 or ends at the
          // last row only tracks rows inside the frame.
          rowBegin(std::max(static_cast<ll>(r.y), 0LL)),
          rowEnd(std::min(static_cast<ll>(r.y) + r.height, static_cast<ll>(rows))),
          stride(2 * static_cast<std::size_t>(std::max(cols, 0))),
          runs(r.width > 0 ? static_cast<int>((static_cast<ll>(r.width) + kRunQuads - 1) / kRunQuads) : 1),
          planned(r.width > 0 && runsFitInInt(r, cols)), touchesTop(r.y == 0),
          touchesBottom(static_cast<ll>(r.y) + r.height == rows), firstRow(rows - 1), lastRow(0),
          planner(r.x, right, planned ? runs : 0) {
        buildBilinearTable(table);
    }

    // A lower bound of the source quad rows that output row y reads: the source row
    // along a row is monotone in the run centre, so its least value is at the first
    // or the last run; runs above the frame read nothing.
    int lowestSourceRow(int y) const {
        const ll firstX1 = std::min(static_cast<ll>(region.x) + kRunQuads, right);
        const ll lastX0 = static_cast<ll>(region.x) + static_cast<ll>(kRunQuads) * (runs - 1);
        const double yd = static_cast<double>(y);
        float least = static_cast<float>((h[3] * static_cast<double>((region.x + firstX1) / 2) + h[4] * yd) + (h[5] + h[5]));
        const float last = static_cast<float>((h[3] * static_cast<double>((lastX0 + right) / 2) + h[4] * yd) + (h[5] + h[5]));
        if (last < least) least = last;
        if (!(least == least) || least <= 0.0f) return 0;  // NaN: assume any row
        return least >= static_cast<float>(quadRows) ? quadRows : static_cast<int>(least);
    }

    void warpRow(int y) {
        bool rowTracked = false;
        SpanWriter writer(y, src, dst, stride, table, fillGaps, std::max(static_cast<ll>(region.x), 0LL),
                          std::min(right, static_cast<ll>(quadCols)));
        if (planned && planner.planRow(h, y, runs, quadCols, quadRows)) {
            const unsigned char* state = planner.state.data();
            int i = 0;
            while (i < runs) {
                if (state[i] == kRunSkipped) {
                    ++i;
                    continue;
                }
                rowTracked = true;
                const int weight = planner.weight[i];
                const int s0 = planner.shift[i] + planner.x0[i];
                const WriteRange range = clipRun(planner.x0[i], planner.x1[i], s0, quadCols);
                writer.add(planner.r0[i], weight / 10, weight % 10, planner.shift[i], range.begin, range.end);
                // Runs that join this one only move the span's end.
                const int first = i++;
                while (i < runs && state[i] == kRunJoins) ++i;
                if (i - 1 > first) writer.extend(planner.x1[i - 1]);
            }
        } else {
            ll x0 = region.x, x1;
            do {
                x1 = std::min(x0 + kRunQuads, right);
                const RawRun run = planRunPlain(h, x0, x1, y, quadRows);
                if (!run.skipped) {
                    rowTracked = true;
                    const WriteRange range = clipRun(x0, x1, run.s0, quadCols);
                    writer.add(run.r0, run.fy, run.fx, run.s0 - x0, range.begin, range.end);
                }
                x0 = x1;
            } while (x1 < right);
        }
        writer.finishRow();
        if (rowTracked) {
            if (touchesTop && y < firstRow) firstRow = y;
            if (touchesBottom && y > lastRow) lastRow = y;
        }
    }
};

}  // namespace

namespace raw_warp_detail {

int warpPlain(Rect region, const double* h, int quadCols, int quadRows, int* reportedTop, int* reportedBottom,
              const short* srcRaw, short* dstRaw, int* topAcc, int* bottomAcc) {
    if (region.x == 0 && region.y == 0) {
        *topAcc = 0;
        *bottomAcc = quadRows - 1;
    }
    float table[10][10][4];
    buildBilinearTable(table);
    const std::size_t stride = 2 * static_cast<std::size_t>(std::max(quadCols, 0));
    const ll right = static_cast<ll>(region.x) + region.width;
    const ll bottomRow = static_cast<ll>(region.y) + region.height;
    int firstRow = quadRows - 1, lastRow = 0;
    for (ll yy = region.y; yy < bottomRow; ++yy) {
        const int y = static_cast<int>(yy);
        ll x0 = region.x, x1;
        do {
            x1 = std::min(x0 + kRunQuads, right);
            const RawRun run = planRunPlain(h, x0, x1, y, quadRows);
            if (!run.skipped) {
                const WriteRange range = clipRun(x0, x1, run.s0, quadCols);
                // Destination rows outside the frame have nowhere to go.
                for (ll x = range.begin; x < range.end && y >= 0 && y < quadRows; ++x) {
                    const ll s = run.s0 + (x - x0);
                    for (int dr = 0; dr < 2; ++dr) {
                        const short* top = srcRaw + (2 * static_cast<std::size_t>(run.r0) + dr) * stride;
                        const short* bottom = top + 2 * stride;
                        short* out = dstRaw + (2 * static_cast<std::size_t>(y) + dr) * stride;
                        for (int dc = 0; dc < 2; ++dc) {
                            const std::size_t left = static_cast<std::size_t>(2 * s + dc);
                            out[2 * x + dc] = blendSample(table[run.fy][run.fx], top[left], top[left + 2],
                                                          bottom[left], bottom[left + 2]);
                        }
                    }
                }
                if (region.y == 0 && y < firstRow) firstRow = y;
                if (bottomRow == quadRows && y > lastRow) lastRow = y;
            }
            x0 = x1;
        } while (x1 < right);
    }
    updateBounds(region, quadRows, firstRow, lastRow, reportedTop, reportedBottom, topAcc, bottomAcc);
    return 0;
}

int warpRuns(Rect region, const double* h, int quadCols, int quadRows, int* reportedTop, int* reportedBottom,
             const short* srcRaw, short* dstRaw, int* topAcc, int* bottomAcc, bool fillGaps) {
    if (region.x == 0 && region.y == 0) {
        *topAcc = 0;
        *bottomAcc = quadRows - 1;
    }
    CellWarp cell(region, h, quadCols, quadRows, srcRaw, dstRaw, fillGaps);
    for (ll y = cell.rowBegin; y < cell.rowEnd; ++y) cell.warpRow(static_cast<int>(y));
    updateBounds(region, quadRows, cell.firstRow, cell.lastRow, reportedTop, reportedBottom, topAcc, bottomAcc);
    return 0;
}

void clampToTenBits(const short* in, short* out, std::size_t count) { clampRows(in, out, count); }

int warpCellsByRows(const Rect* regions, const double* const* models, int cellCount, int quadCols, int quadRows,
                    int* reportedTop, int* reportedBottom, const short* srcRaw, short* dstRaw, int* topAcc,
                    int* bottomAcc, bool fillGaps, short* clampedCopy) {
    std::vector<CellWarp> cells;
    cells.reserve(static_cast<std::size_t>(std::max(cellCount, 0)));
    for (int c = 0; c < cellCount; ++c) cells.emplace_back(regions[c], models[c], quadCols, quadRows, srcRaw, dstRaw, fillGaps);
    std::vector<int> groupEnd;  // consecutive cells that share their rows form a group
    for (int c = 0; c < cellCount;) {
        int end = c + 1;
        while (end < cellCount && regions[end].y == regions[c].y && regions[end].height == regions[c].height) ++end;
        groupEnd.push_back(end);
        c = end;
    }

    // The clamped copy of a quad row is made as soon as no later row can read it
    // as a source, while the row is still in the cache; this needs the groups to
    // walk the rows of the frame in order. Otherwise it is made at the end.
    const std::size_t rowSamples = 4 * static_cast<std::size_t>(std::max(quadCols, 0));
    const int rows = std::max(quadRows, 0);
    std::vector<int> firstNeeded;  // per quad row: lowest source row read by it or any later row
    bool early = clampedCopy != nullptr;
    if (early) {
        firstNeeded.assign(static_cast<std::size_t>(rows) + 1, rows);
        ll expected = 0;
        for (int c = 0, g = 0; c < cellCount; c = groupEnd[g++]) {
            early = early && cells[c].rowBegin == expected;
            expected = cells[c].rowEnd;
            for (ll y = cells[c].rowBegin; y < cells[c].rowEnd; ++y)
                for (int k = c; k < groupEnd[g]; ++k)
                    firstNeeded[y] = std::min(firstNeeded[y], cells[k].lowestSourceRow(static_cast<int>(y)));
        }
        early = early && expected == rows;
        for (int y = rows - 1; y >= 0; --y) firstNeeded[y] = std::min(firstNeeded[y], firstNeeded[y + 1]);
    }
    int copied = 0;
    auto copyRowsBefore = [&](int end) {
        if (end <= copied) return;
        clampRows(dstRaw + static_cast<std::size_t>(copied) * rowSamples,
                  clampedCopy + static_cast<std::size_t>(copied) * rowSamples,
                  static_cast<std::size_t>(end - copied) * rowSamples);
        copied = end;
    };

    for (int c = 0, g = 0; c < cellCount; c = groupEnd[g++]) {
        for (ll y = cells[c].rowBegin; y < cells[c].rowEnd; ++y) {
            for (int k = c; k < groupEnd[g]; ++k) cells[k].warpRow(static_cast<int>(y));
            if (early) copyRowsBefore(std::min(static_cast<int>(y) + 1, firstNeeded[y + 1]));
        }
    }
    if (clampedCopy != nullptr) copyRowsBefore(rows);

    // The bounds as the calls one cell at a time leave them: they depend only on
    // each cell's first and last tracked rows, taken in cell order.
    for (int c = 0; c < cellCount; ++c) {
        if (regions[c].x == 0 && regions[c].y == 0) {
            *topAcc = 0;
            *bottomAcc = quadRows - 1;
        }
        updateBounds(regions[c], quadRows, cells[c].firstRow, cells[c].lastRow, reportedTop, reportedBottom, topAcc,
                     bottomAcc);
    }
    return 0;
}

}  // namespace raw_warp_detail

int qnWarpImgRaw(Rect region, Matrix model, int quadCols, int quadRows, int /*spare0*/, int /*spare1*/,
                 short* /*plane0*/, short* /*plane1*/, short* /*plane2*/, short* /*plane3*/, short* /*plane4*/,
                 short* /*plane5*/, short* /*plane6*/, short* /*plane7*/, int* reportedTop, int* reportedBottom,
                 short* srcRaw, short* dstRaw, int* topAcc, int* bottomAcc) {
    if (kUseFastPaths)
        return raw_warp_detail::warpRuns(region, model.data, quadCols, quadRows, reportedTop, reportedBottom, srcRaw,
                                         dstRaw, topAcc, bottomAcc, false);
    return raw_warp_detail::warpPlain(region, model.data, quadCols, quadRows, reportedTop, reportedBottom, srcRaw,
                                      dstRaw, topAcc, bottomAcc);
}

#include "registration/robust_merge.h"

#include <cmath>
#include <cstring>

#include "imgcore/simd_dispatch.h"
#include "registration/plane_resample.h"
#include "registration/robust_rows.h"

namespace registration_detail {

namespace {

// Weights are counted in fixed point so that their totals do not depend on the
// order of summation.
constexpr float kWeightUnit = 65536.0f;

int tileOfQuad(const TileGrid& grid, int qx, int qy) { return (qy / kTileQuads) * grid.tilesX + qx / kTileQuads; }

int siteBlack(const MergeSetup& s, int x, int y) { return s.black[(y & 1) * 2 + (x & 1)]; }

// The resampling's noise factor of every tile of a field.
std::vector<float> tileSpreads(const TileField& field) {
    std::vector<float> spreads(field.dx.size());
    for (size_t t = 0; t < spreads.size(); ++t) spreads[t] = tileShift(field, static_cast<int>(t)).spread;
    return spreads;
}

int32_t weightUnits(float w) { return static_cast<int32_t>(w * kWeightUnit); }
int32_t rejectedCount(float w) { return w < 0.5f ? 1 : 0; }

uint8_t weightMapValue(float weightSum, int mergedOthers) {
    const float share = mergedOthers > 0 ? weightSum / static_cast<float>(mergedOthers) : 0.0f;
    return static_cast<uint8_t>(static_cast<int>(share * 255.0f + 0.5f));
}

int mergedOthersOf(const std::vector<MergeFrame>& frames) {
    int n = 0;
    for (const MergeFrame& f : frames) n += f.merged ? 1 : 0;
    return n;
}

int32_t quadSignal(const MergeSetup& s, int qx, int qy) {
    int32_t sum = 0;
    for (int dy = 0; dy < 2; ++dy)
        for (int dx = 0; dx < 2; ++dx) {
            const int x = 2 * qx + dx, y = 2 * qy + dy;
            sum += signalAbove(s.reference[static_cast<size_t>(y) * s.width + x], siteBlack(s, x, y));
        }
    return sum;
}

// ---- The plain form: whole frames, every quantity from its definition. ----

// The expected sum over every quad's window: frame-independent.
std::vector<float> expectationsPlain(const MergeSetup& s) {
    const int qc = s.width / 2, qr = s.height / 2;
    std::vector<float> e(static_cast<size_t>(qc) * qr);
    for (int qy = 0; qy < qr; ++qy)
        for (int qx = 0; qx < qc; ++qx) {
            int32_t signal = 0, samples = 0;
            for (int y = std::max(qy - 1, 0); y <= std::min(qy + 1, qr - 1); ++y)
                for (int x = std::max(qx - 1, 0); x <= std::min(qx + 1, qc - 1); ++x) {
                    signal += quadSignal(s, x, y);
                    samples += 4;
                }
            e[static_cast<size_t>(qy) * qc + qx] = windowExpectation(signal, samples, s.noiseA, s.noiseB);
        }
    return e;
}

// The weights of one frame's quads.
std::vector<float> frameWeightsPlain(const MergeSetup& s, const TileGrid& grid, const TileField& field,
                                     const std::vector<float>& expected, const float* aligned,
                                     const unsigned char* valid) {
    const int width = s.width, qc = width / 2, qr = s.height / 2;
    const size_t quads = static_cast<size_t>(qc) * qr;
    std::vector<int32_t> d2(quads, 0);
    for (int qy = 0; qy < qr; ++qy)
        for (int qx = 0; qx < qc; ++qx) {
            const size_t q = static_cast<size_t>(qy) * qc + qx;
            if (!valid[q]) continue;
            for (int dy = 0; dy < 2; ++dy)
                for (int dx = 0; dx < 2; ++dx) {
                    const size_t i = static_cast<size_t>(2 * qy + dy) * width + 2 * qx + dx;
                    d2[q] += squaredDifference(aligned[i], s.reference[i]);
                }
        }
    const std::vector<float> spreads = tileSpreads(field);
    std::vector<float> w(quads, 0.0f), spread(quads, 0.0f);
    for (int qy = 0; qy < qr; ++qy)
        for (int qx = 0; qx < qc; ++qx) {
            const size_t q = static_cast<size_t>(qy) * qc + qx;
            if (!valid[q]) continue;
            int32_t sum = 0;
            for (int y = std::max(qy - 1, 0); y <= std::min(qy + 1, qr - 1); ++y)
                for (int x = std::max(qx - 1, 0); x <= std::min(qx + 1, qc - 1); ++x) sum += d2[static_cast<size_t>(y) * qc + x];
            w[q] = mergeWeight(sum, expected[q], spreads[static_cast<size_t>(tileOfQuad(grid, qx, qy))]);
        }
    for (int qy = 0; qy < qr; ++qy)
        for (int qx = 0; qx < qc; ++qx) {
            float m = 1.0f;
            for (int y = std::max(qy - 1, 0); y <= std::min(qy + 1, qr - 1); ++y)
                for (int x = std::max(qx - 1, 0); x <= std::min(qx + 1, qc - 1); ++x)
                    m = std::min(m, w[static_cast<size_t>(y) * qc + x]);
            spread[static_cast<size_t>(qy) * qc + qx] = m;
        }
    return spread;
}

}  // namespace

void robustMergePlain(const MergeSetup& s, std::vector<MergeFrame>& frames) {
    const int width = s.width, height = s.height, qc = width / 2, qr = height / 2;
    const TileGrid grid(width, height);
    const size_t samples = static_cast<size_t>(width) * height, quads = static_cast<size_t>(qc) * qr;
    std::vector<float> acc(samples), den(quads, 0.0f), aligned(samples), expected;
    std::vector<unsigned char> valid(quads);
    std::vector<std::vector<short>> writeBack(frames.size());
    if (s.output != nullptr) {
        for (size_t i = 0; i < samples; ++i) acc[i] = s.reference[i];
        expected = expectationsPlain(s);
    }
    for (size_t k = 0; k < frames.size(); ++k) {
        MergeFrame& f = frames[k];
        resampleRowsPlain(f.frame, width, height, grid, *f.field, 0, height, aligned.data(), valid.data());
        writeBack[k].resize(samples);
        for (size_t i = 0; i < samples; ++i) writeBack[k][i] = alignedSample(aligned[i]);
        if (!f.merged || s.output == nullptr) continue;
        const std::vector<float> w = frameWeightsPlain(s, grid, *f.field, expected, aligned.data(), valid.data());
        int64_t units = 0;
        for (size_t q = 0; q < quads; ++q) {
            units += weightUnits(w[q]);
            f.rejectedQuads += rejectedCount(w[q]);
            den[q] += w[q];
        }
        f.weightSum = static_cast<double>(units) / kWeightUnit;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const size_t i = static_cast<size_t>(y) * width + x;
                acc[i] += w[static_cast<size_t>(y / 2) * qc + x / 2] * aligned[i];
            }
    }
    for (size_t k = 0; k < frames.size(); ++k) std::memcpy(frames[k].frame, writeBack[k].data(), samples * sizeof(short));
    if (s.output == nullptr) return;
    const int mergedOthers = mergedOthersOf(frames);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const size_t i = static_cast<size_t>(y) * width + x;
            const float v = mergedValue(acc[i], den[static_cast<size_t>(y / 2) * qc + x / 2]);
            s.output[i] = finishSample(v, siteBlack(s, x, y), s.gain, s.outputBits);
        }
    if (s.weightMap != nullptr)
        for (size_t q = 0; q < quads; ++q) s.weightMap[q] = weightMapValue(den[q], mergedOthers);
}

// ---- The fast form: bands of tile rows, row kernels. ----

namespace {

// Rows above its first one that a band's computation can read in a frame: the
// halo of two quad rows, the frame's largest upward shift and the kernel's taps.
int readLag(const TileField& field) {
    int up = 0;
    for (size_t t = 0; t < field.dx.size(); ++t)
        if (field.valid[t]) up = std::max(up, -static_cast<int>(std::floor(field.dy[t])));
    return 4 + 2 * up + 2;
}

// Hands a frame's aligned rows back: a band's rows that no later band reads are
// written over the frame at once; its last rows (and any before them still
// waiting) wait in a ring until the next band has read its source rows.
class AlignedRows {
public:
    AlignedRows(short* frame, int width, int lag)
        : frame_(frame), width_(width), lag_(lag), capacity_(lag + 2 * kTileQuads),
          rows_(static_cast<size_t>(capacity_) * width) {}
    // Rows [begin, end) of the aligned frame (core: row begin), once the band has
    // been resampled.
    void bandDone(int begin, int end, const float* core, KernelIsa isa) {
        const int safe = end - lag_;
        flushBelow(std::min(begin, safe));
        for (int y = begin; y < end; ++y) {
            const float* a = core + static_cast<size_t>(y - begin) * width_;
            if (next_ == y && y < safe) {
                alignedRow(isa, a, frame_ + static_cast<size_t>(y) * width_, width_);
                ++next_;
            } else {
                alignedRow(isa, a, slot(y), width_);
            }
        }
    }
    void flushBelow(int row) {
        for (; next_ < row; ++next_)
            std::memcpy(frame_ + static_cast<size_t>(next_) * width_, slot(next_), static_cast<size_t>(width_) * sizeof(short));
    }

private:
    short* slot(int row) { return rows_.data() + static_cast<size_t>(row % capacity_) * width_; }
    short* frame_;
    int width_, lag_, capacity_;
    int next_ = 0;
    std::vector<short> rows_;
};

// Scratch rows of the band kernels.
struct BandScratch {
    std::vector<float> aligned, h, w, spread, minRows, acc, den, sampleWeights, denSamples, spreadRow, expected;
    std::vector<unsigned char> valid;
    std::vector<int32_t> d2, sumD2, rowD2[2], rowSignal[2], signal, samples, zeros;
    std::vector<unsigned char> ones;
    std::vector<int32_t> blackRow[2];  // the black level of every column, even and odd rows
};

// out[x] = the four samples of quad x of two rows, 0 where the quad has no data.
void pairSums(const int32_t* __restrict r0, const int32_t* __restrict r1, const unsigned char* __restrict valid, int qc,
              int32_t* __restrict out) {
    for (int x = 0; x < qc; ++x) {
        const int32_t sum = (r0[2 * x] + r0[2 * x + 1]) + (r1[2 * x] + r1[2 * x + 1]);
        out[x] = sum * static_cast<int32_t>(valid[x]);
    }
}

// 3-sums along each row of a rows x qc array (exact integers).
void rowSums3(const int32_t* in, int rows, int qc, int32_t* out) {
    for (int y = 0; y < rows; ++y) {
        const int32_t* i = in + static_cast<size_t>(y) * qc;
        int32_t* o = out + static_cast<size_t>(y) * qc;
        o[0] = i[0] + (qc > 1 ? i[1] : 0);
        for (int x = 1; x + 1 < qc; ++x) o[x] = (i[x - 1] + i[x]) + i[x + 1];
        if (qc > 1) o[qc - 1] = i[qc - 2] + i[qc - 1];
    }
}

// The three rows of a 3 x 3 window's vertical sum around quad row qy; beyond the
// frame a row of zeros.
void windowRows(const int32_t* sums, int first, int qy, int qr, int qc, const int32_t* zeros, const int32_t* rows[3]) {
    for (int k = 0; k < 3; ++k) {
        const int y = qy - 1 + k;
        rows[k] = y >= 0 && y < qr ? sums + static_cast<size_t>(y - first) * qc : zeros;
    }
}

// Expected window sums of quad rows [first, last), from quad rows [ha, hb).
void bandExpectations(const MergeSetup& s, int ha, int hb, int first, int last, BandScratch& b) {
    const int qc = s.width / 2, qr = s.height / 2;
    const size_t n = static_cast<size_t>(hb - ha) * qc;
    b.signal.resize(2 * n);
    b.samples.resize(2 * n);
    const int width = s.width;
    b.ones.assign(static_cast<size_t>(qc), 1);
    for (int dy = 0; dy < 2; ++dy) b.rowSignal[dy].resize(static_cast<size_t>(width));
    for (int qy = ha; qy < hb; ++qy) {
        for (int dy = 0; dy < 2; ++dy) {
            const short* r = s.reference + static_cast<size_t>(2 * qy + dy) * width;
            const int32_t* black = b.blackRow[dy].data();
            int32_t* g = b.rowSignal[dy].data();
            for (int x = 0; x < width; ++x) g[x] = signalAbove(r[x], black[x]);
        }
        pairSums(b.rowSignal[0].data(), b.rowSignal[1].data(), b.ones.data(), qc, b.signal.data() + static_cast<size_t>(qy - ha) * qc);
        std::fill(b.samples.begin() + static_cast<std::ptrdiff_t>(qy - ha) * qc,
                  b.samples.begin() + static_cast<std::ptrdiff_t>(qy - ha + 1) * qc, 4);
    }
    rowSums3(b.signal.data(), hb - ha, qc, b.signal.data() + n);
    rowSums3(b.samples.data(), hb - ha, qc, b.samples.data() + n);
    b.zeros.assign(static_cast<size_t>(qc), 0);
    b.expected.resize(static_cast<size_t>(last - first) * qc);
    for (int qy = first; qy < last; ++qy) {
        const int32_t *sr[3], *nr[3];
        windowRows(b.signal.data() + n, ha, qy, qr, qc, b.zeros.data(), sr);
        windowRows(b.samples.data() + n, ha, qy, qr, qc, b.zeros.data(), nr);
        float* e = b.expected.data() + static_cast<size_t>(qy - first) * qc;
        for (int x = 0; x < qc; ++x)
            e[x] = windowExpectation((sr[0][x] + sr[1][x]) + sr[2][x], (nr[0][x] + nr[1][x]) + nr[2][x], s.noiseA, s.noiseB);
    }
}

// Per-quad sums of squared differences of quad rows [first, last) (aligned rows
// from quad row `first`).
void differenceRows(const MergeSetup& s, const float* aligned, const unsigned char* valid, int first, int last,
                    KernelIsa isa, BandScratch& b) {
    const int width = s.width, qc = width / 2;
    b.d2.resize(static_cast<size_t>(last - first) * qc);
    for (int dy = 0; dy < 2; ++dy) b.rowD2[dy].resize(static_cast<size_t>(width));
    for (int qy = first; qy < last; ++qy) {
        for (int dy = 0; dy < 2; ++dy)
            squaredDifferenceRow(isa, aligned + static_cast<size_t>(2 * (qy - first) + dy) * width,
                                 s.reference + static_cast<size_t>(2 * qy + dy) * width, b.rowD2[dy].data(), width);
        const size_t row = static_cast<size_t>(qy - first) * qc;
        pairSums(b.rowD2[0].data(), b.rowD2[1].data(), valid + row, qc, b.d2.data() + row);
    }
}

// Weights of quad rows [first, last) (differences from quad row statFirst, validity
// from validFirst, expectations from first).
void windowWeightsRows(const MergeSetup& s, const TileGrid& grid, const std::vector<float>& spreads,
                       const unsigned char* valid, int validFirst, int statFirst, int statLast, int first, int last,
                       KernelIsa isa, BandScratch& b) {
    const int qc = s.width / 2, qr = s.height / 2;
    b.sumD2.resize(b.d2.size());
    rowSums3(b.d2.data(), statLast - statFirst, qc, b.sumD2.data());
    b.w.resize(static_cast<size_t>(last - first) * qc);
    b.spreadRow.resize(static_cast<size_t>(qc));
    for (int qy = first; qy < last; ++qy) {
        const float* tileRow = spreads.data() + static_cast<size_t>(qy / kTileQuads) * grid.tilesX;
        for (int x = 0; x < qc; ++x) b.spreadRow[static_cast<size_t>(x)] = tileRow[x / kTileQuads];
        const int32_t* rows[3];
        windowRows(b.sumD2.data(), statFirst, qy, qr, qc, b.zeros.data(), rows);
        weightRow(isa, rows[0], rows[1], rows[2], b.expected.data() + static_cast<size_t>(qy - first) * qc,
                  b.spreadRow.data(), valid + static_cast<size_t>(qy - validFirst) * qc,
                  b.w.data() + static_cast<size_t>(qy - first) * qc, qc);
    }
}

// The smallest weight of the 3 x 3 quads around each quad of rows [first, last),
// from the weights of rows [wFirst, wLast): a minimum of row minima.
void spreadRejectionRows(int qc, int qr, int wFirst, int wLast, int first, int last, BandScratch& b) {
    b.minRows.resize(static_cast<size_t>(wLast - wFirst) * qc);
    for (int y = 0; y < wLast - wFirst; ++y) {
        const float* in = b.w.data() + static_cast<size_t>(y) * qc;
        float* h = b.minRows.data() + static_cast<size_t>(y) * qc;
        h[0] = qc > 1 ? std::min(in[0], in[1]) : in[0];
        for (int x = 1; x + 1 < qc; ++x) h[x] = std::min(std::min(in[x - 1], in[x]), in[x + 1]);
        if (qc > 1) h[qc - 1] = std::min(in[qc - 2], in[qc - 1]);
    }
    b.spread.resize(static_cast<size_t>(last - first) * qc);
    for (int qy = first; qy < last; ++qy) {
        const int ya = std::max(qy - 1, 0), yb = std::min(qy + 1, qr - 1);
        float* o = b.spread.data() + static_cast<size_t>(qy - first) * qc;
        const float* h = b.minRows.data() + static_cast<size_t>(ya - wFirst) * qc;
        for (int x = 0; x < qc; ++x) o[x] = std::min(h[x], 1.0f);
        for (int y = ya + 1; y <= yb; ++y) {
            h = b.minRows.data() + static_cast<size_t>(y - wFirst) * qc;
            for (int x = 0; x < qc; ++x) o[x] = std::min(o[x], h[x]);
        }
    }
}

// Adds a frame's weighted samples of quad rows [first, last) to the band's
// accumulators (acc from raw row 2 * first, den from quad row first).
void accumulateRows(const MergeSetup& s, const float* aligned, int first, int last, MergeFrame& f, int64_t& units,
                    KernelIsa isa, BandScratch& b) {
    const int width = s.width, qc = width / 2;
    b.sampleWeights.resize(static_cast<size_t>(width));
    float* sw = b.sampleWeights.data();
    for (int qy = first; qy < last; ++qy) {
        const float* w = b.spread.data() + static_cast<size_t>(qy - first) * qc;
        float* den = b.den.data() + static_cast<size_t>(qy - first) * qc;
        int64_t rowUnits = 0;
        int32_t rejected = 0;
        for (int x = 0; x < qc; ++x) {
            rowUnits += weightUnits(w[x]);
            rejected += rejectedCount(w[x]);
            den[x] += w[x];
        }
        for (int x = 0; x < qc; ++x) {
            sw[2 * x] = w[x];
            sw[2 * x + 1] = w[x];
        }
        units += rowUnits;
        f.rejectedQuads += rejected;
        for (int dy = 0; dy < 2; ++dy) {
            const size_t r = static_cast<size_t>(2 * (qy - first) + dy) * width;
            accumulateRow(isa, b.acc.data() + r, sw, aligned + r, width);
        }
    }
}

void finishBand(const MergeSetup& s, int first, int last, int mergedOthers, KernelIsa isa, BandScratch& b) {
    const int width = s.width, qc = width / 2;
    b.denSamples.resize(static_cast<size_t>(width));
    for (int qy = first; qy < last; ++qy) {
        const float* den = b.den.data() + static_cast<size_t>(qy - first) * qc;
        for (int x = 0; x < qc; ++x) {
            b.denSamples[static_cast<size_t>(2 * x)] = den[x];
            b.denSamples[static_cast<size_t>(2 * x + 1)] = den[x];
        }
        for (int y = 2 * qy; y < 2 * qy + 2; ++y)
            finishRow(isa, b.acc.data() + static_cast<size_t>(y - 2 * first) * width, b.denSamples.data(),
                      b.blackRow[y & 1].data(), s.output + static_cast<size_t>(y) * width, width, s.gain, s.outputBits);
    }
    if (s.weightMap == nullptr) return;
    for (int qy = first; qy < last; ++qy)
        for (int qx = 0; qx < qc; ++qx)
            s.weightMap[static_cast<size_t>(qy) * qc + qx] =
                weightMapValue(b.den[static_cast<size_t>(qy - first) * qc + qx], mergedOthers);
}

}  // namespace

void robustMergeFast(const MergeSetup& s, std::vector<MergeFrame>& frames) {
    const int width = s.width, height = s.height, qc = width / 2, qr = height / 2;
    const TileGrid grid(width, height);
    const KernelIsa isa = activeKernelIsa();
    const int mergedOthers = mergedOthersOf(frames);
    std::vector<AlignedRows> pending;
    std::vector<std::vector<float>> spreads;
    std::vector<int64_t> units(frames.size(), 0);
    pending.reserve(frames.size());
    for (MergeFrame& f : frames) {
        pending.emplace_back(f.frame, width, readLag(*f.field));
        spreads.push_back(tileSpreads(*f.field));
    }
    BandScratch b;
    for (int dy = 0; dy < 2; ++dy) {
        b.blackRow[dy].resize(static_cast<size_t>(width));
        for (int x = 0; x < width; ++x) b.blackRow[dy][static_cast<size_t>(x)] = siteBlack(s, x, dy);
    }
    for (int ty = 0; ty < grid.tilesY; ++ty) {
        const int qa = grid.y0(ty), qb = grid.y1(ty);
        // Aligned rows with a halo of two quad rows: one for the window sums, one
        // for the spreading of rejection.
        const int ha = std::max(qa - 2, 0), hb = std::min(qb + 2, qr);
        const int wa = std::max(qa - 1, 0), wb = std::min(qb + 1, qr);
        b.aligned.resize(static_cast<size_t>(2 * (hb - ha)) * width);
        b.valid.resize(static_cast<size_t>(hb - ha) * qc);
        if (s.output != nullptr) {
            b.acc.resize(static_cast<size_t>(2 * (qb - qa)) * width);
            const short* r = s.reference + static_cast<size_t>(2 * qa) * width;
            for (size_t i = 0; i < b.acc.size(); ++i) b.acc[i] = r[i];
            b.den.assign(static_cast<size_t>(qb - qa) * qc, 0.0f);
            bandExpectations(s, ha, hb, wa, wb, b);
        }
        for (size_t k = 0; k < frames.size(); ++k) {
            MergeFrame& f = frames[k];
            resampleRowsFast(f.frame, width, height, grid, *f.field, 2 * ha, 2 * hb, b.aligned.data(), b.valid.data(),
                             b.h);
            if (f.merged && s.output != nullptr) {
                differenceRows(s, b.aligned.data(), b.valid.data(), ha, hb, isa, b);
                windowWeightsRows(s, grid, spreads[k], b.valid.data(), ha, ha, hb, wa, wb, isa, b);
                spreadRejectionRows(qc, qr, wa, wb, qa, qb, b);
                accumulateRows(s, b.aligned.data() + static_cast<size_t>(2 * (qa - ha)) * width, qa, qb, f, units[k],
                               isa, b);
            }
            pending[k].bandDone(2 * qa, 2 * qb, b.aligned.data() + static_cast<size_t>(2 * (qa - ha)) * width, isa);
        }
        if (s.output != nullptr) finishBand(s, qa, qb, mergedOthers, isa, b);
    }
    for (size_t k = 0; k < frames.size(); ++k) {
        pending[k].flushBelow(height);
        frames[k].weightSum = static_cast<double>(units[k]) / kWeightUnit;
    }
}

}  // namespace registration_detail

#include "registration/robust_merge.h"

#include <cmath>
#include <cstring>

#include "imgcore/simd_dispatch.h"
#include "imgcore/worker_pool.h"
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
    // Quads without data take no part in the spreading of rejection (they are not
    // rejections) and get weight 0 at the end.
    std::vector<float> w(quads, 1.0f), spread(quads, 0.0f);
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
            spread[static_cast<size_t>(qy) * qc + qx] = valid[static_cast<size_t>(qy) * qc + qx] ? m : 0.0f;
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
            f.rejectedQuads += rejectedCount(w[q]) * valid[q];
            f.dataQuads += valid[q];
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

// ---- The fast form: bands of tile rows, row kernels, frames on workers. ----

namespace {

// Tile rows per band: the halos of a band cost less the taller it is.
constexpr int kBandTiles = 1;

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
        : frame_(frame), width_(width), lag_(lag), capacity_(lag + 2 * kTileQuads * kBandTiles),
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
    // Columns [x0, x1) of row y into its slot, to be written back by flushBelow.
    void putColumns(int y, int x0, int x1, const float* aligned, KernelIsa isa) {
        alignedRow(isa, aligned, slot(y) + x0, x1 - x0);
    }
    // After every strip of the band ending at `end` has put its columns.
    void stripsDone(int end) { flushBelow(end - lag_); }
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

// One band's geometry: core quad rows [qa, qb), with the halos the window sums
// ([wa, wb)) and the spreading of rejection ([ha, hb)) need.
struct Band {
    int qa, qb, wa, wb, ha, hb;
};

// A strip of quad columns of every band: core columns [sa, sb), computed over
// [ea, eb), a halo of two quads on each side inside the frame. Its rows are arrays
// of ew = eb - ea quads from column ea.
struct Strip {
    int sa, sb, ea, eb;
    int ew() const { return eb - ea; }
};

// Scratch of one strip, and its share of every frame's counts.
struct StripScratch {
    std::vector<float> aligned, h, w, minRows, weights, spreadRow, expected, acc, den, sampleWeights, denSamples;
    std::vector<unsigned char> valid, ones;
    std::vector<int32_t> d2, sumD2, rowD2[2], rowSignal[2], signal, samples, zeros;
    std::vector<int32_t> blackRow[2];  // the black level of every column of the strip, even and odd rows
    std::vector<int64_t> units, rejected, data;
};

// out[x] = the four samples of quad x of two rows, 0 where the quad has no data.
void pairSums(const int32_t* __restrict r0, const int32_t* __restrict r1, const unsigned char* __restrict valid, int n,
              int32_t* __restrict out) {
    for (int x = 0; x < n; ++x) {
        const int32_t sum = (r0[2 * x] + r0[2 * x + 1]) + (r1[2 * x] + r1[2 * x + 1]);
        out[x] = sum * static_cast<int32_t>(valid[x]);
    }
}

// 3-sums along each row of a rows x n array (exact integers). The two end columns
// lack a neighbour, which is right where they are the frame's edge and unused
// where they are a strip's.
void rowSums3(const int32_t* in, int rows, int n, int32_t* out) {
    for (int y = 0; y < rows; ++y) {
        const int32_t* i = in + static_cast<size_t>(y) * n;
        int32_t* o = out + static_cast<size_t>(y) * n;
        o[0] = i[0] + (n > 1 ? i[1] : 0);
        for (int x = 1; x + 1 < n; ++x) o[x] = (i[x - 1] + i[x]) + i[x + 1];
        if (n > 1) o[n - 1] = i[n - 2] + i[n - 1];
    }
}

// The three rows of a 3 x 3 window's vertical sum around quad row qy; beyond the
// frame a row of zeros.
void windowRows(const int32_t* sums, int first, int qy, int qr, int n, const int32_t* zeros, const int32_t* rows[3]) {
    for (int k = 0; k < 3; ++k) {
        const int y = qy - 1 + k;
        rows[k] = y >= 0 && y < qr ? sums + static_cast<size_t>(y - first) * n : zeros;
    }
}

// Expected window sums of the band's quad rows [wa, wb) over the strip.
void stripExpectations(const MergeSetup& s, const Band& band, const Strip& strip, StripScratch& b) {
    const int width = s.width, qr = s.height / 2, n = strip.ew();
    const size_t cells = static_cast<size_t>(band.hb - band.ha) * n;
    b.signal.resize(2 * cells);
    b.samples.resize(2 * cells);
    for (int qy = band.ha; qy < band.hb; ++qy) {
        for (int dy = 0; dy < 2; ++dy) {
            const short* r = s.reference + static_cast<size_t>(2 * qy + dy) * width + 2 * strip.ea;
            const int32_t* black = b.blackRow[dy].data();
            int32_t* g = b.rowSignal[dy].data();
            for (int x = 0; x < 2 * n; ++x) g[x] = signalAbove(r[x], black[x]);
        }
        pairSums(b.rowSignal[0].data(), b.rowSignal[1].data(), b.ones.data(), n,
                 b.signal.data() + static_cast<size_t>(qy - band.ha) * n);
        std::fill(b.samples.begin() + static_cast<std::ptrdiff_t>(qy - band.ha) * n,
                  b.samples.begin() + static_cast<std::ptrdiff_t>(qy - band.ha + 1) * n, 4);
    }
    rowSums3(b.signal.data(), band.hb - band.ha, n, b.signal.data() + cells);
    rowSums3(b.samples.data(), band.hb - band.ha, n, b.samples.data() + cells);
    b.expected.resize(static_cast<size_t>(band.wb - band.wa) * n);
    for (int qy = band.wa; qy < band.wb; ++qy) {
        const int32_t *sr[3], *nr[3];
        windowRows(b.signal.data() + cells, band.ha, qy, qr, n, b.zeros.data(), sr);
        windowRows(b.samples.data() + cells, band.ha, qy, qr, n, b.zeros.data(), nr);
        float* e = b.expected.data() + static_cast<size_t>(qy - band.wa) * n;
        for (int x = 0; x < n; ++x)
            e[x] = windowExpectation((sr[0][x] + sr[1][x]) + sr[2][x], (nr[0][x] + nr[1][x]) + nr[2][x], s.noiseA,
                                     s.noiseB);
    }
}

// Per-quad sums of squared differences of the band's quad rows [ha, hb).
void differenceRows(const MergeSetup& s, const Band& band, const Strip& strip, KernelIsa isa, StripScratch& b) {
    const int width = s.width, n = strip.ew();
    b.d2.resize(static_cast<size_t>(band.hb - band.ha) * n);
    for (int qy = band.ha; qy < band.hb; ++qy) {
        for (int dy = 0; dy < 2; ++dy)
            squaredDifferenceRow(isa, b.aligned.data() + static_cast<size_t>(2 * (qy - band.ha) + dy) * (2 * n),
                                 s.reference + static_cast<size_t>(2 * qy + dy) * width + 2 * strip.ea,
                                 b.rowD2[dy].data(), 2 * n);
        const size_t row = static_cast<size_t>(qy - band.ha) * n;
        pairSums(b.rowD2[0].data(), b.rowD2[1].data(), b.valid.data() + row, n, b.d2.data() + row);
    }
}

// Weights of the band's quad rows [wa, wb).
void windowWeightsRows(const MergeSetup& s, const TileGrid& grid, const std::vector<float>& spreads, const Band& band,
                       const Strip& strip, KernelIsa isa, StripScratch& b) {
    const int qr = s.height / 2, n = strip.ew();
    b.sumD2.resize(b.d2.size());
    rowSums3(b.d2.data(), band.hb - band.ha, n, b.sumD2.data());
    b.w.resize(static_cast<size_t>(band.wb - band.wa) * n);
    for (int qy = band.wa; qy < band.wb; ++qy) {
        const float* tileRow = spreads.data() + static_cast<size_t>(qy / kTileQuads) * grid.tilesX;
        for (int x = 0; x < n; ++x) b.spreadRow[static_cast<size_t>(x)] = tileRow[(strip.ea + x) / kTileQuads];
        const int32_t* rows[3];
        windowRows(b.sumD2.data(), band.ha, qy, qr, n, b.zeros.data(), rows);
        weightRow(isa, rows[0], rows[1], rows[2], b.expected.data() + static_cast<size_t>(qy - band.wa) * n,
                  b.spreadRow.data(), b.valid.data() + static_cast<size_t>(qy - band.ha) * n,
                  b.w.data() + static_cast<size_t>(qy - band.wa) * n, n);
    }
}

// The smallest weight of the 3 x 3 quads around each quad of the band's core rows
// (a minimum of row minima).
void spreadRejectionRows(int qr, const Band& band, const Strip& strip, StripScratch& b) {
    const int n = strip.ew();
    b.minRows.resize(static_cast<size_t>(band.wb - band.wa) * n);
    for (int y = 0; y < band.wb - band.wa; ++y) {
        const float* in = b.w.data() + static_cast<size_t>(y) * n;
        float* h = b.minRows.data() + static_cast<size_t>(y) * n;
        h[0] = n > 1 ? std::min(in[0], in[1]) : in[0];
        for (int x = 1; x + 1 < n; ++x) h[x] = std::min(std::min(in[x - 1], in[x]), in[x + 1]);
        if (n > 1) h[n - 1] = std::min(in[n - 2], in[n - 1]);
    }
    b.weights.resize(static_cast<size_t>(band.qb - band.qa) * n);
    for (int qy = band.qa; qy < band.qb; ++qy) {
        const int ya = std::max(qy - 1, 0), yb = std::min(qy + 1, qr - 1);
        float* o = b.weights.data() + static_cast<size_t>(qy - band.qa) * n;
        const float* h = b.minRows.data() + static_cast<size_t>(ya - band.wa) * n;
        for (int x = 0; x < n; ++x) o[x] = std::min(h[x], 1.0f);
        for (int y = ya + 1; y <= yb; ++y) {
            h = b.minRows.data() + static_cast<size_t>(y - band.wa) * n;
            for (int x = 0; x < n; ++x) o[x] = std::min(o[x], h[x]);
        }
        const unsigned char* v = b.valid.data() + static_cast<size_t>(qy - band.ha) * n;
        for (int x = 0; x < n; ++x) o[x] = v[x] ? o[x] : 0.0f;
    }
}

// Adds a frame's weighted samples of the band's core rows to the strip's
// accumulators and counts its weights over the core columns.
void accumulateRows(const MergeSetup& s, const Band& band, const Strip& strip, size_t frame, KernelIsa isa,
                    StripScratch& b) {
    const int n = strip.ew(), core0 = strip.sa - strip.ea, core1 = strip.sb - strip.ea;
    (void)s;
    float* sw = b.sampleWeights.data();
    int64_t units = 0, rejected = 0, data = 0;
    for (int qy = band.qa; qy < band.qb; ++qy) {
        const float* w = b.weights.data() + static_cast<size_t>(qy - band.qa) * n;
        const unsigned char* v = b.valid.data() + static_cast<size_t>(qy - band.ha) * n;
        float* den = b.den.data() + static_cast<size_t>(qy - band.qa) * n;
        int64_t rowUnits = 0;
        int32_t rowRejected = 0, rowData = 0;
        for (int x = core0; x < core1; ++x) {
            rowUnits += weightUnits(w[x]);
            rowRejected += rejectedCount(w[x]) * v[x];
            rowData += v[x];
        }
        units += rowUnits;
        rejected += rowRejected;
        data += rowData;
        for (int x = 0; x < n; ++x) den[x] += w[x];
        for (int x = 0; x < n; ++x) {
            sw[2 * x] = w[x];
            sw[2 * x + 1] = w[x];
        }
        for (int dy = 0; dy < 2; ++dy) {
            const size_t r = static_cast<size_t>(2 * (qy - band.qa) + dy) * (2 * n);
            accumulateRow(isa, b.acc.data() + r, sw,
                          b.aligned.data() + static_cast<size_t>(2 * (band.qa - band.ha)) * (2 * n) + r, 2 * n);
        }
    }
    b.units[frame] += units;
    b.rejected[frame] += rejected;
    b.data[frame] += data;
}

// The output of the strip's core columns of the band, and their weight map.
void finishStrip(const MergeSetup& s, const Band& band, const Strip& strip, int mergedOthers, KernelIsa isa,
                 StripScratch& b) {
    const int width = s.width, qc = width / 2, n = strip.ew(), core0 = strip.sa - strip.ea;
    const int cols = 2 * (strip.sb - strip.sa);
    for (int qy = band.qa; qy < band.qb; ++qy) {
        const float* den = b.den.data() + static_cast<size_t>(qy - band.qa) * n;
        for (int x = 0; x < n; ++x) {
            b.denSamples[static_cast<size_t>(2 * x)] = den[x];
            b.denSamples[static_cast<size_t>(2 * x + 1)] = den[x];
        }
        for (int y = 2 * qy; y < 2 * qy + 2; ++y)
            finishRow(isa, b.acc.data() + static_cast<size_t>(y - 2 * band.qa) * (2 * n) + 2 * core0,
                      b.denSamples.data() + 2 * core0, b.blackRow[y & 1].data() + 2 * core0,
                      s.output + static_cast<size_t>(y) * width + 2 * strip.sa, cols, s.gain, s.outputBits);
    }
    if (s.weightMap == nullptr) return;
    for (int qy = band.qa; qy < band.qb; ++qy)
        for (int qx = strip.sa; qx < strip.sb; ++qx)
            s.weightMap[static_cast<size_t>(qy) * qc + qx] =
                weightMapValue(b.den[static_cast<size_t>(qy - band.qa) * n + (qx - strip.ea)], mergedOthers);
}

}  // namespace

void robustMergeFast(const MergeSetup& s, std::vector<MergeFrame>& frames) {
    const int width = s.width, height = s.height, qc = width / 2, qr = height / 2;
    const TileGrid grid(width, height);
    const KernelIsa isa = activeKernelIsa();
    const int mergedOthers = mergedOthersOf(frames);
    std::vector<AlignedRows> pending;
    std::vector<std::vector<float>> spreads;
    pending.reserve(frames.size());
    for (MergeFrame& f : frames) {
        pending.emplace_back(f.frame, width, readLag(*f.field));
        spreads.push_back(tileSpreads(*f.field));
    }
    // One strip per worker, of whole tile columns.
    WorkerPool workers(std::max(1, std::min(s.workers, grid.tilesX)));
    const int stripCount = workers.count();
    std::vector<Strip> strips(static_cast<size_t>(stripCount));
    std::vector<StripScratch> scratch(strips.size());
    for (int i = 0; i < stripCount; ++i) {
        Strip& st = strips[static_cast<size_t>(i)];
        st.sa = std::min(qc, grid.tilesX * i / stripCount * kTileQuads);
        st.sb = std::min(qc, grid.tilesX * (i + 1) / stripCount * kTileQuads);
        st.ea = std::max(st.sa - 2, 0);
        st.eb = std::min(st.sb + 2, qc);
        StripScratch& b = scratch[static_cast<size_t>(i)];
        const int n = st.ew();
        for (int dy = 0; dy < 2; ++dy) {
            b.blackRow[dy].resize(static_cast<size_t>(2 * n));
            for (int x = 0; x < 2 * n; ++x) b.blackRow[dy][static_cast<size_t>(x)] = siteBlack(s, 2 * st.ea + x, dy);
            b.rowD2[dy].resize(static_cast<size_t>(2 * n));
            b.rowSignal[dy].resize(static_cast<size_t>(2 * n));
        }
        b.ones.assign(static_cast<size_t>(n), 1);
        b.zeros.assign(static_cast<size_t>(n), 0);
        b.spreadRow.resize(static_cast<size_t>(n));
        b.sampleWeights.resize(static_cast<size_t>(2 * n));
        b.denSamples.resize(static_cast<size_t>(2 * n));
        b.units.assign(frames.size(), 0);
        b.rejected.assign(frames.size(), 0);
        b.data.assign(frames.size(), 0);
    }
    const bool oneStrip = stripCount == 1;
    for (int ty = 0; ty < grid.tilesY; ty += kBandTiles) {
        Band band;
        band.qa = grid.y0(ty);
        band.qb = grid.y1(std::min(ty + kBandTiles, grid.tilesY) - 1);
        band.wa = std::max(band.qa - 1, 0);
        band.wb = std::min(band.qb + 1, qr);
        band.ha = std::max(band.qa - 2, 0);
        band.hb = std::min(band.qb + 2, qr);
        workers.run(stripCount, [&](int, int i) {
            const Strip& st = strips[static_cast<size_t>(i)];
            StripScratch& b = scratch[static_cast<size_t>(i)];
            const int n = st.ew();
            b.aligned.resize(static_cast<size_t>(2 * (band.hb - band.ha)) * (2 * n));
            b.valid.resize(static_cast<size_t>(band.hb - band.ha) * n);
            if (s.output != nullptr) {
                stripExpectations(s, band, st, b);
                b.acc.resize(static_cast<size_t>(2 * (band.qb - band.qa)) * (2 * n));
                for (int y = 2 * band.qa; y < 2 * band.qb; ++y) {
                    const short* r = s.reference + static_cast<size_t>(y) * width + 2 * st.ea;
                    float* a = b.acc.data() + static_cast<size_t>(y - 2 * band.qa) * (2 * n);
                    for (int x = 0; x < 2 * n; ++x) a[x] = r[x];
                }
                b.den.assign(static_cast<size_t>(band.qb - band.qa) * n, 0.0f);
            }
            for (size_t k = 0; k < frames.size(); ++k) {
                const MergeFrame& f = frames[k];
                resampleRowsFast(f.frame, width, height, grid, *f.field, 2 * band.ha, 2 * band.hb, st.ea, st.eb,
                                 b.aligned.data(), b.valid.data(), b.h);
                if (f.merged && s.output != nullptr) {
                    differenceRows(s, band, st, isa, b);
                    windowWeightsRows(s, grid, spreads[k], band, st, isa, b);
                    spreadRejectionRows(qr, band, st, b);
                    accumulateRows(s, band, st, k, isa, b);
                }
                const float* core = b.aligned.data() + static_cast<size_t>(2 * (band.qa - band.ha)) * (2 * n);
                if (oneStrip) {
                    pending[k].bandDone(2 * band.qa, 2 * band.qb, core, isa);
                } else {
                    for (int y = 2 * band.qa; y < 2 * band.qb; ++y)
                        pending[k].putColumns(y, 2 * st.sa, 2 * st.sb,
                                              core + static_cast<size_t>(y - 2 * band.qa) * (2 * n) + 2 * (st.sa - st.ea),
                                              isa);
                }
            }
            if (s.output != nullptr) finishStrip(s, band, st, mergedOthers, isa, b);
        });
        if (!oneStrip)
            workers.run(static_cast<int>(pending.size()), [&](int, int k) { pending[static_cast<size_t>(k)].stripsDone(2 * band.qb); });
    }
    for (size_t k = 0; k < frames.size(); ++k) {
        pending[k].flushBelow(height);
        int64_t units = 0;
        for (StripScratch& b : scratch) {
            units += b.units[k];
            frames[k].rejectedQuads += b.rejected[k];
            frames[k].dataQuads += b.data[k];
        }
        frames[k].weightSum = static_cast<double>(units) / kWeightUnit;
    }
}

}  // namespace registration_detail

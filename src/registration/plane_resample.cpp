#include "registration/plane_resample.h"

#include <cmath>
#include <cstring>

#include "imgcore/fast_paths.h"
#include "imgcore/simd_dispatch.h"
#include "registration/cubic_kernel.h"
#include "registration/robust_rows.h"

namespace registration_detail {

TileShift tileShift(const TileField& field, int tile) {
    TileShift s;
    const double fx = std::floor(field.dx[static_cast<size_t>(tile)]);
    const double fy = std::floor(field.dy[static_cast<size_t>(tile)]);
    s.nx = static_cast<int>(fx);
    s.ny = static_cast<int>(fy);
    const float tx = static_cast<float>(field.dx[static_cast<size_t>(tile)] - fx);
    const float ty = static_cast<float>(field.dy[static_cast<size_t>(tile)] - fy);
    s.cubic = field.detailed.empty() || field.detailed[static_cast<size_t>(tile)];
    if (s.cubic) {
        cubicWeights(tx, s.wx);
        cubicWeights(ty, s.wy);
    } else {
        linearWeights(tx, s.wx);
        linearWeights(ty, s.wy);
    }
    float sx = 0.0f, sy = 0.0f;
    for (int k = 0; k < 4; ++k) {
        sx += s.wx[k] * s.wx[k];
        sy += s.wy[k] * s.wy[k];
    }
    s.spread = sx * sy;
    return s;
}

namespace {

// Whether a quad of a tile with whole shift (nx, ny) has every tap inside the frame.
inline bool quadHasSource(int qx, int qy, int nx, int ny, int quadCols, int quadRows) {
    const int sx = qx + nx, sy = qy + ny;
    return sx >= 1 && sx <= quadCols - 3 && sy >= 1 && sy <= quadRows - 3;
}

}  // namespace

void resampleRowsPlain(const short* frame, int width, int height, const TileGrid& grid, const TileField& field,
                       int rowBegin, int rowEnd, float* out, unsigned char* quadValid) {
    const int qc = width / 2, qr = height / 2;
    for (int y = rowBegin; y < rowEnd; ++y) {
        for (int x = 0; x < width; ++x) {
            const int qx = x / 2, qy = y / 2;
            const int tile = (qy / kTileQuads) * grid.tilesX + qx / kTileQuads;
            const TileShift s = tileShift(field, tile);
            const bool valid = field.valid[static_cast<size_t>(tile)] && quadHasSource(qx, qy, s.nx, s.ny, qc, qr);
            if (y % 2 == 0 && x % 2 == 0) quadValid[static_cast<size_t>((y - rowBegin) / 2) * qc + qx] = valid ? 1 : 0;
            float value = 0.0f;
            if (valid) {
                float h[4];
                for (int j = 0; j < 4; ++j) {
                    const short* row = frame + static_cast<size_t>(y + 2 * s.ny + 2 * (j - 1)) * width;
                    const int c = x + 2 * s.nx;
                    h[j] = s.cubic ? cubicTaps(s.wx, row[c - 2], row[c], row[c + 2], row[c + 4])
                                   : linearTaps(s.wx, row[c], row[c + 2]);
                }
                value = s.cubic ? cubicTaps(s.wy, h[0], h[1], h[2], h[3]) : linearTaps(s.wy, h[1], h[2]);
            }
            out[static_cast<size_t>(y - rowBegin) * width + x] = value;
        }
    }
}

namespace {

// One tile's part of a fast resampling: its quads with a source, [ua, ub) x
// [va, vb), and the source rows they read.
struct TileJob {
    TileShift shift;
    int ua, ub, va, vb;
    int srcFirst, srcLast;
    bool full;  // every quad of the tile's rows has a source
};

}  // namespace

void resampleRowsFast(const short* frame, int width, int height, const TileGrid& grid, const TileField& field,
                      int rowBegin, int rowEnd, int colBegin, int colEnd, float* out, unsigned char* quadValid,
                      std::vector<float>& h) {
    const int qc = width / 2, qr = height / 2;
    const int cw = colEnd - colBegin, stride = 2 * cw;
    const KernelIsa isa = activeKernelIsa();
    const int quadBegin = rowBegin / 2, quadEnd = rowEnd / 2;
    std::vector<TileJob> jobs;
    for (int ty = quadBegin / kTileQuads; ty * kTileQuads < quadEnd; ++ty) {
        const int qa = std::max(quadBegin, grid.y0(ty)), qb = std::min(quadEnd, grid.y1(ty));
        for (int tx = colBegin / kTileQuads; tx * kTileQuads < colEnd; ++tx) {
            const int tile = ty * grid.tilesX + tx;
            const TileShift s = tileShift(field, tile);
            const int x0 = std::max(grid.x0(tx), colBegin), x1 = std::min(grid.x1(tx), colEnd);
            int ua = std::max(x0, 1 - s.nx), ub = std::min(x1, qc - 2 - s.nx);
            int va = std::max(qa, 1 - s.ny), vb = std::min(qb, qr - 2 - s.ny);
            if (!field.valid[static_cast<size_t>(tile)] || ua >= ub || va >= vb) ua = ub = x0, va = vb = qa;
            for (int qy = qa; qy < qb; ++qy) {
                unsigned char* v = quadValid + static_cast<size_t>(qy - quadBegin) * cw;
                const bool rowHas = qy >= va && qy < vb;
                std::fill(v + (x0 - colBegin), v + (x1 - colBegin), static_cast<unsigned char>(0));
                if (rowHas) std::fill(v + (ua - colBegin), v + (ub - colBegin), static_cast<unsigned char>(1));
                for (int dy = 0; dy < 2; ++dy) {
                    float* o = out + static_cast<size_t>(2 * qy + dy - rowBegin) * stride;
                    if (!rowHas) {
                        std::fill(o + 2 * (x0 - colBegin), o + 2 * (x1 - colBegin), 0.0f);
                    } else {
                        std::fill(o + 2 * (x0 - colBegin), o + 2 * (ua - colBegin), 0.0f);
                        std::fill(o + 2 * (ub - colBegin), o + 2 * (x1 - colBegin), 0.0f);
                    }
                }
            }
            if (ua >= ub || va >= vb) continue;
            const bool full = ua == x0 && ub == x1 && va == qa && vb == qb;
            jobs.push_back(TileJob{s, ua, ub, va, vb, 2 * va + 2 * s.ny - 2, 2 * vb - 1 + 2 * s.ny + 4, full});
        }
    }
    // Consecutive tiles of a tile row with the same whole shift and every quad with
    // a source form a run, resampled as one: the horizontal pass source row by source
    // row (reading the frame in order), then the vertical pass, with each column's
    // tile weights.
    std::vector<float> weights;
    for (size_t first = 0; first < jobs.size();) {
        size_t last = first + 1;
        while (last < jobs.size() && jobs[last].full && jobs[last - 1].full && jobs[last].ua == jobs[last - 1].ub &&
               jobs[last].va == jobs[first].va && jobs[last].vb == jobs[first].vb &&
               jobs[last].shift.nx == jobs[first].shift.nx && jobs[last].shift.ny == jobs[first].shift.ny &&
               jobs[last].shift.cubic == jobs[first].shift.cubic)
            ++last;
        const TileJob& j = jobs[first];
        const int cols = 2 * (jobs[last - 1].ub - j.ua);
        weights.resize(static_cast<size_t>(8) * cols);
        float* wx[4];
        float* wy[4];
        for (int k = 0; k < 4; ++k) {
            wx[k] = weights.data() + static_cast<size_t>(k) * cols;
            wy[k] = weights.data() + static_cast<size_t>(4 + k) * cols;
        }
        for (size_t t = first; t < last; ++t) {
            const int from = 2 * (jobs[t].ua - j.ua), to = 2 * (jobs[t].ub - j.ua);
            for (int k = 0; k < 4; ++k) {
                std::fill(wx[k] + from, wx[k] + to, jobs[t].shift.wx[k]);
                std::fill(wy[k] + from, wy[k] + to, jobs[t].shift.wy[k]);
            }
        }
        // The linear kernel reads no source row beyond its two middle taps.
        const bool cubic = j.shift.cubic;
        const int srcFirst = cubic ? j.srcFirst : j.srcFirst + 2, srcLast = cubic ? j.srcLast : j.srcLast - 2;
        const int srcRows = srcLast - srcFirst + 1;
        h.resize(static_cast<size_t>(srcRows) * cols);
        for (int r = 0; r < srcRows; ++r) {
            const short* in = frame + static_cast<size_t>(srcFirst + r) * width + 2 * j.ua + 2 * j.shift.nx;
            float* o = h.data() + static_cast<size_t>(r) * cols;
            if (cubic)
                cubicRow(isa, in, wx, o, cols);
            else
                linearRow(isa, in, wx, o, cols);
        }
        for (int y = 2 * j.va; y < 2 * j.vb; ++y) {
            const float* h0 = h.data() + static_cast<size_t>(y + 2 * j.shift.ny - 2 - j.srcFirst) * cols;
            float* o = out + static_cast<size_t>(y - rowBegin) * stride + 2 * (j.ua - colBegin);
            if (cubic) {
                const float* rows[4] = {h0, h0 + 2 * cols, h0 + 4 * cols, h0 + 6 * cols};
                cubicColumn(isa, rows, wy, o, cols);
            } else {
                const float* rows[4] = {nullptr, h0, h0 + 2 * cols, nullptr};
                linearColumn(isa, rows, wy, o, cols);
            }
        }
        first = last;
    }
}

void resampleRows(const short* frame, int width, int height, const TileGrid& grid, const TileField& field,
                  int rowBegin, int rowEnd, float* out, unsigned char* quadValid) {
    if (kUseFastPaths) {
        std::vector<float> h;
        resampleRowsFast(frame, width, height, grid, field, rowBegin, rowEnd, 0, width / 2, out, quadValid, h);
    } else {
        resampleRowsPlain(frame, width, height, grid, field, rowBegin, rowEnd, out, quadValid);
    }
}

}  // namespace registration_detail

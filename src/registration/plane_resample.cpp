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
    if (field.detailed.empty() || field.detailed[static_cast<size_t>(tile)]) {
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
                    h[j] = cubicTaps(s.wx, row[c - 2], row[c], row[c + 2], row[c + 4]);
                }
                value = cubicTaps(s.wy, h[0], h[1], h[2], h[3]);
            }
            out[static_cast<size_t>(y - rowBegin) * width + x] = value;
        }
    }
}

namespace {

// One tile's part of a fast resampling: its quads with a source, [ua, ub) x
// [va, vb), and where its horizontally filtered source rows are kept.
struct TileJob {
    TileShift shift;
    int ua, ub, va, vb;
    int srcFirst, srcLast, cols;
    size_t offset;
};

}  // namespace

void resampleRowsFast(const short* frame, int width, int height, const TileGrid& grid, const TileField& field,
                      int rowBegin, int rowEnd, float* out, unsigned char* quadValid, std::vector<float>& conv,
                      std::vector<float>& h) {
    const int qc = width / 2, qr = height / 2;
    const KernelIsa isa = activeKernelIsa();
    const int quadBegin = rowBegin / 2, quadEnd = rowEnd / 2;
    std::vector<TileJob> jobs;
    size_t filtered = 0;
    int firstSource = height, lastSource = -1;
    for (int ty = quadBegin / kTileQuads; ty * kTileQuads < quadEnd; ++ty) {
        const int qa = std::max(quadBegin, grid.y0(ty)), qb = std::min(quadEnd, grid.y1(ty));
        for (int tx = 0; tx < grid.tilesX; ++tx) {
            const int tile = ty * grid.tilesX + tx;
            const TileShift s = tileShift(field, tile);
            const int x0 = grid.x0(tx), x1 = grid.x1(tx);
            int ua = std::max(x0, 1 - s.nx), ub = std::min(x1, qc - 2 - s.nx);
            int va = std::max(qa, 1 - s.ny), vb = std::min(qb, qr - 2 - s.ny);
            if (!field.valid[static_cast<size_t>(tile)] || ua >= ub || va >= vb) ua = ub = x0, va = vb = qa;
            for (int qy = qa; qy < qb; ++qy) {
                unsigned char* v = quadValid + static_cast<size_t>(qy - quadBegin) * qc;
                const bool rowHas = qy >= va && qy < vb;
                std::fill(v + x0, v + x1, static_cast<unsigned char>(0));
                if (rowHas) std::fill(v + ua, v + ub, static_cast<unsigned char>(1));
                for (int dy = 0; dy < 2; ++dy) {
                    float* o = out + static_cast<size_t>(2 * qy + dy - rowBegin) * width;
                    if (!rowHas) {
                        std::fill(o + 2 * x0, o + 2 * x1, 0.0f);
                    } else {
                        std::fill(o + 2 * x0, o + 2 * ua, 0.0f);
                        std::fill(o + 2 * ub, o + 2 * x1, 0.0f);
                    }
                }
            }
            if (ua >= ub || va >= vb) continue;
            TileJob job{s, ua, ub, va, vb, 2 * va + 2 * s.ny - 2, 2 * vb - 1 + 2 * s.ny + 4, 2 * (ub - ua), filtered};
            filtered += static_cast<size_t>(job.srcLast - job.srcFirst + 1) * job.cols;
            firstSource = std::min(firstSource, job.srcFirst);
            lastSource = std::max(lastSource, job.srcLast);
            jobs.push_back(job);
        }
    }
    // The horizontal pass source row by source row, so that the frame is read in
    // order; then the vertical pass tile by tile.
    h.resize(filtered);
    conv.resize(static_cast<size_t>(2 * kTileQuads) + 6);
    for (int r = firstSource; r <= lastSource; ++r) {
        const short* row = frame + static_cast<size_t>(r) * width;
        for (const TileJob& j : jobs) {
            if (r < j.srcFirst || r > j.srcLast) continue;
            cubicRow(isa, row + 2 * j.ua + 2 * j.shift.nx, conv.data(),
                     h.data() + j.offset + static_cast<size_t>(r - j.srcFirst) * j.cols, j.cols, j.shift.wx);
        }
    }
    for (const TileJob& j : jobs) {
        for (int y = 2 * j.va; y < 2 * j.vb; ++y) {
            const float* h0 = h.data() + j.offset + static_cast<size_t>(y + 2 * j.shift.ny - 2 - j.srcFirst) * j.cols;
            cubicColumn(isa, h0, h0 + 2 * j.cols, h0 + 4 * j.cols, h0 + 6 * j.cols,
                        out + static_cast<size_t>(y - rowBegin) * width + 2 * j.ua, j.cols, j.shift.wy);
        }
    }
}

void resampleRows(const short* frame, int width, int height, const TileGrid& grid, const TileField& field,
                  int rowBegin, int rowEnd, float* out, unsigned char* quadValid) {
    if (kUseFastPaths) {
        std::vector<float> conv, h;
        resampleRowsFast(frame, width, height, grid, field, rowBegin, rowEnd, out, quadValid, conv, h);
    } else {
        resampleRowsPlain(frame, width, height, grid, field, rowBegin, rowEnd, out, quadValid);
    }
}

}  // namespace registration_detail

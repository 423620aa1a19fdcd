#include "registration/tile_motion.h"

#include <algorithm>
#include <cmath>

#include "registration/cubic_kernel.h"

namespace registration_detail {

namespace {

// Gauss-Newton steps of the refinement. The noise of the reference's gradients
// shortens each step (about a quarter at low light) but not the fixed point, which
// four steps reach closely.
constexpr int kSteps = 4;
// Tiles of the lattice the refinement measures on, about this many.
constexpr int kLatticeTiles = 200;
// Quads around a tile's initial source that the steps may reach.
constexpr int kWindowMargin = 4;
// A tile whose mean squared residual exceeds this many times the median of all
// tiles' is left out (something moves there, or the tile is occluded).
constexpr double kOutlierResidual = 3.0;
constexpr int kMinTiles = 6;
// The refined motion must have kept at least this share of the tiles, and their
// median residual (per unit of noise, which dominates it at low light) may exceed
// the one where the refinement started by at most this factor.
constexpr double kMinKeptShare = 0.5;
constexpr double kMaxResidualGrowth = 1.1;

// Quad sums of a raw frame over [x0, x0 + cols) x [y0, y0 + rows), smoothed by the
// 1 2 1 binomial in both directions (sums over 16): the refinement works on this
// band-limited image, so that detail finer than the quad grid (aliased in it)
// cannot pull the fit. The window and a border of one quad around it lie inside
// the frame.
struct Window {
    std::vector<float> sums;
    std::vector<int> raw;
    int x0 = 0, y0 = 0, cols = 0, rows = 0;

    void fill(const short* frame, int width, int left, int top, int c, int r) {
        x0 = left;
        y0 = top;
        cols = c;
        rows = r;
        const int rc = c + 2, rr = r + 2;
        raw.resize(static_cast<size_t>(rc) * rr);
        for (int y = 0; y < rr; ++y) {
            const short* r0 = frame + static_cast<size_t>(2 * (top - 1 + y)) * width + 2 * (left - 1);
            const short* r1 = r0 + width;
            int* o = raw.data() + static_cast<size_t>(y) * rc;
            for (int x = 0; x < rc; ++x) o[x] = (r0[2 * x] + r0[2 * x + 1]) + (r1[2 * x] + r1[2 * x + 1]);
        }
        sums.resize(static_cast<size_t>(cols) * rows);
        for (int y = 0; y < rows; ++y) {
            const int* a = raw.data() + static_cast<size_t>(y) * rc;
            const int* b = a + rc;
            const int* d = b + rc;
            float* o = sums.data() + static_cast<size_t>(y) * cols;
            for (int x = 0; x < cols; ++x) {
                const int h0 = (a[x] + 2 * a[x + 1]) + a[x + 2];
                const int h1 = (b[x] + 2 * b[x + 1]) + b[x + 2];
                const int h2 = (d[x] + 2 * d[x + 1]) + d[x + 2];
                o[x] = static_cast<float>((h0 + 2 * h1) + h2) / 16.0f;
            }
        }
    }
    float at(int x, int y) const { return sums[static_cast<size_t>(y - y0) * cols + (x - x0)]; }
};

// A frame's state at one tile of the lattice: its sums around the tile's source.
struct LatticeTile {
    const ReferenceTile* ref;
    Window frame;
    bool used = true;
    double residual = 0.0;  // mean squared residual at the last evaluation, per unit of noise
};

// The refined motion: d(x, y) = (p0 + p1 u + p2 v, q0 + q1 u + q2 v) quads, with u, v
// the position relative to the frame's centre in half frame sides.
struct Affine {
    double cx = 0, cy = 0, sx = 1, sy = 1;
    double p[3] = {0, 0, 0}, q[3] = {0, 0, 0};

    void basis(double x, double y, double t[3]) const {
        t[0] = 1.0;
        t[1] = (x - cx) / sx;
        t[2] = (y - cy) / sy;
    }
    void at(double x, double y, double* dx, double* dy) const {
        double t[3];
        basis(x, y, t);
        *dx = (p[0] * t[0] + p[1] * t[1]) + p[2] * t[2];
        *dy = (q[0] * t[0] + q[1] * t[1]) + q[2] * t[2];
    }
};

// Solves the n x n system m z = r by Gaussian elimination with partial pivoting;
// false when a pivot vanishes.
bool solve(double m[6][6], double r[6], int n, double z[6]) {
    for (int c = 0; c < n; ++c) {
        int pivot = c;
        for (int i = c + 1; i < n; ++i)
            if (std::fabs(m[i][c]) > std::fabs(m[pivot][c])) pivot = i;
        if (!(std::fabs(m[pivot][c]) > 0.0)) return false;
        if (pivot != c) {
            for (int j = 0; j < n; ++j) std::swap(m[c][j], m[pivot][j]);
            std::swap(r[c], r[pivot]);
        }
        for (int i = c + 1; i < n; ++i) {
            const double f = m[i][c] / m[c][c];
            for (int j = c; j < n; ++j) m[i][j] -= f * m[c][j];
            r[i] -= f * r[c];
        }
    }
    for (int i = n - 1; i >= 0; --i) {
        double v = r[i];
        for (int j = i + 1; j < n; ++j) v -= m[i][j] * z[j];
        z[i] = v / m[i][i];
    }
    return true;
}

// The affine motion closest (least squares over the valid tiles) to a field.
bool fitToField(const TileGrid& grid, const TileField& field, Affine& a) {
    double m[6][6] = {}, r[6] = {}, z[6] = {};
    double mx[6][6] = {};
    int count = 0;
    for (int ty = 0; ty < grid.tilesY; ++ty)
        for (int tx = 0; tx < grid.tilesX; ++tx) {
            const size_t t = static_cast<size_t>(ty) * grid.tilesX + tx;
            if (!field.valid[t]) continue;
            double b[3];
            a.basis(grid.centreX(tx), grid.centreY(ty), b);
            for (int i = 0; i < 3; ++i) {
                for (int j = 0; j < 3; ++j) m[i][j] += b[i] * b[j];
                r[i] += b[i] * field.dx[t];
                r[3 + i] += b[i] * field.dy[t];
            }
            ++count;
        }
    if (count < 3) return false;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) mx[i][j] = m[i][j];
    double ry[6] = {r[3], r[4], r[5]};
    if (!solve(m, r, 3, z)) return false;
    for (int i = 0; i < 3; ++i) a.p[i] = z[i];
    if (!solve(mx, ry, 3, z)) return false;
    for (int i = 0; i < 3; ++i) a.q[i] = z[i];
    return true;
}

// The frame's sums around where the motion puts a tile; false when that window
// leaves the frame.
bool prepareTile(const short* cur, int width, const TileGrid& grid, const ReferenceTile& ref, const Affine& a,
                 LatticeTile& tile) {
    tile.ref = &ref;
    double dx, dy;
    a.at(ref.cx, ref.cy, &dx, &dy);
    const int left = ref.x0 + static_cast<int>(std::floor(dx)) - kWindowMargin;
    const int top = ref.y0 + static_cast<int>(std::floor(dy)) - kWindowMargin;
    const int cols = ref.x1 - ref.x0 + 2 * kWindowMargin + 1, rows = ref.y1 - ref.y0 + 2 * kWindowMargin + 1;
    if (left < 1 || top < 1 || left + cols + 1 > grid.quadCols || top + rows + 1 > grid.quadRows) return false;
    tile.frame.fill(cur, width, left, top, cols, rows);
    return true;
}

// Residuals of a tile at the shift (dx, dy): their gradient-weighted sums and their
// mean square; false when a tap leaves the tile's window.
bool tileResiduals(LatticeTile& tile, double dx, double dy, double* bx, double* by) {
    const std::vector<LatticePoint>& points = tile.ref->points;
    const double fx = std::floor(dx), fy = std::floor(dy);
    const int nx = static_cast<int>(fx), ny = static_cast<int>(fy);
    const Window& w = tile.frame;
    const LatticePoint& first = points.front();
    const LatticePoint& last = points.back();
    if (first.x + nx - 1 < w.x0 || last.x + nx + 2 >= w.x0 + w.cols || first.y + ny - 1 < w.y0 ||
        last.y + ny + 2 >= w.y0 + w.rows)
        return false;
    float wx[4], wy[4];
    cubicWeights(static_cast<float>(dx - fx), wx);
    cubicWeights(static_cast<float>(dy - fy), wy);
    double sx = 0.0, sy = 0.0, r2 = 0.0;
    for (const LatticePoint& p : points) {
        const float* row = w.sums.data() + static_cast<size_t>(p.y + ny - 1 - w.y0) * w.cols + (p.x + nx - 1 - w.x0);
        float h[4];
        for (int j = 0; j < 4; ++j, row += w.cols) h[j] = cubicTaps(wx, row[0], row[1], row[2], row[3]);
        const double r = static_cast<double>(p.value) - static_cast<double>(cubicTaps(wy, h[0], h[1], h[2], h[3]));
        sx += p.gx * r;
        sy += p.gy * r;
        r2 += r * r;
    }
    const double n = static_cast<double>(points.size());
    *bx = sx;
    *by = sy;
    // The resampling smooths the frame's noise by a factor that depends on the
    // shift; residuals compared across shifts are taken per unit of that noise.
    double spread = 0.0, sx2 = 0.0, sy2 = 0.0;
    for (int k = 0; k < 4; ++k) {
        sx2 += static_cast<double>(wx[k]) * wx[k];
        sy2 += static_cast<double>(wy[k]) * wy[k];
    }
    spread = sx2 * sy2;
    tile.residual = r2 / n / (1.0 + spread);
    return true;
}

// Median of the residuals of the tiles in use (0 when none is).
double medianResidual(const std::vector<LatticeTile>& tiles) {
    std::vector<double> residuals;
    for (const LatticeTile& t : tiles)
        if (t.used) residuals.push_back(t.residual);
    if (residuals.empty()) return 0.0;
    std::nth_element(residuals.begin(), residuals.begin() + residuals.size() / 2, residuals.end());
    return residuals[residuals.size() / 2];
}

// Leaves out the tiles whose residual is far above the median.
void dropOutliers(std::vector<LatticeTile>& tiles) {
    const double limit = kOutlierResidual * medianResidual(tiles);
    for (LatticeTile& t : tiles)
        if (t.used && t.residual > limit) t.used = false;
}

}  // namespace

int cellOf(const CellModels& cells, double x, double y) {
    const int gx = std::min(3, std::max(0, static_cast<int>(x / cells.cellQuadsX)));
    const int gy = std::min(3, std::max(0, static_cast<int>(y / cells.cellQuadsY)));
    return gy * 4 + gx;
}

CellModels cellModelsOf(const QNGridFeaturePointList& grid) {
    CellModels m{};
    for (int c = 0; c < 16; ++c)
        for (int k = 0; k < 6; ++k) m.h[c][k] = grid.cells[c].inverseHomography.data[k];
    m.cellQuadsX = std::max(grid.cells[0].width, 1);
    m.cellQuadsY = std::max(grid.cells[0].height, 1);
    return m;
}

void fieldFromCells(const CellModels& cells, const TileGrid& grid, TileField& field) {
    const size_t n = static_cast<size_t>(grid.count());
    field.dx.assign(n, 0.0);
    field.dy.assign(n, 0.0);
    field.refined.assign(n, 0);
    field.valid.assign(n, 1);
    for (int ty = 0; ty < grid.tilesY; ++ty) {
        for (int tx = 0; tx < grid.tilesX; ++tx) {
            const double x = grid.centreX(tx), y = grid.centreY(ty);
            const double* h = cells.h[cellOf(cells, x, y)];
            const size_t t = static_cast<size_t>(ty) * grid.tilesX + tx;
            field.dx[t] = ((h[0] * x + h[1] * y) + (h[2] + h[2])) - x;
            field.dy[t] = ((h[3] * x + h[4] * y) + (h[5] + h[5])) - y;
        }
    }
    limitField(field);
}

void limitField(TileField& field) {
    for (size_t t = 0; t < field.dx.size(); ++t) {
        const bool inRange = std::fabs(field.dx[t]) <= kMaxTileShift && std::fabs(field.dy[t]) <= kMaxTileShift;
        field.valid[t] = inRange ? 1 : 0;
    }
}

ReferenceLattice::ReferenceLattice(const short* reference, int width, const TileGrid& grid) {
    // About kLatticeTiles tiles, all of them on small frames; none at the frame's
    // edge (its gradients need a quad beyond the tile).
    const int stride = std::max(1, static_cast<int>(std::sqrt(static_cast<double>(grid.count()) / kLatticeTiles) + 0.5));
    for (int ty = stride / 2; ty < grid.tilesY; ty += stride)
        for (int tx = stride / 2; tx < grid.tilesX; tx += stride) {
            const int x0 = grid.x0(tx), x1 = grid.x1(tx), y0 = grid.y0(ty), y1 = grid.y1(ty);
            if (x1 - x0 < 4 || y1 - y0 < 4 || x0 < 1 || y0 < 1 || x1 + 1 > grid.quadCols || y1 + 1 > grid.quadRows)
                continue;
            ReferenceTile t;
            t.index = ty * grid.tilesX + tx;
            t.x0 = x0, t.x1 = x1, t.y0 = y0, t.y1 = y1;
            t.cx = grid.centreX(tx);
            t.cy = grid.centreY(ty);
            Window r;
            r.fill(reference, width, x0, y0, x1 - x0, y1 - y0);
            for (int y = y0 + 1; y < y1 - 1; y += 2) {
                for (int x = x0 + 1; x < x1 - 1; x += 2) {
                    auto q = [&](int u, int v) { return static_cast<double>(r.at(u, v)); };
                    const double gx = ((q(x + 1, y - 1) + 2 * q(x + 1, y)) + q(x + 1, y + 1)) -
                                      ((q(x - 1, y - 1) + 2 * q(x - 1, y)) + q(x - 1, y + 1));
                    const double gy = ((q(x - 1, y + 1) + 2 * q(x, y + 1)) + q(x + 1, y + 1)) -
                                      ((q(x - 1, y - 1) + 2 * q(x, y - 1)) + q(x + 1, y - 1));
                    t.sxx += gx * gx;
                    t.sxy += gx * gy;
                    t.syy += gy * gy;
                    t.points.push_back(LatticePoint{x, y, gx, gy, r.at(x, y)});
                }
            }
            tiles.push_back(std::move(t));
        }
}

int refineField(const ReferenceLattice& lattice, const short* frame, int width, const TileGrid& grid,
                TileField& field) {
    Affine a;
    a.cx = 0.5 * (grid.quadCols - 1);
    a.cy = 0.5 * (grid.quadRows - 1);
    a.sx = std::max(0.5 * grid.quadCols, 1.0);
    a.sy = std::max(0.5 * grid.quadRows, 1.0);
    if (!fitToField(grid, field, a)) return 0;
    std::vector<LatticeTile> tiles;
    for (const ReferenceTile& ref : lattice.tiles) {
        if (!field.valid[static_cast<size_t>(ref.index)]) continue;
        LatticeTile tile;
        if (prepareTile(frame, width, grid, ref, a, tile)) tiles.push_back(std::move(tile));
    }
    const int measured = static_cast<int>(tiles.size());

    // Gauss-Newton on the six parameters, each tile linearised at its centre: the
    // slopes are an eighth of the Sobel differences, the Jacobian of a tile's
    // residuals the slopes times the basis at its centre.
    double startResidual = 0.0;
    for (int step = 0; step < kSteps; ++step) {
        double m[6][6] = {}, r[6] = {}, z[6] = {};
        int used = 0;
        for (LatticeTile& t : tiles) {
            if (!t.used) continue;
            double dx, dy, bx, by, b[3];
            a.at(t.ref->cx, t.ref->cy, &dx, &dy);
            if (!tileResiduals(t, dx, dy, &bx, &by)) {
                t.used = false;
                continue;
            }
            a.basis(t.ref->cx, t.ref->cy, b);
            for (int i = 0; i < 3; ++i) {
                for (int j = 0; j < 3; ++j) {
                    const double bb = b[i] * b[j];
                    m[i][j] += t.ref->sxx * bb;
                    m[i][3 + j] += t.ref->sxy * bb;
                    m[3 + i][j] += t.ref->sxy * bb;
                    m[3 + i][3 + j] += t.ref->syy * bb;
                }
                r[i] += bx * b[i];
                r[3 + i] += by * b[i];
            }
            ++used;
        }
        if (used < kMinTiles || !solve(m, r, 6, z)) return 0;
        for (int i = 0; i < 3; ++i) {
            a.p[i] += 8.0 * z[i];
            a.q[i] += 8.0 * z[3 + i];
        }
        if (step == 0) {
            dropOutliers(tiles);
            startResidual = medianResidual(tiles);
        }
    }

    // Trusted when most tiles agree with the fit and it matches them about as well
    // as the cell models did, or better.
    int kept = 0;
    for (const LatticeTile& t : tiles) kept += t.used ? 1 : 0;
    if (kept < kMinTiles || kept < kMinKeptShare * measured) return 0;
    double bx, by;
    for (LatticeTile& t : tiles) {
        double dx, dy;
        a.at(t.ref->cx, t.ref->cy, &dx, &dy);
        if (t.used && !tileResiduals(t, dx, dy, &bx, &by)) t.used = false;
    }
    if (!(medianResidual(tiles) <= kMaxResidualGrowth * startResidual)) return 0;
    std::vector<double> dx(field.dx.size()), dy(field.dy.size());
    for (int ty = 0; ty < grid.tilesY; ++ty)
        for (int tx = 0; tx < grid.tilesX; ++tx) {
            const size_t t = static_cast<size_t>(ty) * grid.tilesX + tx;
            a.at(grid.centreX(tx), grid.centreY(ty), &dx[t], &dy[t]);
        }
    field.dx = dx;
    field.dy = dy;
    field.refined.assign(field.dx.size(), 1);
    limitField(field);
    return grid.count();
}

}  // namespace registration_detail

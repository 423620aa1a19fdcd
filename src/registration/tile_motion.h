#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "features/feature_types.h"

// Motion of a frame as one translation per tile of 32 x 32 quads, and its
// refinement on full-resolution data.
namespace registration_detail {

constexpr int kTileQuads = 32;
// Tiles whose source lies farther than this (in quads) have no usable source.
constexpr double kMaxTileShift = 48.0;

struct TileGrid {
    int quadCols = 0, quadRows = 0, tilesX = 0, tilesY = 0;

    TileGrid(int width, int height)
        : quadCols(width / 2),
          quadRows(height / 2),
          tilesX((width / 2 + kTileQuads - 1) / kTileQuads),
          tilesY((height / 2 + kTileQuads - 1) / kTileQuads) {}
    int count() const { return tilesX * tilesY; }
    int x0(int tx) const { return tx * kTileQuads; }
    int x1(int tx) const { return std::min(quadCols, (tx + 1) * kTileQuads); }
    int y0(int ty) const { return ty * kTileQuads; }
    int y1(int ty) const { return std::min(quadRows, (ty + 1) * kTileQuads); }
    double centreX(int tx) const { return 0.5 * (x0(tx) + x1(tx) - 1); }
    double centreY(int ty) const { return 0.5 * (y0(ty) + y1(ty) - 1); }
};

// Reference quad (x, y) of tile t shows the frame's content at quad position
// (x + dx[t], y + dy[t]); the same shift applies to every Bayer site.
struct TileField {
    std::vector<double> dx, dy;
    std::vector<unsigned char> refined;  // 1: from a refined fit, 0: from the cell model
    std::vector<unsigned char> valid;    // 0: the shift is beyond kMaxTileShift, no source
    // Per tile, 1 where the reference shows detail above its noise: resampled with
    // the cubic kernel there, the linear one elsewhere (empty: cubic everywhere).
    std::vector<unsigned char> detailed;
};

// The first two rows of each cell's inverseHomography (reference quad position to
// source position, translation in guide pixels) and the cells' size in quads.
struct CellModels {
    double h[16][6];
    int cellQuadsX = 1, cellQuadsY = 1;
};

// Copies the models the alignment's estimation left in the grid.
CellModels cellModelsOf(const QNGridFeaturePointList& grid);

// Tile translations from the cell models, evaluated at each tile's centre.
void fieldFromCells(const CellModels& cells, const TileGrid& grid, TileField& field);

// The cell holding a quad position.
int cellOf(const CellModels& cells, double x, double y);

// What the refinement measures on in the reference, once per burst: a lattice of
// about 200 tiles, each with its points (every second quad of every second row)
// and their gradients on the band-limited quad sums.
struct LatticePoint {
    int x, y;
    double gx, gy;  // Sobel differences: eight times the slopes
    float value;
};

struct ReferenceTile {
    int index = 0;                 // in the tile grid
    int x0 = 0, x1 = 0, y0 = 0, y1 = 0;
    double cx = 0, cy = 0;
    std::vector<LatticePoint> points;
    double sxx = 0, sxy = 0, syy = 0;  // their gradients' tensor
};

struct ReferenceLattice {
    ReferenceLattice(const short* reference, int width, const TileGrid& grid);
    std::vector<ReferenceTile> tiles;
};

// Refines the field of one normal frame: one affine motion over the frame, by
// Gauss-Newton steps on the band-limited quad sums of the lattice's tiles (each
// linearised at its centre), started from the affine motion closest to the field;
// tiles whose residual stands far above the others (something moving) are left
// out after the first step. Every tile then takes the fitted motion at its centre.
// Where the fit cannot be trusted (too few tiles kept, or a worse match than at
// the start) the field stays as it was. Returns the number of tiles whose
// translation comes from the fit.
int refineField(const ReferenceLattice& lattice, const short* frame, int width, const TileGrid& grid,
                TileField& field);

// Marks the tiles whose shift is beyond kMaxTileShift as having no source.
void limitField(TileField& field);

}  // namespace registration_detail

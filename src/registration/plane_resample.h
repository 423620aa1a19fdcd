#pragma once

#include <vector>

#include "registration/tile_motion.h"

// Resampling of a raw frame onto the reference geometry through its tile field,
// per Bayer plane with the cubic kernel where the tile has detail, the linear one
// where it has none (see TileField::detailed): output sample (X, Y) of a tile shifted by
// (dx, dy) quads reads the samples of its own site at columns X + 2 nx + 2k and
// rows Y + 2 ny + 2j (k, j = -1 .. 2; nx, ny the whole parts of the shift) with
// the weights of the shift's fractions, rows first:
//   h_j = taps(wx, row j), out = taps(wy, h_-1, h_0, h_1, h_2).
// The linear kernel reads only the samples at offsets 0 and 1 (linearTaps). A quad
// whose cubic taps would leave the frame, or whose tile has no source, has no data
// with either kernel: its samples are 0 and its validity byte 0.
namespace registration_detail {

struct TileShift {
    int nx, ny;           // whole quads
    bool cubic;           // the cubic kernel; otherwise the linear one
    float wx[4], wy[4];   // kernel weights of the fractions
    float spread;         // sum of wx^2 times sum of wy^2: the noise variance factor
};

TileShift tileShift(const TileField& field, int tile);

// Raw rows [rowBegin, rowEnd) (even bounds) of the aligned frame into out
// ((rowEnd - rowBegin) x width floats) and the validity of their quads into
// quadValid ((rowEnd - rowBegin) / 2 x width / 2 bytes).
void resampleRowsPlain(const short* frame, int width, int height, const TileGrid& grid, const TileField& field,
                       int rowBegin, int rowEnd, float* out, unsigned char* quadValid);
// The same values for quad columns [colBegin, colEnd) only (out: rows of
// 2 (colEnd - colBegin) floats from sample column 2 colBegin; quadValid: rows of
// colEnd - colBegin bytes), each run of tiles filtered horizontally and then
// vertically.
void resampleRowsFast(const short* frame, int width, int height, const TileGrid& grid, const TileField& field,
                      int rowBegin, int rowEnd, int colBegin, int colEnd, float* out, unsigned char* quadValid,
                      std::vector<float>& h);

// The plain or the fast form.
void resampleRows(const short* frame, int width, int height, const TileGrid& grid, const TileField& field,
                  int rowBegin, int rowEnd, float* out, unsigned char* quadValid);

}  // namespace registration_detail


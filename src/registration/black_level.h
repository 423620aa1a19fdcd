#pragma once

#include "imgcore/kep_export.h"

// Quad-wise black-level operations of the night path. `order` is the four-entry
// black-level table in 2x2 quad order: even/even, even/odd, odd/even, odd/odd.

// Places the levels by Bayer pattern code; bl0 is red, bl3 blue, bl1 the green on
// the quad's first row and bl2 the green on its second row. Codes other than
// 0 (RGGB), 1 (BGGR) and 2 (GRBG) are treated as 3 (GBRG).
KEP_API void getBayerBLCorder(int* order, int pattern, int bl0, int bl1, int bl2, int bl3);

// out = trunc((float)(in - b) * gain + (float)b) per quad site, low 16 bits stored:
// no clamp at the white level or at zero (large results wrap). In place allowed.
KEP_API void enlightenOutput(short* in, short* out, float gain, int width, int height, int* order);

// out = max(in - b, 0) per quad site. In place allowed.
KEP_API void removeBLC(const short* in, short* out, int width, int height, int* order);

namespace black_level_detail {
// The two forms behind enlightenOutput: brightenPlain walks the quads with the
// saturating conversion; brightenRows converts whole rows with the plain one, which
// is the same wherever brightenStaysInRange(gain, order) holds. brightenRows needs
// in == out or two buffers that do not overlap.
void brightenPlain(const short* in, short* out, float gain, int width, int height, const int* order);
void brightenRows(const short* in, short* out, float gain, int width, int height, const int* order);
bool brightenStaysInRange(float gain, const int* order);
}  // namespace black_level_detail

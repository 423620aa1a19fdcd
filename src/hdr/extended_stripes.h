#pragma once

#include <algorithm>

#include "imgcore/row_stripes.h"

// Four workers over the rows [border, height + border) of an image extended by
// `border` rows on each side, cut at q = (height + 2 * border) / 4 as the bordered
// filters do: [border, q), [q, 2q), [2q, 3q), [3q, height + border). The first stripe
// is shorter than the middle ones by design. On short images (q below the border, or
// 3q past the last row) the raw bounds leave that range, so each stripe is clipped
// to it; the clipped stripes still cover every row exactly once (some may be empty).
// Internal helper, not exported.
template <typename Body>
void runOnExtendedStripes(int height, int border, Body body) {
    const int q = (height + 2 * border) / 4;
    const int bounds[5] = {border, q, 2 * q, 3 * q, height + border};
    runFourWorkers([&](int k) {
        const int rowStart = std::clamp(bounds[k], border, height + border);
        const int rowEnd = std::clamp(bounds[k + 1], border, height + border);
        body(rowStart, rowEnd);
    });
}

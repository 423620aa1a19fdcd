#include "registration/robust_alignment.h"

#include <memory>

#include "registration/frame_registration.h"
#include "registration/motion_alignment.h"

namespace registration_detail {

RobustAlignment alignBurstRobust(short** frames, int frameCount, int width, int height, BurstAnalysis& a,
                                 float alignTuning, int* usable) {
    RobustAlignment ra;
    ra.fields.resize(static_cast<size_t>(frameCount));
    ra.cellFields.resize(static_cast<size_t>(frameCount));
    ra.aligned.assign(static_cast<size_t>(frameCount), 0);
    const TileGrid grid(width, height);
    const int g = width / 4, gh = height / 4;
    const double inlierLimit = inlierLimitFor(alignTuning);
    char* reject = a.rejectFlags();
    std::unique_ptr<ReferenceLattice> lattice;
    for (int i = 0; i < frameCount; ++i) {
        if (i == kReferenceIndex || reject[i] == 1) continue;
        int ambiguous = 0;
        if (!motion_alignment_detail::estimateModels(a.guide(i), a.referenceGuide(), a.points(), Size{6, 6},
                                                     a.pointCount(), 2.0, inlierLimit, g, gh, &reject[i], &ambiguous,
                                                     a.pointCount(), i)) {
            if (i > kReferenceIndex) --*usable;
            continue;
        }
        const CellModels cells = cellModelsOf(a.points());
        TileField& field = ra.fields[static_cast<size_t>(i)];
        fieldFromCells(cells, grid, field);
        ra.cellFields[static_cast<size_t>(i)] = field;
        ra.aligned[static_cast<size_t>(i)] = 1;
        if (i < kReferenceIndex) continue;  // short exposures keep the cell models
        if (!lattice) lattice.reset(new ReferenceLattice(frames[kReferenceIndex], width, grid));
        ra.refinedTiles += refineField(*lattice, frames[i], width, grid, field);
        ra.refinableTiles += grid.count();
    }
    return ra;
}

}  // namespace registration_detail

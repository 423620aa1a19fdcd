#include "registration/robust_alignment.h"

#include <algorithm>

#include "imgcore/worker_pool.h"
#include "registration/frame_registration.h"
#include "registration/motion_alignment.h"

namespace registration_detail {

RobustAlignment alignBurstRobust(short** frames, int frameCount, int width, int height, BurstAnalysis& a,
                                 float alignTuning, int* usable, int workers) {
    RobustAlignment ra;
    ra.fields.resize(static_cast<size_t>(frameCount));
    ra.cellFields.resize(static_cast<size_t>(frameCount));
    ra.aligned.assign(static_cast<size_t>(frameCount), 0);
    const TileGrid grid(width, height);
    const int g = width / 4, gh = height / 4;
    const double inlierLimit = inlierLimitFor(alignTuning);
    char* reject = a.rejectFlags();
    std::vector<int> normal;
    // The models in frame order: the estimation draws from the process's random
    // sequence.
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
        if (i > kReferenceIndex) normal.push_back(i);  // short exposures keep the cell models
    }
    // The refinement of every normal frame, each on its own.
    if (normal.empty()) return ra;
    const ReferenceLattice lattice(frames[kReferenceIndex], width, grid);
    std::vector<long long> refined(normal.size(), 0);
    WorkerPool pool(std::min(workers, static_cast<int>(normal.size())));
    pool.run(static_cast<int>(normal.size()), [&](int, int k) {
        const int i = normal[static_cast<size_t>(k)];
        refined[static_cast<size_t>(k)] = refineField(lattice, frames[i], width, grid, ra.fields[static_cast<size_t>(i)]);
    });
    for (long long n : refined) ra.refinedTiles += n;
    ra.refinableTiles = static_cast<long long>(grid.count()) * static_cast<long long>(normal.size());
    return ra;
}

}  // namespace registration_detail

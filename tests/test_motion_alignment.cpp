#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "features/feature_types.h"
#include "features/grid_features.h"
#include "registration/motion_alignment.h"
#include "registration/guide_image.h"
#include "synthetic_scene.h"

namespace {

struct Grid {
    QNGridFeaturePointList list;
    Grid() {
        std::memset(&list, 0, sizeof(list));
        list.gridCols = list.gridRows = 4;
        list.cells = static_cast<GridCell*>(std::calloc(16, sizeof(GridCell)));
    }
    ~Grid() {
        for (int c = 0; c < 16; ++c) {
            std::free(list.cells[c].homography.data);
            std::free(list.cells[c].inverseHomography.data);
        }
        std::free(list.cells);
    }
};

int align(Grid& grid, std::vector<unsigned char>& cur, std::vector<unsigned char>& ref, std::vector<short>& src,
          std::vector<short>& dst, int box[4], char* reject, int featureCount, int width, int height) {
    int ambiguous = 0;
    return QNMotion_alignImages_native(cur.data(), nullptr, ref.data(), grid.list, Size{6, 6}, featureCount, 2.0, 1.0,
                                       width, height, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                       nullptr, src.data(), dst.data(), &box[0], &box[1], &box[2], &box[3], reject,
                                       &ambiguous, featureCount, 3);
}

TEST(MotionAlignment, NoMatchesGiveNoGlobalModelAndRejectTheFrameBeforeWarping) {
    // Without a single match RANSAC only sees the (0, 0) tail, finds no model and
    // leaves it empty; that empty model must not reach the error test or the warp.
    const int width = 120, height = 96;
    Grid grid;
    std::vector<unsigned char> cur(width * height, 100), ref(width * height, 100);
    std::vector<short> src(16 * width * height, 300), dst(16 * width * height, -1);
    int box[4] = {0, 2 * height - 1, 0, 2 * width - 1};
    char reject = 0;
    EXPECT_EQ(align(grid, cur, ref, src, dst, box, &reject, 10, width, height), 0);
    EXPECT_EQ(reject, 1);
    EXPECT_EQ(dst, std::vector<short>(dst.size(), -1));
    EXPECT_EQ(box[1], 2 * height - 1);
}

// The driver's fast form hands the alignment a buffer holding anything and lets
// it write every sample, and has it write the clamped result back over the source
// frame as the warp goes: the buffer must end exactly as a pre-filled one would
// and the frame as its clamped copy, for aligned frames, frames with blank borders
// and frames rejected before the warp (ambiguity), bounds and flags alike.
TEST(MotionAlignment, UnfilledDestinationEndsAsAPrefilledOne) {
    const int rawW = 480, rawH = 384, width = rawW / 4, height = rawH / 4;
    kep::synth::Scene scene(rawW, rawH, 5);
    kep::synth::BurstOptions o;
    o.width = rawW;
    o.height = rawH;
    o.frames = 5;
    o.maxShift = 40.0;  // large enough to leave blank borders
    const kep::synth::Burst burst = kep::synth::makeNightBurst(scene, o);
    std::vector<std::vector<unsigned char>> guides(burst.frames.size(), std::vector<unsigned char>(width * height));
    for (size_t i = 0; i < burst.frames.size(); ++i) {
        bayer_to_8bit_gray(const_cast<short*>(burst.frames[i].data()), guides[i].data(), rawW, rawH, 1, 0);
        histogram_equalization(guides[i].data(), guides[i].data(), width, height);
    }
    std::vector<unsigned char> mask(width * height, 255);
    for (int frame : {0, 3, 4})
        for (double ambiguousShare : {0.0, 0.9}) {
            std::vector<short> dst[2], written;
            int box[2][4];
            char reject[2];
            for (int form = 0; form < 2; ++form) {
                Grid grid;
                std::free(grid.list.cells);
                int count = 0;
                QNGet4x4GridFeatureParam_ param{guides[2].data(), 1, -3.0f, 3.0f, 6.0f, 640, &count, 6, 6, height, width};
                ASSERT_EQ(qnGet4x4GridFeature(&param, &grid.list, mask.data()), 0);
                ASSERT_GT(count, 30);
                dst[form].assign(burst.frames[0].size(), form == 0 ? -1 : 1234);
                std::vector<short> src = burst.frames[frame];
                box[form][0] = 0, box[form][1] = 2 * height - 1, box[form][2] = 0, box[form][3] = 2 * width - 1;
                reject[form] = 0;
                int ambiguous = static_cast<int>(ambiguousShare * count);
                std::srand(7);
                motion_alignment_detail::alignImages(guides[frame].data(), guides[2].data(), grid.list, Size{6, 6}, count,
                                                     2.0, 1.0, width, height, src.data(), dst[form].data(), &box[form][0],
                                                     &box[form][1], &box[form][2], &box[form][3], &reject[form],
                                                     &ambiguous, count, frame, form == 0,
                                                     form == 0 ? nullptr : src.data());
                if (form == 1) written = src;
            }
            std::vector<short> clamped(dst[0].size());
            for (size_t k = 0; k < clamped.size(); ++k) clamped[k] = static_cast<short>(std::min(std::max<int>(dst[0][k], 0), 1023));
            ASSERT_EQ(written, clamped) << "frame " << frame << " written back";
            EXPECT_EQ(reject[0], reject[1]) << frame;
            EXPECT_EQ(std::vector<int>(box[0], box[0] + 4), std::vector<int>(box[1], box[1] + 4)) << frame;
            ASSERT_EQ(dst[0], dst[1]) << "frame " << frame << " ambiguous " << ambiguousShare;
        }
}

}  // namespace

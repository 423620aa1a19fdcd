#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "features/feature_types.h"
#include "motion/motion_alignment.h"

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

}  // namespace

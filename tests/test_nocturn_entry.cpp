#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "registration/nocturn_entry.h"

namespace {

struct Burst {
    int width, height;
    std::vector<std::vector<short>> frames;
    std::vector<short*> ptrs;

    Burst(int w, int h, int count, unsigned seed) : width(w), height(h) {
        std::mt19937 rng(seed);
        std::uniform_int_distribution<int> sample(64, 400);
        frames.assign(count, std::vector<short>(static_cast<size_t>(w) * h));
        for (auto& f : frames)
            for (auto& v : f) v = static_cast<short>(sample(rng));
        for (auto& f : frames) ptrs.push_back(f.data());
    }
};

struct Result {
    std::vector<short> output;
    int usable = -1;
    USERZOOM zoom{-1, -1, -1, -1, -1};
};

Result run(Burst& burst, short* output, float gain) {
    Result r;
    qnNocturnPreProcess(burst.ptrs.data(), output, static_cast<int>(burst.ptrs.size()), &r.usable, burst.width,
                        burst.height, 1, 1000000, 0, &r.zoom, 0, 64, 64, 64, 0.0f, 0.0f, gain, 1.0f, 0.0f, 0.5f);
    r.output.assign(output, output + burst.width * burst.height);
    return r;
}

TEST(NocturnEntry, GainAtLeastOneBrightensElseCopies) {
    // With no feature threshold reachable the driver hands back the reference.
    Burst burst(64, 48, 5, 1);
    const std::vector<short> reference = burst.frames[2];
    std::vector<short> out(burst.frames[0].size());

    for (float gain : {0.99f, NAN, 1.0f}) {
        Result r = run(burst, out.data(), gain);
        EXPECT_EQ(r.output, reference) << gain;
        EXPECT_EQ(r.usable, 1);
        EXPECT_EQ(r.zoom.right, 63);
        EXPECT_EQ(r.zoom.bottom, 47);
    }
    Result bright = run(burst, out.data(), 2.0f);
    for (size_t p = 0; p < reference.size(); ++p) ASSERT_EQ(bright.output[p], (reference[p] - 64) * 2 + 64);
}

TEST(NocturnEntry, OutputAliasingAFrameKeepsTheReferenceIntact) {
    Burst plain(64, 48, 5, 2);
    std::vector<short> separate(plain.frames[0].size());
    const Result expected = run(plain, separate.data(), 1.5f);

    for (int alias : {2, 0}) {
        Burst burst(64, 48, 5, 2);
        const Result r = run(burst, burst.ptrs[alias], 1.5f);
        EXPECT_EQ(r.output, expected.output) << "output aliases frame " << alias;
        EXPECT_EQ(r.usable, expected.usable);
    }
}

}  // namespace

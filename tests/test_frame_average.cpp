#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <vector>

#include "registration/frame_average.h"
#include "registration/monotone_curve.h"

namespace {

using Frames = std::vector<std::vector<short>>;

std::vector<short> average(const Frames& frames, int width, int height, int* status = nullptr) {
    std::vector<const short*> ptrs;
    for (const auto& f : frames) ptrs.push_back(f.data());
    std::vector<short> out(static_cast<size_t>(width) * height, -7);
    const int s = frameAverage(ptrs.data(), out.data(), width, height, static_cast<int>(frames.size()));
    if (status) *status = s;
    return out;
}

TEST(FrameAverage, EveryCountRoundsTheMeanUp) {
    EXPECT_EQ(average({{3}, {4}}, 1, 1)[0], 4);
    EXPECT_EQ(average({{0}, {0}, {0}, {1}}, 1, 1)[0], 1);
    EXPECT_EQ(average({{1}, {1}, {2}}, 1, 1)[0], 2);
    EXPECT_EQ(average({{9}}, 1, 1)[0], 9);

    // Random samples against (sum + n - 1) / n for every count up to 16, over an
    // odd-length frame so that any blocking leaves a tail.
    std::mt19937 rng(7);
    for (int n = 1; n <= 16; ++n) {
        Frames frames(n, std::vector<short>(37 * 3));
        for (auto& f : frames)
            for (auto& v : f) v = static_cast<short>(rng() % 1024);
        const auto out = average(frames, 37, 3);
        for (size_t p = 0; p < out.size(); ++p) {
            int sum = n - 1;
            for (const auto& f : frames) sum += f[p];
            ASSERT_EQ(out[p], sum / n) << "n=" << n << " p=" << p;
        }
    }
    EXPECT_EQ(average(Frames(16, std::vector<short>(8, 1023)), 4, 2), std::vector<short>(8, 1023));
    int status = -1;
    EXPECT_EQ(average({}, 4, 2, &status), std::vector<short>(8, -7));  // no frames: untouched
    EXPECT_EQ(status, 0);
}

TEST(FrameAverage, SamplesOutsideTenBitsNeverReadPastTheTable) {
    // The caller's reference frame arrives unclamped: sums beyond the table are
    // divided directly (the sanitizer build catches any read past the table).
    Frames frames = {{1023, 4000, 32767, -5}, {1023, 4000, 32767, -5}, {1023, 4000, 32767, -5}};
    const auto out = average(frames, 4, 1);
    EXPECT_EQ(out[0], 1023);
    EXPECT_EQ(out[1], 4000);
    EXPECT_EQ(out[2], (65534 % 65536 + 32767 + 2) / 3);  // 16-bit wrapped partial sum
    EXPECT_EQ(out[3], (65526 + -5 + 2) / 3);
}

// The multiply-shift reciprocal against the division for every dividend below
// 2^15 (every 16-frame sum plus n - 1 is below 16 * 1024 + 15).
TEST(FrameAverage, ReciprocalIsExactForEveryDividend) {
    for (int n = 2; n <= 16; ++n) {
        const frame_average_detail::Reciprocal r = frame_average_detail::reciprocalFor(n);
        ASSERT_LT(r.multiplier, 65536u) << n;
        for (unsigned x = 0; x < 32768; ++x)
            ASSERT_EQ(((x * r.multiplier) >> 16) >> r.shift, x / static_cast<unsigned>(n)) << "n=" << n << " x=" << x;
    }
}

// The one-pass average against the table steps: lengths around the chunk size,
// every general count, chunks with samples outside 10 bits (which take the plain
// steps), and all frames at full scale.
TEST(FrameAverage, OnePassEqualsTheTableSteps) {
    std::mt19937 rng(8);
    std::uniform_int_distribution<int> tenBits(0, 1023), any(-32768, 32767);
    for (long count : {1L, 17L, 2047L, 2048L, 2049L, 6001L}) {
        for (int n : {3, 5, 6, 7, 11, 16}) {
            Frames frames(n, std::vector<short>(count));
            for (auto& f : frames)
                for (auto& v : f) v = static_cast<short>(tenBits(rng));
            if (count > 2048) frames[n - 1][count - 1] = static_cast<short>(any(rng));  // second chunk only
            if (n == 16 && count == 17) frames.assign(16, std::vector<short>(count, 1023));
            std::vector<const short*> ptrs;
            for (const auto& f : frames) ptrs.push_back(f.data());
            std::vector<short> plain(count, -7), fast(count, -7);
            frame_average_detail::averageTable(ptrs.data(), plain.data(), count, n);
            ASSERT_TRUE(frame_average_detail::framesApart(ptrs.data(), fast.data(), count, n));
            frame_average_detail::averageChunked(ptrs.data(), fast.data(), count, n);
            ASSERT_EQ(fast, plain) << "count " << count << " n " << n;
        }
    }
    std::vector<short> buffer(64);
    const short* overlapping[3] = {buffer.data(), buffer.data() + 32, buffer.data() + 8};
    EXPECT_FALSE(frame_average_detail::framesApart(overlapping, buffer.data() + 40, 16, 3));
    EXPECT_TRUE(frame_average_detail::framesApart(overlapping, buffer.data() + 48, 16, 3));
}

TEST(MonotoneCurve, SmoothstepBetweenTwoPointsAndLineThroughThree) {
    int xs2[] = {0, 255}, ys2[] = {0, 255};
    float* curve = getNInterpolation(xs2, ys2, 2);
    ASSERT_NE(curve, nullptr);
    EXPECT_EQ(curve[0], 0.0f);
    EXPECT_EQ(curve[255], 255.0f);
    for (int x = 1; x < 255; ++x) EXPECT_LE(curve[x - 1], curve[x]);
    const float t = 64.0f / 255.0f;
    EXPECT_NEAR(curve[64], 255.0f * (3 * t * t - 2 * t * t * t), 1e-3);  // zero end slopes
    std::free(curve);

    int xs3[] = {0, 10, 20}, ys3[] = {0, 10, 20};
    curve = getNInterpolation(xs3, ys3, 3);
    ASSERT_NE(curve, nullptr);
    for (int x = 0; x <= 20; ++x) EXPECT_NEAR(curve[x], static_cast<float>(x), 1e-4) << x;
    std::free(curve);

    int xs1[] = {5}, ys1[] = {42};
    curve = getNInterpolation(xs1, ys1, 1);
    ASSERT_NE(curve, nullptr);
    EXPECT_EQ(curve[5], 42.0f);
    EXPECT_EQ(curve[0], 0.0f);
    std::free(curve);
}

TEST(MonotoneCurve, DecreasingControlPointsStayInsideTheCurve) {
    int xs[] = {0, 30, 10}, ys[] = {0, 5, 9};
    float* curve = getNInterpolation(xs, ys, 3);  // 11 entries; the interval to 30 is clipped
    ASSERT_NE(curve, nullptr);
    EXPECT_EQ(curve[10], 9.0f);
    std::free(curve);
    int negative[] = {-4}, y[] = {1};
    EXPECT_EQ(getNInterpolation(negative, y, 1), nullptr);
}

}  // namespace

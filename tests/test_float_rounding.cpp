#include <gtest/gtest.h>

// The library's results depend on single-precision rounding of values computed in
// double. Some optimisers fold a double -> float -> double round trip away when
// two of them sit side by side; the build disables that, and this test fails if a
// build configuration lets it through again.
namespace {

__attribute__((noinline)) double source(int i) { return i == 0 ? 0.1 : 0.2; }

__attribute__((noinline)) void keep(const double* values, double* out) {
    out[0] = values[0];
    out[1] = values[1];
}

TEST(FloatRounding, AdjacentNarrowingConversionsKeepTheirRounding) {
    const double x = static_cast<float>(source(0)), y = static_cast<float>(source(1));
    const double column[3] = {x, y, 1.0};
    double out[2];
    keep(column, out);
    EXPECT_EQ(out[0], static_cast<double>(0.1f));
    EXPECT_EQ(out[1], static_cast<double>(0.2f));
}

}  // namespace

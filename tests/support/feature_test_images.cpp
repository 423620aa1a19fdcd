#include "support/feature_test_images.h"

#include <algorithm>

std::uint32_t TestRng::next() {
    // xorshift32
    state_ ^= state_ << 13;
    state_ ^= state_ >> 17;
    state_ ^= state_ << 5;
    return state_;
}

int TestRng::uniform(int lo, int hi) {
    return lo + static_cast<int>(next() % static_cast<std::uint32_t>(hi - lo + 1));
}

std::vector<unsigned char> randomBytes(std::size_t n, std::uint32_t seed) {
    TestRng rng(seed);
    std::vector<unsigned char> v(n);
    for (auto& b : v) b = static_cast<unsigned char>(rng.next() >> 24);
    return v;
}

std::vector<unsigned char> squaresImage(int width, int height, int squares, std::uint32_t seed) {
    TestRng rng(seed);
    std::vector<unsigned char> img(static_cast<std::size_t>(width) * height,
                                   static_cast<unsigned char>(rng.uniform(60, 190)));
    for (int k = 0; k < squares; ++k) {
        const int side = rng.uniform(4, 14);
        const int x0 = rng.uniform(0, width - 1);
        const int y0 = rng.uniform(0, height - 1);
        const auto grey = static_cast<unsigned char>(rng.uniform(0, 255));
        for (int y = y0; y < std::min(height, y0 + side); ++y)
            for (int x = x0; x < std::min(width, x0 + side); ++x) img[static_cast<std::size_t>(y) * width + x] = grey;
    }
    return img;
}

#pragma once

#include <cstdint>
#include <vector>

// Deterministic pseudo-random test data for the feature-detection tests (own
// generator, so the C library's rand() sequence is left alone).
class TestRng {
public:
    explicit TestRng(std::uint32_t seed) : state_(seed * 2654435761u + 1u) {}
    std::uint32_t next();
    int uniform(int lo, int hi);  // inclusive range

private:
    std::uint32_t state_;
};

std::vector<unsigned char> randomBytes(std::size_t n, std::uint32_t seed);

// A gray guide with random filled squares of random grey on a random
// background: many corners, few long straight edges.
std::vector<unsigned char> squaresImage(int width, int height, int squares, std::uint32_t seed);

#pragma once

#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include "imgcore/simd_dispatch.h"

// Helpers for the tests that compare fast paths with their plain definitions.
namespace fasttest {

// The compilations of the row kernels this processor runs (baseline always).
inline std::vector<KernelIsa> availableIsas() {
    std::vector<KernelIsa> isas = {KernelIsa::Baseline};
    if (cpuHasAvx2()) isas.push_back(KernelIsa::Avx2);
    if (cpuHasAvx512()) isas.push_back(KernelIsa::Avx512);
    return isas;
}

inline std::string isaName(KernelIsa isa) {
    return isa == KernelIsa::Avx512 ? "avx512" : isa == KernelIsa::Avx2 ? "avx2" : "baseline";
}

// n samples in [lo, hi], about a quarter of them at each extreme so that sums and
// products reach their limits.
template <typename T>
std::vector<T> randomSamples(std::mt19937& rng, std::size_t n, int lo, int hi) {
    std::uniform_int_distribution<int> value(lo, hi), pick(0, 3);
    std::vector<T> v(n);
    for (T& x : v) {
        const int p = pick(rng);
        x = static_cast<T>(p == 0 ? lo : p == 1 ? hi : value(rng));
    }
    return v;
}

}  // namespace fasttest

#pragma once

// Marks a hot, plainly written loop kernel to be compiled once more for wider
// vector units and picked at load time by the CPU it runs on (x86-64 with GCC
// only; elsewhere the one baseline build is used). The clones run the same
// IEEE operations in the same order, without fused multiply-add (contraction is
// off project-wide), so every clone gives the same results as the baseline.
//
// ThreadSanitizer builds use the baseline only: the load-time resolvers of the
// clones run before the sanitizer's runtime is ready and crash the program.
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && defined(__linux__) && \
    !defined(__SANITIZE_THREAD__)
#define KEP_SIMD_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define KEP_SIMD_CLONES
#endif

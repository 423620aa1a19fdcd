#pragma once

// Run-time choice between two compilations of the same row kernel. On x86-64 the
// hottest row kernels are compiled for the baseline instruction set and for AVX2
// (the same IEEE single- and double-precision operations on wider vectors; fused
// multiply-add is a separate feature that is never enabled, and -ffp-contract=off
// forbids contraction anyway), and the processor decides at run time. Elsewhere
// (AArch64) only the baseline exists and the AVX2 wrappers compile to baseline code.
//
// A kernel is written once as a KEP_KERNEL_BODY function and wrapped twice:
//   KEP_KERNEL_BODY void fooBody(...) { loops }
//   void fooBaseline(...) { fooBody(...); }
//   KEP_TARGET_AVX2 void fooAvx2(...) { fooBody(...); }
// Inlining the body into the AVX2 wrapper lets the vectoriser use AVX2 there. The
// fast paths that use such kernels take the KernelIsa to run as an argument (the
// callers pass bestKernelIsa()), so the tests run every compilation available on
// the machine and compare it with the plain definition.
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define KEP_HAVE_AVX2_KERNELS 1
#define KEP_TARGET_AVX2 __attribute__((target("avx2")))
inline bool cpuHasAvx2() { return __builtin_cpu_supports("avx2"); }
#else
#define KEP_HAVE_AVX2_KERNELS 0
#define KEP_TARGET_AVX2
inline bool cpuHasAvx2() { return false; }
#endif

#define KEP_KERNEL_BODY inline __attribute__((always_inline))

enum class KernelIsa { Baseline, Avx2 };

// The widest compilation this processor runs.
inline KernelIsa bestKernelIsa() {
    return KEP_HAVE_AVX2_KERNELS && cpuHasAvx2() ? KernelIsa::Avx2 : KernelIsa::Baseline;
}

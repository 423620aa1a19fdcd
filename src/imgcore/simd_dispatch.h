#pragma once

// Run-time choice between compilations of the same row kernel. On x86-64 the
// hottest row kernels are compiled for the baseline instruction set, for AVX2 and
// for AVX-512 (the same IEEE single- and double-precision operations on wider
// vectors; no fused multiply-add is ever written and -ffp-contract=off forbids
// contraction, so every compilation gives the same bits), and the processor decides
// at run time. Elsewhere (AArch64) only the baseline exists and the other wrappers
// compile to baseline code.
//
// A kernel is written once as a KEP_KERNEL_BODY function fooBody and wrapped by
//   KEP_ROW_KERNEL(foo, (parameters), (arguments))
// which defines fooBaseline, fooAvx2, fooAvx512 (the body inlined into each, so the
// vectoriser uses that instruction set there) and foo(KernelIsa isa, parameters)
// that runs the compilation asked for. The fast paths that use such kernels take
// the KernelIsa as an argument (their callers pass bestKernelIsa()), so the tests
// run every compilation this processor supports and compare it with the plain
// definition.
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define KEP_HAVE_WIDE_KERNELS 1
#define KEP_TARGET_AVX2 __attribute__((target("avx2")))
#define KEP_TARGET_AVX512 __attribute__((target("avx512f,avx512bw,avx512dq,avx512vl,prefer-vector-width=512")))
inline bool cpuHasAvx2() { return __builtin_cpu_supports("avx2"); }
inline bool cpuHasAvx512() {
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
           __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl");
}
#else
#define KEP_HAVE_WIDE_KERNELS 0
#define KEP_TARGET_AVX2
#define KEP_TARGET_AVX512
inline bool cpuHasAvx2() { return false; }
inline bool cpuHasAvx512() { return false; }
#endif

#define KEP_KERNEL_BODY inline __attribute__((always_inline))

enum class KernelIsa { Baseline, Avx2, Avx512 };

// The widest compilation this processor runs.
inline KernelIsa bestKernelIsa() {
    if (KEP_HAVE_WIDE_KERNELS && cpuHasAvx512()) return KernelIsa::Avx512;
    if (KEP_HAVE_WIDE_KERNELS && cpuHasAvx2()) return KernelIsa::Avx2;
    return KernelIsa::Baseline;
}

// The compilation every dispatched kernel runs in this process: chosen once, the
// widest this processor runs, unless the environment variable KEP_ISA names another
// (baseline, avx2 or avx512); a target the processor cannot run, or an unknown
// name, is reported once on standard error and the widest one is used.
KernelIsa activeKernelIsa();

// The targets this processor runs, baseline first.
int supportedKernelIsas(KernelIsa* out);

#define KEP_UNPARENTHESISE(...) __VA_ARGS__

#define KEP_ROW_KERNEL(name, parameters, arguments)                                            \
    void name##Baseline parameters { name##Body arguments; }                                   \
    KEP_TARGET_AVX2 void name##Avx2 parameters { name##Body arguments; }                       \
    KEP_TARGET_AVX512 void name##Avx512 parameters { name##Body arguments; }                   \
    void name(KernelIsa isa, KEP_UNPARENTHESISE parameters) {                                  \
        switch (isa) {                                                                         \
            case KernelIsa::Avx512: name##Avx512 arguments; break;                             \
            case KernelIsa::Avx2: name##Avx2 arguments; break;                                 \
            default: name##Baseline arguments; break;                                          \
        }                                                                                      \
    }

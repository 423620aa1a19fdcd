#include "imgcore/simd_dispatch.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

bool runs(KernelIsa isa) {
    switch (isa) {
        case KernelIsa::Avx512: return KEP_HAVE_WIDE_KERNELS && cpuHasAvx512();
        case KernelIsa::Avx2: return KEP_HAVE_WIDE_KERNELS && cpuHasAvx2();
        default: return true;
    }
}

KernelIsa chooseKernelIsa() {
    const KernelIsa best = bestKernelIsa();
    const char* asked = std::getenv("KEP_ISA");
    if (asked == nullptr || *asked == '\0') return best;
    KernelIsa isa;
    if (std::strcmp(asked, "baseline") == 0) isa = KernelIsa::Baseline;
    else if (std::strcmp(asked, "avx2") == 0) isa = KernelIsa::Avx2;
    else if (std::strcmp(asked, "avx512") == 0) isa = KernelIsa::Avx512;
    else {
        std::fprintf(stderr, "KEP_ISA=%s: unknown target (baseline, avx2, avx512); using the widest supported\n", asked);
        return best;
    }
    if (!runs(isa)) {
        std::fprintf(stderr, "KEP_ISA=%s: this processor cannot run it; using the widest supported\n", asked);
        return best;
    }
    return isa;
}

}  // namespace

KernelIsa activeKernelIsa() {
    static const KernelIsa isa = chooseKernelIsa();
    return isa;
}

int supportedKernelIsas(KernelIsa* out) {
    int n = 0;
    for (KernelIsa isa : {KernelIsa::Baseline, KernelIsa::Avx2, KernelIsa::Avx512})
        if (runs(isa)) out[n++] = isa;
    return n;
}

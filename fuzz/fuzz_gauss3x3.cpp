// Fixed-point 3x3 blur: fuzzer-chosen sizes, strides, kernel and pixels, and the
// sigma-driven wrapper. Buffers are exactly as large as the strides say; the
// optimised passes must equal the plain per-pixel form, which must not read outside
// the image either.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "features/gauss3x3.h"
#include "fuzz_support.h"

namespace {

size_t spanOf(int width, int height, int stride) {
    return height > 0 && width > 0 ? static_cast<size_t>(height - 1) * stride + width : 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider fdp(data, size);
    const int width = fdp.ConsumeIntegralInRange<int>(0, 72);
    const int height = fdp.ConsumeIntegralInRange<int>(0, 24);
    const int srcPad = fdp.ConsumeIntegralInRange<int>(0, 9);
    const int dstPad = fdp.ConsumeIntegralInRange<int>(0, 9);
    const bool useSigma = fdp.ConsumeIntegralInRange<int>(0, 3) == 0;
    uint8_t kernel[3];
    for (uint8_t& k : kernel) k = fdp.ConsumeIntegral<uint8_t>();
    const float sigma = fdp.ConsumeFloatingPointInRange<float>(0.0f, 8.0f);
    // A stride of 0 stands for the width.
    const int srcStride = srcPad == 0 ? 0 : width + srcPad, dstStride = dstPad == 0 ? 0 : width + dstPad;

    fuzz::TightBuffer<uint8_t> src(spanOf(width, height, width + srcPad));
    const std::vector<uint8_t> pixels = fdp.ConsumeBytes<uint8_t>(src.size());
    for (size_t i = 0; i < src.size(); ++i) src[i] = i < pixels.size() ? pixels[i] : static_cast<uint8_t>(i * 29);
    fuzz::TightBuffer<uint8_t> fast(spanOf(width, height, width + dstPad)), plain(fast.size());
    for (size_t i = 0; i < fast.size(); ++i) fast[i] = plain[i] = static_cast<uint8_t>(0x3C ^ i);

    if (useSigma) {
        // The wrapper works with strides equal to the width.
        fuzz::TightBuffer<uint8_t> tight(spanOf(width, height, width)), out(tight.size()), want(tight.size());
        for (size_t i = 0; i < tight.size(); ++i) tight[i] = static_cast<uint8_t>(i < pixels.size() ? pixels[i] : i);
        for (size_t i = 0; i < out.size(); ++i) out[i] = want[i] = 0x77;
        FUZZ_CHECK(qnGauss3x3Filter(tight.data(), out.data(), width, height, sigma) == 0);
        const int side = gauss3x3SideWeight(sigma);
        if (side > 0) {
            const uint8_t k[3] = {static_cast<uint8_t>(side), static_cast<uint8_t>(256 - 2 * side),
                                  static_cast<uint8_t>(side)};
            FUZZ_CHECK(gauss3x3U8Plain(tight.data(), want.data(), width, height, 0, 0, k) == 0);
            FUZZ_CHECK(fuzz::sameBytes(out.data(), want.data(), out.size()));
        }
        return 0;
    }

    FUZZ_CHECK(gauss3x3_u8(src.data(), fast.data(), width, height, srcStride, dstStride, kernel) == 0);
    FUZZ_CHECK(gauss3x3U8Plain(src.data(), plain.data(), width, height, srcStride, dstStride, kernel) == 0);
    FUZZ_CHECK(fuzz::sameBytes(fast.data(), plain.data(), fast.size()));
    return 0;
}

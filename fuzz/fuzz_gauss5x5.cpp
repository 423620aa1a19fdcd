// Separable 5x5 byte filter: fuzzer-chosen sizes, strides (0 or padded), kernel,
// pixels, and in-place use. Buffers are exactly as large as the strides say (no
// padding after the last row), and the result must equal the per-pixel definition:
// interior pixels filtered, the two outermost rows and columns untouched.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_support.h"
#include "imgcore/gauss5x5.h"

namespace {

size_t spanOf(int width, int height, int stride) {
    return height > 0 && width > 0 ? static_cast<size_t>(height - 1) * stride + width : 0;
}

// The plain definition: 16-bit wrapped horizontal taps, 32-bit vertical taps, scaled
// by the single-precision reciprocal of S*S and truncated (S = 0 gives 0).
void reference(const uint8_t* src, uint8_t* dst, int width, int height, int srcStride, int dstStride,
               const uint8_t* k) {
    if (width < 5 || height < 5) return;
    const int sum = k[0] + k[1] + k[2] + k[3] + k[4];
    const float recip = sum == 0 ? 0.0f : 1.0f / static_cast<float>(sum * sum);
    auto t = [&](int y, int x) {
        const uint8_t* s = src + static_cast<size_t>(y) * srcStride;
        return static_cast<uint16_t>(k[0] * s[x - 2] + k[1] * s[x - 1] + k[2] * s[x] + k[3] * s[x + 1] + k[4] * s[x + 2]);
    };
    for (int y = 2; y < height - 2; ++y)
        for (int x = 2; x < width - 2; ++x) {
            uint32_t u = 0;
            for (int i = 0; i < 5; ++i) u += static_cast<uint32_t>(k[i]) * t(y - 2 + i, x);
            dst[static_cast<size_t>(y) * dstStride + x] =
                static_cast<uint8_t>(static_cast<uint32_t>(static_cast<float>(u) * recip));
        }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider fdp(data, size);
    const int width = fdp.ConsumeIntegralInRange<int>(0, 80);
    const int height = fdp.ConsumeIntegralInRange<int>(0, 40);
    const bool inPlace = fdp.ConsumeIntegralInRange<int>(0, 3) == 0;
    const int srcPad = fdp.ConsumeIntegralInRange<int>(0, 9);
    const int dstPad = inPlace ? srcPad : fdp.ConsumeIntegralInRange<int>(0, 9);
    uint8_t kernel[5];
    for (uint8_t& k : kernel) k = fdp.ConsumeIntegral<uint8_t>();
    // A stride of 0 stands for the width.
    const int srcStride = srcPad == 0 && fdp.ConsumeBool() ? 0 : width + srcPad;
    const int dstStride = inPlace ? srcStride : (dstPad == 0 && fdp.ConsumeBool() ? 0 : width + dstPad);
    const int srcRow = srcStride == 0 ? width : srcStride, dstRow = dstStride == 0 ? width : dstStride;

    fuzz::TightBuffer<uint8_t> src(spanOf(width, height, srcRow));
    const std::vector<uint8_t> pixels = fdp.ConsumeBytes<uint8_t>(src.size());
    for (size_t i = 0; i < src.size(); ++i) src[i] = i < pixels.size() ? pixels[i] : static_cast<uint8_t>(i * 37);
    const std::vector<uint8_t> srcCopy(src.data(), src.data() + src.size());

    fuzz::TightBuffer<uint8_t> separate(inPlace ? 0 : spanOf(width, height, dstRow));
    for (size_t i = 0; i < separate.size(); ++i) separate[i] = static_cast<uint8_t>(0xA5 ^ i);
    uint8_t* dst = inPlace ? src.data() : separate.data();
    const size_t dstSize = inPlace ? src.size() : separate.size();

    std::vector<uint8_t> expected(dst, dst + dstSize);
    reference(srcCopy.data(), expected.data(), width, height, srcRow, dstRow, kernel);

    FUZZ_CHECK(gauss5x5_u8(src.data(), dst, width, height, srcStride, dstStride, kernel) == 0);
    FUZZ_CHECK(fuzz::sameBytes(dst, expected.data(), dstSize));
    if (!inPlace) FUZZ_CHECK(fuzz::sameBytes(src.data(), srcCopy.data(), src.size()));
    return 0;
}

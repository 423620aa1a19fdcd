// Sparse-tap Bayer filter (short samples, int kernel): fuzzer-chosen sizes, byte
// strides, radius, steps, rounding and kernel. Buffers are exactly as large as the
// strides say. On error nothing may be written; on success filtering in place must
// give what filtering into a separate buffer gives.
#include <fuzzer/FuzzedDataProvider.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_support.h"
#include "imgcore/border_filter.h"

namespace {

size_t spanOf(int width, int height, int strideSamples) {
    return height > 0 && width > 0 ? static_cast<size_t>(height - 1) * strideSamples + width : 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using zel::cpp::imgproc::multiChannelFilterBorderCopy_v00;
    FuzzedDataProvider fdp(data, size);
    const int width = fdp.ConsumeIntegralInRange<int>(0, 24);
    const int height = fdp.ConsumeIntegralInRange<int>(0, 24);
    const int radius = fdp.ConsumeIntegralInRange<int>(-1, 4);
    const int stepY = fdp.ConsumeIntegralInRange<int>(0, 3);
    const int stepX = fdp.ConsumeIntegralInRange<int>(0, 3);
    const bool round = fdp.ConsumeBool();
    const int srcPad = fdp.ConsumeIntegralInRange<int>(0, 5);
    const int dstPad = fdp.ConsumeIntegralInRange<int>(0, 5);
    const bool wideKernel = fdp.ConsumeBool();  // any int, else small non-negative weights

    const int taps = radius >= 0 ? 2 * radius + 1 : 1;
    std::vector<int> kernel(static_cast<size_t>(taps * taps));
    for (int& k : kernel)
        k = wideKernel ? fdp.ConsumeIntegral<int>() : fdp.ConsumeIntegralInRange<int>(0, 64);

    // Strides in bytes; 0 stands for width * sizeof(short).
    const int srcRow = width + srcPad, dstRow = width + dstPad;
    const int srcStrideBytes = srcPad == 0 ? 0 : srcRow * 2;
    const int dstStrideBytes = dstPad == 0 ? 0 : dstRow * 2;

    fuzz::TightBuffer<short> src(spanOf(width, height, srcRow));
    for (size_t i = 0; i < src.size(); ++i) src[i] = fdp.ConsumeIntegral<short>();
    fuzz::TightBuffer<short> dst(spanOf(width, height, dstRow));
    for (size_t i = 0; i < dst.size(); ++i) dst[i] = static_cast<short>(0x5A5A ^ i);
    const std::vector<short> srcBefore(src.data(), src.data() + src.size());
    const std::vector<short> dstBefore(dst.data(), dst.data() + dst.size());

    const int status = multiChannelFilterBorderCopy_v00<short, int>(src.data(), dst.data(), width, height,
                                                                    srcStrideBytes, dstStrideBytes, kernel.data(),
                                                                    radius, stepY, stepX, round);
    FUZZ_CHECK(status == 0 || status == -4);
    FUZZ_CHECK(fuzz::sameBytes(src.data(), srcBefore.data(), src.size() * sizeof(short)));
    if (status != 0) {
        FUZZ_CHECK(fuzz::sameBytes(dst.data(), dstBefore.data(), dst.size() * sizeof(short)));
        return 0;
    }

    // In place, same stride as the source: must equal the separate result row by row.
    const int again = multiChannelFilterBorderCopy_v00<short, int>(src.data(), src.data(), width, height,
                                                                   srcStrideBytes, srcStrideBytes, kernel.data(),
                                                                   radius, stepY, stepX, round);
    FUZZ_CHECK(again == 0);
    for (int y = 0; y < height; ++y)
        FUZZ_CHECK(fuzz::sameBytes(src.data() + static_cast<size_t>(y) * srcRow, dst.data() + static_cast<size_t>(y) * dstRow,
                               static_cast<size_t>(width) * sizeof(short)));
    return 0;
}

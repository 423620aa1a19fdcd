// Raw Bayer warp of one rectangle: fuzzer-chosen quad grid, rectangle inside it,
// model (near identity, a general affine map, or any finite values) and
// accumulator state. The frames are exactly quadCols*2 x quadRows*2 samples. Only
// quads of the rectangle may be written, the source never, and the reported rows
// are the accumulators' values.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <vector>

#include "fuzz_support.h"
#include "motion/matrix.h"
#include "registration/raw_warp.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider fdp(data, size);
    const int quadCols = fdp.ConsumeIntegralInRange<int>(1, 24);
    const int quadRows = fdp.ConsumeIntegralInRange<int>(1, 24);
    Rect region;
    region.x = fdp.ConsumeIntegralInRange<int>(0, quadCols);
    region.y = fdp.ConsumeIntegralInRange<int>(0, quadRows);
    region.width = fdp.ConsumeIntegralInRange<int>(0, quadCols - region.x);
    region.height = fdp.ConsumeIntegralInRange<int>(0, quadRows - region.y);

    double h[9];
    const int kind = fdp.ConsumeIntegralInRange<int>(0, 2);
    for (int i = 0; i < 9; ++i) {
        const bool diagonal = i == 0 || i == 4 || i == 8;
        if (kind == 0)  // small motion of a hand-held burst, in guide pixels
            h[i] = (diagonal ? 1.0 : 0.0) + fdp.ConsumeFloatingPointInRange<double>(i == 2 || i == 5 ? -8.0 : -0.05,
                                                                                   i == 2 || i == 5 ? 8.0 : 0.05);
        else if (kind == 1)
            h[i] = fdp.ConsumeFloatingPointInRange<double>(-64.0, 64.0);
        else
            h[i] = fdp.ConsumeFloatingPoint<double>();  // finite, any magnitude
    }
    Matrix model = matrixWrap(h, 3, 3);

    const size_t samples = static_cast<size_t>(quadCols) * 2 * quadRows * 2;
    fuzz::TightBuffer<short> src(samples), dst(samples);
    for (size_t i = 0; i < samples; ++i) {
        src[i] = static_cast<short>(fdp.ConsumeIntegralInRange<int>(0, 1023));
        dst[i] = -1;
    }
    const std::vector<short> srcBefore(src.data(), src.data() + samples);

    int topAcc = fdp.ConsumeIntegralInRange<int>(-2, quadRows + 1);
    int bottomAcc = fdp.ConsumeIntegralInRange<int>(-2, quadRows + 1);
    int reportedTop = -99, reportedBottom = -99;
    FUZZ_CHECK(qnWarpImgRaw(region, model, quadCols, quadRows, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr,
                            nullptr, nullptr, nullptr, &reportedTop, &reportedBottom, src.data(), dst.data(), &topAcc,
                            &bottomAcc) == 0);
    FUZZ_CHECK(reportedTop == topAcc && reportedBottom == bottomAcc);
    if (region.x == 0 && region.y == 0) FUZZ_CHECK(topAcc >= 0 && bottomAcc <= quadRows - 1);

    const int width = 2 * quadCols;
    for (size_t i = 0; i < samples; ++i) {
        FUZZ_CHECK(src[i] == srcBefore[i]);
        const int qx = static_cast<int>(i % width) / 2, qy = static_cast<int>(i / width) / 2;
        const bool inside = qx >= region.x && qx < region.x + region.width && qy >= region.y &&
                            qy < region.y + region.height;
        if (!inside) FUZZ_CHECK(dst[i] == -1);
    }
    return 0;
}

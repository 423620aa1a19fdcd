#include "registration/sharpness.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "imgcore/fast_paths.h"
#include "imgcore/gauss5x5.h"
#include "imgcore/simd_clones.h"

namespace {

const unsigned char kBlurKernel[5] = {1, 2, 4, 2, 1};

// The sharpest frame other than the reference; 0 (whose score is 0) when no
// other frame has a positive score. Ties keep the lower index.
int sharpestOther(const std::vector<float>& score, int frameCount, int reference) {
    int best = 0;
    float max = 0.0f;
    if (reference != 2 && score[2] > 0.0f) {
        best = 2;
        max = score[2];
    }
    for (int i = 3; i < frameCount; ++i) {
        if (i == reference) continue;
        if (score[i] > max) {
            best = i;
            max = score[i];
        }
    }
    return best;
}

// Sobel magnitude test for one mask row, x in [5, width-6]. The differences of
// 8-bit values stay within +-1020, so int arithmetic equals the 16-bit signed
// form and gx^2 + gy^2 fits 32 bits.
void edgeRow(const uint8_t* __restrict up, const uint8_t* __restrict mid, const uint8_t* __restrict down,
             uint8_t* __restrict out, int width, uint32_t threshold2) {
    for (int x = 5; x < width - 5; ++x) {
        const int gx = up[x - 1] + 2 * mid[x - 1] + down[x - 1] - up[x + 1] - 2 * mid[x + 1] - down[x + 1];
        const int gy = up[x - 1] + 2 * up[x] + up[x + 1] - down[x - 1] - 2 * down[x] - down[x + 1];
        const uint32_t mag = static_cast<uint32_t>(gx * gx + gy * gy);
        out[x] = mag >= threshold2 ? 255 : 0;
    }
}

}  // namespace

float sharpness_detail::differenceSumPlain(const unsigned char* a, const unsigned char* b, std::size_t n) {
    float sum = 0.0f;
    for (std::size_t i = 0; i < n; ++i) sum += static_cast<float>(std::abs(a[i] - b[i]));
    return sum;
}

namespace {

KEP_SIMD_CLONES
std::uint64_t differenceTotal(const unsigned char* __restrict a, const unsigned char* __restrict b, std::size_t n) {
    std::uint64_t total = 0;
    for (std::size_t i = 0; i < n; ++i) total += static_cast<std::uint32_t>(std::abs(a[i] - b[i]));
    return total;
}

}  // namespace

// The terms are whole numbers >= 0, so every partial sum is at most the total:
// while the total stays below 2^24, every single-precision addition is exact and
// the sum in pixel order is the integer total itself.
float sharpness_detail::differenceSum(const unsigned char* a, const unsigned char* b, std::size_t n) {
    if (kUseFastPaths) {
        const std::uint64_t total = differenceTotal(a, b, n);
        if (total < (1u << 24)) return static_cast<float>(total);
    }
    return differenceSumPlain(a, b, n);
}

float guideSharpness(const unsigned char* guide, unsigned char* blur, int width, int height) {
    gauss5x5_u8(guide, blur, width, height, width, width, kBlurKernel);
    const std::size_t n = width > 0 && height > 0 ? static_cast<std::size_t>(width) * height : 0;
    return sharpness_detail::differenceSum(guide, blur, n) / static_cast<float>(width * height);
}

void getClearestFrame(unsigned char** guides, int frameCount, int* referenceIndex, char* rejectFlags,
                      float sharpnessRatio, int width, int height) {
    if (frameCount < 3 || guides == nullptr || referenceIndex == nullptr || rejectFlags == nullptr) return;
    const int reference = *referenceIndex;
    if (reference < 0 || reference >= frameCount) return;

    // Entries 0 and 1 stay 0: those frames are not scored.
    std::vector<float> score(static_cast<std::size_t>(frameCount), 0.0f);
    {
        const std::size_t n = width > 0 && height > 0 ? static_cast<std::size_t>(width) * height : 0;
        std::vector<unsigned char> blur(n, 0);  // border stays 0 for every frame
        for (int i = 2; i < frameCount; ++i) score[i] = guideSharpness(guides[i], blur.data(), width, height);
    }

    const int best = sharpestOther(score, frameCount, reference);
    const float refScore = score[reference];
    const float margin = (refScore - score[best]) / refScore;

    if (static_cast<double>(margin) >= 0.02 || std::isnan(margin)) {
        // The reference is clearly the sharpest, or the scores say nothing.
        for (int i = 2; i < frameCount; ++i) rejectFlags[i] = i != reference ? 1 : 0;
        return;
    }
    for (int i = 2; i < frameCount; ++i) {
        if (i == best || i == reference) continue;
        rejectFlags[i] = score[i] / score[best] < sharpnessRatio ? 1 : 0;
    }
}

void edgeDetection(unsigned char* src, unsigned char* mask, int width, int height, int threshold) {
    if (mask == nullptr || width <= 0 || height <= 0) return;
    const std::size_t w = static_cast<std::size_t>(width);
    std::memset(mask, 0, w * static_cast<std::size_t>(height));
    if (src == nullptr || height < 11 || width < 18) return;

    std::vector<uint8_t> blurred(src, src + w * static_cast<std::size_t>(height));
    gauss5x5_u8(blurred.data(), blurred.data(), width, height, width, width, kBlurKernel);

    // threshold^2 as the target's 32-bit product, without signed overflow.
    const uint32_t threshold2 = static_cast<uint32_t>(threshold) * static_cast<uint32_t>(threshold);
    for (int y = 5; y < height - 5; ++y) {
        const uint8_t* b = blurred.data() + y * w;
        edgeRow(b - w, b, b + w, mask + y * w, width, threshold2);
    }
}

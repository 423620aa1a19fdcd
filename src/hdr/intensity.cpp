#include "hdr/intensity.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <vector>

#include "hdr/bayer_filter.h"
#include "hdr/extended_stripes.h"

namespace {

// Border of the extended copy: one sample, enough for the 3x3 neighbourhood.
constexpr int kLumaBorder = 1;

enum class Site { Red, Blue, GreenInRedRow, GreenInBlueRow };

// Colour of the site at the given row and column parity of the source image, for the
// pattern codes 0..3 (which colour sits at the top-left of each quad).
Site siteAt(int bayerPattern, int rowParity, int colParity) {
    static const Site kSites[4][2][2] = {
        {{Site::Red, Site::GreenInRedRow}, {Site::GreenInBlueRow, Site::Blue}},
        {{Site::Blue, Site::GreenInBlueRow}, {Site::GreenInRedRow, Site::Red}},
        {{Site::GreenInRedRow, Site::Red}, {Site::Blue, Site::GreenInBlueRow}},
        {{Site::GreenInBlueRow, Site::Blue}, {Site::Red, Site::GreenInRedRow}},
    };
    return kSites[bayerPattern][rowParity][colParity];
}

// Colour planes of one output row, indexed by column - colStart.
struct RowColours {
    std::vector<int> r, g, b;
    explicit RowColours(int n) : r(n), g(n), b(n) {}
};

// Bilinear colour at the sites of one kind on one row: columns first, first + 2, ...
// below colEnd. Integer sums, truncating integer division.
void interpolateSites(Site site, const short* up, const short* mid, const short* down, int first, int colEnd,
                      int colStart, RowColours& out) {
    int* R = out.r.data() - colStart;
    int* G = out.g.data() - colStart;
    int* B = out.b.data() - colStart;
    switch (site) {
        case Site::Red:
            for (int c = first; c < colEnd; c += 2) {
                R[c] = mid[c];
                G[c] = (up[c] + down[c] + mid[c - 1] + mid[c + 1]) / 4;
                B[c] = (up[c - 1] + up[c + 1] + down[c - 1] + down[c + 1]) / 4;
            }
            break;
        case Site::Blue:
            for (int c = first; c < colEnd; c += 2) {
                B[c] = mid[c];
                G[c] = (up[c] + down[c] + mid[c - 1] + mid[c + 1]) / 4;
                R[c] = (up[c - 1] + up[c + 1] + down[c - 1] + down[c + 1]) / 4;
            }
            break;
        case Site::GreenInRedRow:
            for (int c = first; c < colEnd; c += 2) {
                G[c] = mid[c];
                R[c] = (mid[c - 1] + mid[c + 1]) / 2;
                B[c] = (up[c] + down[c]) / 2;
            }
            break;
        case Site::GreenInBlueRow:
            for (int c = first; c < colEnd; c += 2) {
                G[c] = mid[c];
                B[c] = (mid[c - 1] + mid[c + 1]) / 2;
                R[c] = (up[c] + down[c]) / 2;
            }
            break;
    }
}

// 0.8 * luma + 0.2 * max(R, G, B), luma in double precision, the mix in single
// precision, clamped to [0, 1023] and truncated.
void storeIntensity(const RowColours& colours, int n, unsigned short* out) {
    const int* R = colours.r.data();
    const int* G = colours.g.data();
    const int* B = colours.b.data();
    for (int i = 0; i < n; ++i) {
        const double luma = static_cast<double>(G[i]) * 0.587 + static_cast<double>(R[i]) * 0.299 +
                            static_cast<double>(B[i]) * 0.114;
        const int brightest = std::max(R[i], std::max(G[i], B[i]));
        float value = static_cast<float>(luma) * 0.8f + static_cast<float>(brightest) * 0.2f;
        value = value < 0.0f ? 0.0f : value;
        value = value > 1023.0f ? 1023.0f : value;
        // Clamped to [0, 1023] just above: the cast is in range.
        out[i] = static_cast<unsigned short>(static_cast<int>(value));
    }
}

}  // namespace

short* calculateLuma(short* extended, unsigned short* intensity, int rowStart, int rowEnd, int colStart, int colEnd,
                     int border, int extendedStride, int outWidth, int bayerPattern) {
    if (bayerPattern < 0 || bayerPattern > 3) return extended;
    if (rowEnd <= rowStart || colEnd <= colStart) return extended;

    const int n = colEnd - colStart;
    RowColours colours(n);
    for (int r = rowStart; r < rowEnd; ++r) {
        const short* mid = extended + static_cast<std::ptrdiff_t>(r) * extendedStride;
        const short* up = mid - extendedStride;
        const short* down = mid + extendedStride;
        const int rowParity = (r - border) & 1;
        for (int colParity = 0; colParity < 2; ++colParity) {
            const int first = colStart + ((((colStart - border) & 1) != colParity) ? 1 : 0);
            interpolateSites(siteAt(bayerPattern, rowParity, colParity), up, mid, down, first, colEnd, colStart,
                             colours);
        }
        storeIntensity(colours, n,
                       intensity + static_cast<std::ptrdiff_t>(r - border) * outWidth + (colStart - border));
    }
    return extended;
}

void singleImageIntensityEstimation(short* frame, unsigned short* intensity, int height, int width,
                                    float /*reservedA*/, float /*reservedB*/, int bayerPattern) {
    if (width <= 0 || height <= 0) return;
    const int stride = width + 2 * kLumaBorder;
    std::unique_ptr<short[]> extended(
        new short[static_cast<std::size_t>(stride) * (static_cast<std::size_t>(height) + 2 * kLumaBorder)]);
    imageExtensionForBayer_short(frame, extended.get(), kLumaBorder, height, width);
    runOnExtendedStripes(height, kLumaBorder, [&](int rowStart, int rowEnd) {
        calculateLuma(extended.get(), intensity, rowStart, rowEnd, kLumaBorder, width + kLumaBorder, kLumaBorder,
                      stride, width, bayerPattern);
    });
}

void intensityEstimation(std::vector<short*>* frames, std::vector<unsigned short*>* intensities, int width,
                         int height, int frameCount, int redGain, int blueGain, int bayerPattern) {
    if (frames == nullptr || intensities == nullptr) return;
    const int count = std::min<long long>({static_cast<long long>(frameCount), static_cast<long long>(frames->size()),
                                           static_cast<long long>(intensities->size())});
    for (int k = 0; k < count; ++k)
        singleImageIntensityEstimation((*frames)[k], (*intensities)[k], height, width, static_cast<float>(redGain),
                                       static_cast<float>(blueGain), bayerPattern);
}

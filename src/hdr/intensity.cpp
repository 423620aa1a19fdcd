#include "hdr/intensity.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <vector>

#include "hdr/bayer_filter.h"
#include "hdr/extended_stripes.h"
#include "imgcore/fast_paths.h"
#include "imgcore/simd_dispatch.h"

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

// Intensity of the pixel at column c of the row `mid` (rows `up` and `down` above
// and below, columns c - 1 and c + 1 readable): bilinear colour with integer sums and
// truncating division, 0.8 * luma (double precision) + 0.2 * max(R, G, B) in single
// precision, clamped to [0, 1023] and truncated.
template <Site S>
KEP_KERNEL_BODY unsigned short intensityAt(const short* up, const short* mid, const short* down, int c) {
    int R, G, B;
    if (S == Site::Red || S == Site::Blue) {
        const int own = mid[c];
        const int cross = (up[c] + down[c] + mid[c - 1] + mid[c + 1]) / 4;
        const int diagonal = (up[c - 1] + up[c + 1] + down[c - 1] + down[c + 1]) / 4;
        G = cross;
        R = S == Site::Red ? own : diagonal;
        B = S == Site::Red ? diagonal : own;
    } else {
        const int across = (mid[c - 1] + mid[c + 1]) / 2;
        const int along = (up[c] + down[c]) / 2;
        G = mid[c];
        R = S == Site::GreenInRedRow ? across : along;
        B = S == Site::GreenInRedRow ? along : across;
    }
    const double luma =
        static_cast<double>(G) * 0.587 + static_cast<double>(R) * 0.299 + static_cast<double>(B) * 0.114;
    const int brightest = std::max(R, std::max(G, B));
    float value = static_cast<float>(luma) * 0.8f + static_cast<float>(brightest) * 0.2f;
    value = value < 0.0f ? 0.0f : value;
    value = value > 1023.0f ? 1023.0f : value;
    // Clamped to [0, 1023] just above: the cast is in range.
    return static_cast<unsigned short>(static_cast<int>(value));
}

unsigned short intensityOfSite(Site site, const short* up, const short* mid, const short* down, int c) {
    switch (site) {
        case Site::Red: return intensityAt<Site::Red>(up, mid, down, c);
        case Site::Blue: return intensityAt<Site::Blue>(up, mid, down, c);
        case Site::GreenInRedRow: return intensityAt<Site::GreenInRedRow>(up, mid, down, c);
        case Site::GreenInBlueRow: return intensityAt<Site::GreenInBlueRow>(up, mid, down, c);
    }
    return 0;
}

// Fast row form: pairs of columns (c, c + 1) with the site classes of the row's
// even and odd columns fixed at compile time, so that the loop has no branches and
// vectorises (stride-two loads, two stores per pair). Each pixel gets exactly the
// arithmetic of intensityAt.
template <Site Even, Site Odd>
KEP_KERNEL_BODY void intensityPairs(const short* up, const short* mid, const short* down, unsigned short* out,
                                    int first, int pairs) {
    for (int j = 0; j < pairs; ++j) {
        const int c = first + 2 * j;
        out[c] = intensityAt<Even>(up, mid, down, c);
        out[c + 1] = intensityAt<Odd>(up, mid, down, c + 1);
    }
}

// Intensities of n pixels of one row, starting at the column the pointers point at
// (out[c] belongs to mid[c]); `parity` is that column's parity in source
// coordinates. Along a row the sites alternate, so the first site fixes the pair.
KEP_KERNEL_BODY void intensityRowBody(const short* up, const short* mid, const short* down, unsigned short* out,
                                      int n, int bayerPattern, int rowParity, int parity) {
    const Site first = siteAt(bayerPattern, rowParity, parity);
    const int pairs = n / 2;
    if (first == Site::Red)
        intensityPairs<Site::Red, Site::GreenInRedRow>(up, mid, down, out, 0, pairs);
    else if (first == Site::Blue)
        intensityPairs<Site::Blue, Site::GreenInBlueRow>(up, mid, down, out, 0, pairs);
    else if (first == Site::GreenInRedRow)
        intensityPairs<Site::GreenInRedRow, Site::Red>(up, mid, down, out, 0, pairs);
    else
        intensityPairs<Site::GreenInBlueRow, Site::Blue>(up, mid, down, out, 0, pairs);
    if (n % 2 != 0) out[n - 1] = intensityOfSite(first, up, mid, down, n - 1);
}

KEP_ROW_KERNEL(intensityRow,
               (const short* up, const short* mid, const short* down, unsigned short* out, int n, int bayerPattern,
                int rowParity, int parity),
               (up, mid, down, out, n, bayerPattern, rowParity, parity))

// Fast path of singleImageIntensityEstimation without the extended copy: each
// worker keeps its rows and the two around them in three padded row buffers. The
// border of one sample repeats the sample two positions inward (same Bayer site):
// row -1 is row 1, row height is row height - 2, and the same for columns, which
// for sides of at least two samples is exactly what the extended copy holds.
class PaddedRows {
public:
    PaddedRows(const short* frame, int width, int height)
        : frame_(frame), width_(width), height_(height), rows_(static_cast<std::size_t>(3) * (width + 2)) {
        for (int& r : held_) r = -1;
    }

    // Padded copy of source row y (folded at the borders); index -1 .. width.
    const short* row(int y) {
        if (y < 0) y += 2;
        if (y >= height_) y -= 2;
        short* slot = rows_.data() + static_cast<std::size_t>(y % 3) * (width_ + 2);
        if (held_[y % 3] != y) {
            const short* src = frame_ + static_cast<std::ptrdiff_t>(y) * width_;
            std::copy(src, src + width_, slot + 1);
            slot[0] = src[1];
            slot[width_ + 1] = src[width_ - 2];
            held_[y % 3] = y;
        }
        return slot + 1;
    }

private:
    const short* frame_;
    int width_;
    int height_;
    std::vector<short> rows_;
    int held_[3];
};

void intensityRowsStreamed(const short* frame, unsigned short* intensity, int width, int height, int bayerPattern,
                           int rowStart, int rowEnd, KernelIsa isa) {
    if (rowEnd <= rowStart) return;
    PaddedRows rows(frame, width, height);
    for (int y = rowStart; y < rowEnd; ++y) {
        // The three rows y - 1, y, y + 1 (folded) are distinct modulo 3 or equal.
        const short* up = rows.row(y - 1);
        const short* mid = rows.row(y);
        const short* down = rows.row(y + 1);
        intensityRow(isa, up, mid, down, intensity + static_cast<std::ptrdiff_t>(y) * width, width, bayerPattern,
                     y & 1, 0);
    }
}

}  // namespace

namespace intensity_detail {

short* calculateLumaPlain(short* extended, unsigned short* intensity, int rowStart, int rowEnd, int colStart,
                          int colEnd, int border, int extendedStride, int outWidth, int bayerPattern) {
    if (bayerPattern < 0 || bayerPattern > 3) return extended;
    for (int r = rowStart; r < rowEnd; ++r) {
        const short* mid = extended + static_cast<std::ptrdiff_t>(r) * extendedStride;
        const short* up = mid - extendedStride;
        const short* down = mid + extendedStride;
        unsigned short* out = intensity + static_cast<std::ptrdiff_t>(r - border) * outWidth;
        for (int c = colStart; c < colEnd; ++c)
            out[c - border] =
                intensityOfSite(siteAt(bayerPattern, (r - border) & 1, (c - border) & 1), up, mid, down, c);
    }
    return extended;
}

}  // namespace intensity_detail

void intensity_detail::calculateLumaRows(short* extended, unsigned short* intensity, int rowStart, int rowEnd,
                                         int colStart, int colEnd, int border, int extendedStride, int outWidth,
                                         int bayerPattern, KernelIsa isa) {
    if (bayerPattern < 0 || bayerPattern > 3 || colEnd <= colStart) return;
    for (int r = rowStart; r < rowEnd; ++r) {
        const short* mid = extended + static_cast<std::ptrdiff_t>(r) * extendedStride + colStart;
        intensityRow(isa, mid - extendedStride, mid, mid + extendedStride,
                     intensity + static_cast<std::ptrdiff_t>(r - border) * outWidth + (colStart - border),
                     colEnd - colStart, bayerPattern, (r - border) & 1, (colStart - border) & 1);
    }
}

void intensity_detail::estimateIntensityStreamed(short* frame, unsigned short* intensity, int height, int width,
                                                 int bayerPattern, KernelIsa isa) {
    runOnExtendedStripes(height, kLumaBorder, [&](int rowStart, int rowEnd) {
        intensityRowsStreamed(frame, intensity, width, height, bayerPattern, rowStart - kLumaBorder,
                              rowEnd - kLumaBorder, isa);
    });
}

short* calculateLuma(short* extended, unsigned short* intensity, int rowStart, int rowEnd, int colStart, int colEnd,
                     int border, int extendedStride, int outWidth, int bayerPattern) {
    if (kUseFastPaths)
        intensity_detail::calculateLumaRows(extended, intensity, rowStart, rowEnd, colStart, colEnd, border,
                                            extendedStride, outWidth, bayerPattern, bestKernelIsa());
    else
        intensity_detail::calculateLumaPlain(extended, intensity, rowStart, rowEnd, colStart, colEnd, border,
                                             extendedStride, outWidth, bayerPattern);
    return extended;
}

void singleImageIntensityEstimation(short* frame, unsigned short* intensity, int height, int width,
                                    float /*reservedA*/, float /*reservedB*/, int bayerPattern) {
    if (width <= 0 || height <= 0) return;
    if (kUseFastPaths && width >= 2 && height >= 2 && bayerPattern >= 0 && bayerPattern <= 3) {
        intensity_detail::estimateIntensityStreamed(frame, intensity, height, width, bayerPattern, bestKernelIsa());
        return;
    }
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

#include "registration/noise_model.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "registration/plane_resample.h"

namespace registration_detail {

namespace {

constexpr int kBlockQuads = 4;
constexpr int kBinLevels = 16;
constexpr int kBins = 1024 / kBinLevels;
// Median of a mean of 16 squared normal deviates, relative to their variance.
constexpr double kMedianOfMean16 = 0.9586;
// Tile rows sampled: about this many, spread over the frame.
constexpr int kSampledTileRows = 6;

struct Bin {
    std::vector<float> values;
    double signalSum = 0.0;
};

// Where a block's differences come from: samples `other` of the same sites, whose
// difference to the reference has `factor` times the noise variance of one sample.
struct Comparison {
    const float* other;  // rows from quad row `first`, frame width
    const unsigned char* valid;
    int first;
};

// Adds the 4 x 4-quad blocks of quad rows [qa, qb) (columns [0, cols)) per Bayer
// site: the mean signal and the mean squared difference over the noise factor.
void addBlocks(const short* reference, int width, int qa, int qb, int cols, const Comparison& c,
               const std::vector<float>& blockFactor, const int* black, std::vector<Bin>& bins) {
    const int qc = width / 2;
    for (int by = qa; by + kBlockQuads <= qb; by += kBlockQuads) {
        for (int bx = 0; bx + kBlockQuads <= cols; bx += kBlockQuads) {
            const float factor = blockFactor[static_cast<size_t>(bx / kBlockQuads)];
            if (!(factor > 0.0f)) continue;
            bool allValid = true;
            for (int y = by; y < by + kBlockQuads; ++y)
                for (int x = bx; x < bx + kBlockQuads; ++x)
                    allValid = allValid && c.valid[static_cast<size_t>(y - c.first) * qc + x];
            if (!allValid) continue;
            for (int site = 0; site < 4; ++site) {
                const int dy = site / 2, dx = site % 2;
                double signal = 0.0, d2 = 0.0;
                for (int y = by; y < by + kBlockQuads; ++y) {
                    for (int x = bx; x < bx + kBlockQuads; ++x) {
                        const double r = reference[static_cast<size_t>(2 * y + dy) * width + 2 * x + dx];
                        const double o = c.other[static_cast<size_t>(2 * (y - c.first) + dy) * width + 2 * x + dx];
                        signal += r - black[site];
                        d2 += (o - r) * (o - r);
                    }
                }
                const double mean = signal / 16.0;
                if (mean < 0.0 || mean >= 1024.0) continue;
                Bin& bin = bins[static_cast<size_t>(mean) / kBinLevels];
                bin.values.push_back(static_cast<float>(d2 / 16.0 / factor));
                bin.signalSum += mean;
            }
        }
    }
}

// The straight line through the bins' medians, weighted by their counts.
bool fitBins(std::vector<Bin>& bins, NoiseModel& model) {
    double sw = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
    int used = 0;
    for (Bin& bin : bins) {
        const size_t n = bin.values.size();
        if (static_cast<int>(n) < kMinBlocksPerBin) continue;
        std::nth_element(bin.values.begin(), bin.values.begin() + n / 2, bin.values.end());
        const double variance = bin.values[n / 2] / kMedianOfMean16;
        const double x = bin.signalSum / static_cast<double>(n), w = static_cast<double>(n);
        sw += w;
        sx += w * x;
        sy += w * variance;
        sxx += w * (x * x);
        sxy += w * (x * variance);
        ++used;
    }
    if (used == 0) return false;
    double a = 0.0, b = sy / sw;
    const double det = sw * sxx - sx * sx;
    if (used >= 2 && det > 0.0) {
        a = (sw * sxy - sx * sy) / det;
        b = (sy - a * sx) / sw;
        if (a < 0.0) a = 0.0, b = sy / sw;
    }
    if (b < kMinReadVariance) {
        // Refit the slope with the read noise held at its floor.
        b = kMinReadVariance;
        if (sxx > 0.0) a = std::max((sxy - b * sx) / sxx, 0.0);
    }
    model.a = a;
    model.b = b;
    return true;
}

int sampledTileRowStep(const TileGrid& grid) { return std::max(1, grid.tilesY / kSampledTileRows); }

}  // namespace

bool estimateNoise(const short* reference, const short* frame, int width, int height, const TileField& field,
                   const int* black, NoiseModel& model) {
    const TileGrid grid(width, height);
    const int qc = width / 2;
    std::vector<Bin> bins(kBins);
    std::vector<float> aligned, factors(static_cast<size_t>(qc / kBlockQuads));
    std::vector<unsigned char> valid;
    for (int ty = 0; ty < grid.tilesY; ty += sampledTileRowStep(grid)) {
        const int qa = grid.y0(ty), qb = grid.y1(ty);
        aligned.resize(static_cast<size_t>(2 * (qb - qa)) * width);
        valid.resize(static_cast<size_t>(qb - qa) * qc);
        resampleRows(frame, width, height, grid, field, 2 * qa, 2 * qb, aligned.data(), valid.data());
        // The aligned sample's noise is smoothed by the resampling's factor.
        for (size_t b = 0; b < factors.size(); ++b) {
            const int tile = ty * grid.tilesX + static_cast<int>(b) * kBlockQuads / kTileQuads;
            factors[b] = 1.0f + tileShift(field, tile).spread;
        }
        addBlocks(reference, width, qa, qb, qc, Comparison{aligned.data(), valid.data(), qa}, factors, black, bins);
    }
    return fitBins(bins, model);
}

bool estimateNoiseFromReference(const short* reference, int width, int height, const int* black, NoiseModel& model) {
    const TileGrid grid(width, height);
    const int qc = width / 2;
    std::vector<Bin> bins(kBins);
    std::vector<float> neighbour;
    std::vector<unsigned char> valid;
    // The neighbouring quad's sample of the same site: the difference carries two
    // samples' noise (and whatever detail lies between them).
    const std::vector<float> factors(static_cast<size_t>(qc / kBlockQuads), 2.0f);
    for (int ty = 0; ty < grid.tilesY; ty += sampledTileRowStep(grid)) {
        const int qa = grid.y0(ty), qb = grid.y1(ty);
        neighbour.assign(static_cast<size_t>(2 * (qb - qa)) * width, 0.0f);
        valid.assign(static_cast<size_t>(qb - qa) * qc, 1);
        for (int y = 2 * qa; y < 2 * qb; ++y)
            for (int x = 0; x + 2 < width; ++x)
                neighbour[static_cast<size_t>(y - 2 * qa) * width + x] = reference[static_cast<size_t>(y) * width + x + 2];
        addBlocks(reference, width, qa, qb, qc - 1, Comparison{neighbour.data(), valid.data(), qa}, factors, black, bins);
    }
    return fitBins(bins, model);
}

std::vector<unsigned char> detailedTiles(const short* reference, int width, int height, const int* black,
                                         const NoiseModel& model) {
    const TileGrid grid(width, height);
    std::vector<int64_t> energy(static_cast<size_t>(grid.count()), 0), signal(energy.size(), 0), count(energy.size(), 0);
    std::vector<int32_t> e2(static_cast<size_t>(width), 0), level(static_cast<size_t>(width), 0);
    // Every other quad row tells enough of a tile.
    for (int qy = 1; qy + 1 < height / 2; qy += 2) {
        for (int y = 2 * qy; y < 2 * qy + 2; ++y) {
            const short* r = reference + static_cast<size_t>(y) * width;
            const int b0 = black[(y & 1) * 2], b1 = black[(y & 1) * 2 + 1];
            for (int x = 2; x < width - 2; ++x) {
                const int32_t e = 4 * r[x] - ((r[x - 2] + r[x + 2]) + (r[x - 2 * width] + r[x + 2 * width]));
                e2[static_cast<size_t>(x)] = e * e;
                level[static_cast<size_t>(x)] = std::max(r[x] - ((x & 1) ? b1 : b0), 0);
            }
            const size_t tileRow = static_cast<size_t>(qy / kTileQuads) * grid.tilesX;
            for (int tx = 0; tx < grid.tilesX; ++tx) {
                const int x0 = std::max(2 * grid.x0(tx), 2), x1 = std::min(2 * grid.x1(tx), width - 2);
                int64_t se = 0, ss = 0;
                for (int x = x0; x < x1; ++x) {
                    se += e2[static_cast<size_t>(x)];
                    ss += level[static_cast<size_t>(x)];
                }
                energy[tileRow + tx] += se;
                signal[tileRow + tx] += ss;
                count[tileRow + tx] += std::max(x1 - x0, 0);
            }
        }
    }
    std::vector<unsigned char> detailed(energy.size(), 0);
    for (size_t t = 0; t < detailed.size(); ++t) {
        const double expected = 20.0 * (model.a * static_cast<double>(signal[t]) + model.b * static_cast<double>(count[t]));
        detailed[t] = static_cast<double>(energy[t]) > kDetailAboveNoise * expected ? 1 : 0;
    }
    return detailed;
}

}  // namespace registration_detail

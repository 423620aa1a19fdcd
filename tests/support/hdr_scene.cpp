#include "support/hdr_scene.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace hdrtest {

namespace {

constexpr double kPi = 3.14159265358979323846;

double pattern(int qx, int qy) { return std::sin(2.0 * kPi * qx / 8.0) * std::sin(2.0 * kPi * qy / 8.0); }

bool inside(const Rect& r, int x, int y) { return x >= r.x && x < r.x + r.width && y >= r.y && y < r.y + r.height; }

}  // namespace

Scene makeBracketScene(int width, int height) {
    Scene scene;
    scene.width = width;
    scene.height = height;
    scene.radiance.assign(static_cast<size_t>(width) * height, 0.0f);
    scene.texture.assign(static_cast<size_t>(width) * height, 0.0f);
    const int third = (width / 3) & ~1;
    scene.blackPatch = {0, 0, (third / 3) & ~1, (height / 6) & ~1};
    scene.shadowPatch = {third / 3 & ~1, height / 3 & ~1, (2 * third / 3) & ~1, height / 3 & ~1};
    scene.highlightPatch = {(width - third + third / 6) & ~1, height / 3 & ~1, (2 * third / 3) & ~1,
                            height / 3 & ~1};
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const size_t p = static_cast<size_t>(y) * width + x;
            const int qx = x / 2, qy = y / 2;
            double base, s = pattern(qx, qy);
            if (inside(scene.blackPatch, x, y)) {
                base = 0.0;
                s = 0.0;
            } else if (x < third) {
                base = 0.02;  // deep shadow
            } else if (x < width - third) {
                base = 0.1 + 0.9 * (x - third) / double(width - 2 * third);  // mid-tone ramp
                s = 0.0;
            } else {
                base = 3.0;  // far above the long exposure's clipping point
            }
            scene.texture[p] = static_cast<float>(s);
            scene.radiance[p] = static_cast<float>(base * (1.0 + 0.3 * s));
        }
    return scene;
}

std::vector<short> exposeRaw(const Scene& scene, float scale, const std::array<int, 4>& blackLevels,
                             float noiseSigma, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> noise(0.0f, noiseSigma);
    std::vector<short> raw(scene.radiance.size());
    for (int y = 0; y < scene.height; ++y)
        for (int x = 0; x < scene.width; ++x) {
            const size_t p = static_cast<size_t>(y) * scene.width + x;
            const int site = (y & 1) * 2 + (x & 1);
            float v = static_cast<float>(blackLevels[site]) + scene.radiance[p] * scale + noise(rng);
            v = std::min(std::max(std::round(v), 0.0f), 1023.0f);
            raw[p] = static_cast<short>(v);
        }
    return raw;
}

double textureCorrelation(const std::vector<short>& image, const Scene& scene, const Rect& patch) {
    // Top-left samples of the patch's quads, and the texture there.
    const int cols = patch.width / 2, rows = patch.height / 2;
    std::vector<double> q(static_cast<size_t>(cols) * rows), t(q.size());
    for (int y = 0; y < rows; ++y)
        for (int x = 0; x < cols; ++x) {
            const size_t p = static_cast<size_t>(patch.y + 2 * y) * scene.width + (patch.x + 2 * x);
            q[static_cast<size_t>(y) * cols + x] = image[p];
            t[static_cast<size_t>(y) * cols + x] = scene.texture[p];
        }
    // Local contrast: each quad minus the mean of the 8 x 8 quads (one texture
    // period) around it, so that slow trends (halos near region borders, the
    // tone curve) do not count; correlated with the texture.
    double n = 0, si = 0, st = 0, sii = 0, stt = 0, sit = 0;
    for (int y = 4; y + 4 <= rows; ++y)
        for (int x = 4; x + 4 <= cols; ++x) {
            double mean = 0;
            for (int dy = -4; dy < 4; ++dy)
                for (int dx = -4; dx < 4; ++dx) mean += q[static_cast<size_t>(y + dy) * cols + (x + dx)];
            const double i = q[static_cast<size_t>(y) * cols + x] - mean / 64.0;
            const double tv = t[static_cast<size_t>(y) * cols + x];
            n += 1;
            si += i;
            st += tv;
            sii += i * i;
            stt += tv * tv;
            sit += i * tv;
        }
    if (n < 2) return 0.0;
    const double vi = sii - si * si / n, vt = stt - st * st / n, c = sit - si * st / n;
    if (vi <= 1e-9 || vt <= 1e-9) return 0.0;
    return c / std::sqrt(vi * vt);
}

double siteMean(const std::vector<short>& image, int width, const Rect& patch, int site) {
    double sum = 0;
    int count = 0;
    for (int y = patch.y + site / 2; y < patch.y + patch.height; y += 2)
        for (int x = patch.x + site % 2; x < patch.x + patch.width; x += 2) {
            sum += image[static_cast<size_t>(y) * width + x];
            ++count;
        }
    return count ? sum / count : 0.0;
}

std::vector<std::array<int, 2>> pyramidLevelSizes(int width, int height, int levelCount) {
    std::vector<std::array<int, 2>> sizes;
    int h = height, w = width;
    for (int i = 0; i < levelCount; ++i) {
        sizes.push_back({h, w});
        h /= 2;
        w /= 2;
        h -= h % 2;
        w -= w % 2;
    }
    return sizes;
}

}  // namespace hdrtest

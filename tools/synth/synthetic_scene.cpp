#include "synthetic_scene.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <random>
#include <system_error>
#include <thread>

namespace kep {
namespace synth {

namespace {

// Smooth value noise: a random lattice of the given pitch, interpolated with a
// smoothstep so that the texture has no lattice edges.
class ValueNoise {
public:
    ValueNoise(int width, int height, int pitch, std::mt19937& rng)
        : pitch_(pitch), cols_(width / pitch + 3), rows_(height / pitch + 3), lattice_(cols_ * rows_) {
        std::uniform_real_distribution<float> u(-1.0f, 1.0f);
        for (float& v : lattice_) v = u(rng);
    }
    float at(int x, int y) const {
        const float fx = static_cast<float>(x) / pitch_, fy = static_cast<float>(y) / pitch_;
        const int ix = static_cast<int>(fx), iy = static_cast<int>(fy);
        const float tx = smooth(fx - ix), ty = smooth(fy - iy);
        const float a = cell(ix, iy), b = cell(ix + 1, iy), c = cell(ix, iy + 1), d = cell(ix + 1, iy + 1);
        return (a + (b - a) * tx) + ((c + (d - c) * tx) - (a + (b - a) * tx)) * ty;
    }

private:
    static float smooth(float t) { return t * t * (3.0f - 2.0f * t); }
    float cell(int x, int y) const { return lattice_[std::min(y, rows_ - 1) * cols_ + std::min(x, cols_ - 1)]; }
    int pitch_, cols_, rows_;
    std::vector<float> lattice_;
};

// Optical blur of the lens: a separable Gaussian (sigma in samples) applied to a
// plane in place, edges repeated.
void blurPlane(std::vector<float>& plane, int width, int height, double sigma) {
    const int radius = static_cast<int>(std::ceil(3.0 * sigma));
    std::vector<float> taps(2 * radius + 1);
    float sum = 0.0f;
    for (int i = -radius; i <= radius; ++i) sum += taps[i + radius] = static_cast<float>(std::exp(-0.5 * i * i / (sigma * sigma)));
    for (float& t : taps) t /= sum;
    std::vector<float> tmp(plane.size());
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            float acc = 0.0f;
            for (int i = -radius; i <= radius; ++i) acc += taps[i + radius] * plane[static_cast<size_t>(y) * width + std::min(std::max(x + i, 0), width - 1)];
            tmp[static_cast<size_t>(y) * width + x] = acc;
        }
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            float acc = 0.0f;
            for (int i = -radius; i <= radius; ++i) acc += taps[i + radius] * tmp[static_cast<size_t>(std::min(std::max(y + i, 0), height - 1)) * width + x];
            plane[static_cast<size_t>(y) * width + x] = acc;
        }
}

struct Shape {
    int kind;  // 0 rectangle, 1 disc
    float x0, y0, x1, y1;
    float rgb[3];
};

// Renders frame k through motions[k] with renders[k]. Every frame draws its
// noise from its own seeded generator, so the frames are rendered on parallel
// threads with the same result as one after the other.
std::vector<std::vector<short>> renderAll(const Scene& scene, const std::vector<Motion>& motions,
                                          const std::vector<RenderOptions>& renders);

}  // namespace

int bayerChannel(int pattern, int x, int y) {
    const int site = (y & 1) * 2 + (x & 1);  // 0 even/even, 1 even/odd, 2 odd/even, 3 odd/odd
    static const int kSites[4][4] = {{0, 1, 1, 2}, {2, 1, 1, 0}, {1, 0, 2, 1}, {1, 2, 0, 1}};
    return kSites[(pattern >= 0 && pattern <= 3) ? pattern : 3][site];
}

namespace {
constexpr double kLensBlurSigma = 1.6;  // samples; a phone lens does not resolve single raw samples
}

Scene::Scene(int width, int height, uint32_t seed) : width_(width), height_(height) {
    std::mt19937 rng(seed);
    const size_t n = static_cast<size_t>(width) * height;
    for (auto& p : planes_) p.assign(n, 0.0f);
    ValueNoise coarse(width, height, 97, rng), medium(width, height, 23, rng), fine(width, height, 6, rng);
    ValueNoise tint(width, height, 311, rng);

    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    std::vector<Shape> shapes;
    for (int i = 0; i < 60; ++i) {
        Shape s;
        s.kind = i % 3 == 0 ? 1 : 0;
        const float cx = u(rng) * width, cy = u(rng) * height;
        const float r = (0.02f + 0.08f * u(rng)) * std::min(width, height);
        s.x0 = cx - r, s.y0 = cy - r * (0.4f + u(rng)), s.x1 = cx + r, s.y1 = cy + r * (0.4f + u(rng));
        for (float& c : s.rgb) c = 0.1f + 0.9f * u(rng);
        shapes.push_back(s);
    }
    // Text-like strokes: a block of short dark glyph strokes on a light panel.
    const int panelX = width / 16, panelY = height / 2, panelW = width / 3, panelH = height / 6;
    const int glyph = std::max(8, width / 128);
    std::vector<unsigned char> strokes(static_cast<size_t>((panelW / glyph + 1) * (panelH / glyph + 1)));
    for (auto& s : strokes) s = static_cast<unsigned char>(rng() % 16);

    std::vector<const Shape*> rowShapes;
    for (int y = 0; y < height; ++y) {
        // Only the shapes that reach this row can contain one of its pixels (for a
        // disc, (x - cx)^2 + (y - cy)^2 is never below (y - cy)^2, even rounded).
        rowShapes.clear();
        for (const Shape& s : shapes) {
            const float cy = 0.5f * (s.y0 + s.y1), r = 0.5f * (s.x1 - s.x0);
            const bool reaches = s.kind == 0 ? (y >= s.y0 && y < s.y1) : (y - cy) * (y - cy) < r * r;
            if (reaches) rowShapes.push_back(&s);
        }
        for (int x = 0; x < width; ++x) {
            const float gx = static_cast<float>(x) / width, gy = static_cast<float>(y) / height;
            // Smooth gradients with texture of several scales.
            float lum = 0.25f + 0.45f * gx + 0.15f * coarse.at(x, y) + 0.10f * medium.at(x, y) + 0.06f * fine.at(x, y);
            float rgb[3] = {lum * (0.9f + 0.2f * tint.at(x, y)), lum, lum * (0.9f - 0.2f * tint.at(x, y) + 0.1f * gy)};
            for (const Shape* sp : rowShapes) {
                const Shape& s = *sp;
                bool inside;
                if (s.kind == 0) {
                    inside = x >= s.x0 && x < s.x1 && y >= s.y0 && y < s.y1;
                } else {
                    const float cx = 0.5f * (s.x0 + s.x1), cy = 0.5f * (s.y0 + s.y1), r = 0.5f * (s.x1 - s.x0);
                    inside = (x - cx) * (x - cx) + (y - cy) * (y - cy) < r * r;
                }
                if (inside) {
                    const float t = 0.85f + 0.15f * fine.at(x + 17, y + 31);
                    for (int c = 0; c < 3; ++c) rgb[c] = s.rgb[c] * t;
                }
            }
            if (x >= panelX && x < panelX + panelW && y >= panelY && y < panelY + panelH) {
                const int px = x - panelX, py = y - panelY;
                const unsigned char g = strokes[(py / glyph) * (panelW / glyph + 1) + px / glyph];
                const int lx = px % glyph, ly = py % glyph, w = std::max(1, glyph / 5);
                const bool ink = ((g & 1) && ly < w) || ((g & 2) && lx < w) || ((g & 4) && ly >= glyph / 2 && ly < glyph / 2 + w) ||
                                 ((g & 8) && lx >= glyph / 2 && lx < glyph / 2 + w);
                const float v = ink ? 0.08f : 0.9f;
                for (float& c : rgb) c = v;
            }
            // Deep shadow band at the bottom left and bright highlights at the top right.
            if (gx < 0.35f && gy > 0.78f) {
                for (float& c : rgb) c *= 0.04f;
            }
            if (gx > 0.7f && gy < 0.25f) {
                for (float& c : rgb) c *= 3.5f;
            }
            const size_t i = static_cast<size_t>(y) * width + x;
            for (int c = 0; c < 3; ++c) planes_[c][i] = std::max(rgb[c], 0.0f);
        }
    }
    for (auto& p : planes_) blurPlane(p, width, height, kLensBlurSigma);
}

float Scene::sample(int channel, double x, double y) const {
    x = std::min(std::max(x, 0.0), width_ - 1.0);
    y = std::min(std::max(y, 0.0), height_ - 1.0);
    const int ix = std::min(static_cast<int>(x), width_ - 2), iy = std::min(static_cast<int>(y), height_ - 2);
    const float tx = static_cast<float>(x - ix), ty = static_cast<float>(y - iy);
    const float* p = planes_[channel].data() + static_cast<size_t>(iy) * width_ + ix;
    const float top = p[0] + (p[1] - p[0]) * tx;
    const float bottom = p[width_] + (p[width_ + 1] - p[width_]) * tx;
    return top + (bottom - top) * ty;
}

std::vector<short> renderRaw(const Scene& scene, const Motion& motion, const RenderOptions& options) {
    const int width = scene.width(), height = scene.height();
    std::vector<short> raw(static_cast<size_t>(width) * height);
    std::mt19937 rng(options.noiseSeed);
    std::normal_distribution<float> gauss(0.0f, 1.0f);
    const double cx = 0.5 * width, cy = 0.5 * height;
    const double c = std::cos(motion.angle), s = std::sin(motion.angle);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const double px = x - cx, py = y - cy;
            const double sx = c * px - s * py + cx + motion.dx;
            const double sy = s * px + c * py + cy + motion.dy;
            // Sample at the same Bayer site so that colours never mix.
            const double signal = options.levelsAtOne * scene.sample(bayerChannel(options.pattern, x, y), sx, sy);
            double value = signal;
            if (options.shotNoiseGain > 0.0) value += gauss(rng) * std::sqrt(std::max(signal, 0.0) * options.shotNoiseGain);
            if (options.readNoise > 0.0) value += gauss(rng) * options.readNoise;
            const long level = std::lround(value + options.black);
            raw[static_cast<size_t>(y) * width + x] = static_cast<short>(std::min(std::max(level, 0L), 1023L));
        }
    }
    return raw;
}

Burst makeNightBurst(const Scene& scene, const BurstOptions& options) {
    Burst burst;
    burst.width = scene.width();
    burst.height = scene.height();
    std::mt19937 rng(options.seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<RenderOptions> renders;
    for (int k = 0; k < options.frames; ++k) {
        Motion m;
        if (k != 2) {
            m.dx = options.maxShift * u(rng);
            m.dy = options.maxShift * u(rng);
            m.angle = options.maxAngle * u(rng);
        }
        RenderOptions r;
        r.levelsAtOne = options.levelsAtOne / (k == 0 ? 8.0 : k == 1 ? 4.0 : 1.0);
        r.shotNoiseGain = options.shotNoiseGain;
        r.readNoise = options.readNoise;
        r.noiseSeed = options.seed * 131u + static_cast<uint32_t>(k);
        burst.motions.push_back(m);
        renders.push_back(r);
    }
    RenderOptions clean;
    clean.levelsAtOne = options.levelsAtOne;
    std::vector<Motion> motions = burst.motions;
    motions.push_back(Motion{});
    renders.push_back(clean);
    std::vector<std::vector<short>> frames = renderAll(scene, motions, renders);
    burst.clean = std::move(frames.back());
    frames.pop_back();
    burst.frames = std::move(frames);
    return burst;
}

HdrBracket makeHdrBracket(const Scene& scene, const HdrBracketOptions& options) {
    HdrBracket bracket;
    bracket.width = scene.width();
    bracket.height = scene.height();
    const double exposures[3] = {1.0 / options.ratio, 2.0 / options.ratio, 1.0};
    std::vector<RenderOptions> renders;
    for (int k = 0; k < 3; ++k) {
        RenderOptions r;
        r.levelsAtOne = options.levelsAtOne * exposures[k];
        r.shotNoiseGain = options.shotNoiseGain;
        r.readNoise = options.readNoise;
        r.noiseSeed = options.seed * 131u + static_cast<uint32_t>(k);
        renders.push_back(r);
    }
    std::vector<std::vector<short>> frames = renderAll(scene, std::vector<Motion>(3), renders);
    bracket.shortFrame = std::move(frames[0]);
    bracket.midFrame = std::move(frames[1]);
    bracket.longFrame = std::move(frames[2]);
    return bracket;
}

namespace {

std::vector<std::vector<short>> renderAll(const Scene& scene, const std::vector<Motion>& motions,
                                          const std::vector<RenderOptions>& renders) {
    std::vector<std::vector<short>> frames(renders.size());
    std::atomic<size_t> next{0};
    auto worker = [&]() {
        for (size_t k = next++; k < frames.size(); k = next++) frames[k] = renderRaw(scene, motions[k], renders[k]);
    };
    const unsigned threads = std::max(1u, std::min(std::thread::hardware_concurrency(), static_cast<unsigned>(frames.size())));
    std::vector<std::thread> pool;
    try {
        for (unsigned t = 1; t < threads; ++t) pool.emplace_back(worker);
    } catch (const std::system_error&) {
        // Fewer threads than wanted: the ones started and this one share the work.
    }
    worker();
    for (std::thread& t : pool) t.join();
    return frames;
}

}  // namespace

double psnr(const short* a, const short* b, int width, int left, int top, int right, int bottom) {
    double sum = 0.0;
    long count = 0;
    for (int y = top; y < bottom; ++y) {
        for (int x = left; x < right; ++x) {
            const double d = a[static_cast<size_t>(y) * width + x] - b[static_cast<size_t>(y) * width + x];
            sum += d * d;
            ++count;
        }
    }
    if (count == 0) return 0.0;
    const double mse = sum / count;
    return mse == 0.0 ? 99.0 : 10.0 * std::log10(1023.0 * 1023.0 / mse);
}

Bracket makeHdrBracket(const Scene& scene, const BracketOptions& options) {
    Bracket bracket;
    bracket.width = scene.width();
    bracket.height = scene.height();
    std::vector<short>* frames[3] = {&bracket.frameA, &bracket.frameB, &bracket.frameC};
    for (int k = 0; k < 3; ++k) {
        RenderOptions r;
        r.pattern = options.pattern;
        r.black = options.black;
        r.levelsAtOne = options.levelsAtOne[k];
        r.shotNoiseGain = options.shotNoiseGain;
        r.readNoise = options.readNoise;
        r.noiseSeed = options.seed * 131u + static_cast<uint32_t>(k);
        *frames[k] = renderRaw(scene, Motion{}, r);
    }
    return bracket;
}

}  // namespace synth
}  // namespace kep

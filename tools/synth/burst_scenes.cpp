#include "burst_scenes.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <random>
#include <system_error>
#include <thread>

namespace kep {
namespace synth {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kMargin = 48;  // samples at the frame edges left out of every region

// Radiance of channel c at scene position (x, y) as frame k sees it.
class Radiance {
public:
    virtual ~Radiance() = default;
    virtual float at(int channel, double x, double y, int frame) const = 0;
};

class TexturedScene : public Radiance {
public:
    explicit TexturedScene(const Scene& scene) : scene_(scene) {}
    float at(int channel, double x, double y, int) const override { return scene_.sample(channel, x, y); }

private:
    const Scene& scene_;
};

// The textured scene with a disc that moves by `step` samples per frame.
class MovingSubject : public Radiance {
public:
    MovingSubject(const Scene& scene, double cx, double cy, double radius, double step)
        : scene_(scene), cx_(cx), cy_(cy), radius_(radius), step_(step) {}
    double centreX(int frame) const { return cx_ + (frame - 2) * step_; }
    float at(int channel, double x, double y, int frame) const override {
        const double u = x - centreX(frame), v = y - cy_;
        if (u * u + v * v >= radius_ * radius_) return scene_.sample(channel, x, y);
        // Its own bold texture and colour, so that it never matches the background.
        const double t = 0.55 + 0.35 * std::sin(2.0 * kPi * u / 17.0) * std::sin(2.0 * kPi * v / 13.0);
        const double tint[3] = {1.15, 0.8, 0.55};
        return static_cast<float>(t * tint[channel]);
    }

private:
    const Scene& scene_;
    double cx_, cy_, radius_, step_;
};

// The textured scene with patches of fabric: two crossed gratings (a weave) of
// periods p1 and p2 samples, at 12 and 97 degrees, modulating the scene's own
// colours inside three rectangles.
class Weave : public Radiance {
public:
    Weave(const Scene& scene, double p1, double p2) : scene_(scene), p1_(p1), p2_(p2) {}
    static bool inPatch(double x, double y, int width, int height) {
        const double u = x / width, v = y / height;
        return (u > 0.08 && u < 0.38 && v > 0.1 && v < 0.45) || (u > 0.55 && u < 0.9 && v > 0.2 && v < 0.5) ||
               (u > 0.3 && u < 0.7 && v > 0.6 && v < 0.9);
    }
    float at(int channel, double x, double y, int) const override {
        const float base = scene_.sample(channel, x, y);
        if (!inPatch(x, y, scene_.width(), scene_.height())) return base;
        const double a1 = 12.0 * kPi / 180.0, a2 = 97.0 * kPi / 180.0;
        const double g1 = std::sin(2.0 * kPi * (x * std::cos(a1) + y * std::sin(a1)) / p1_);
        const double g2 = std::sin(2.0 * kPi * (x * std::cos(a2) + y * std::sin(a2)) / p2_);
        return static_cast<float>(base * (1.0 + 0.15 * (g1 + g2)));
    }

private:
    const Scene& scene_;
    double p1_, p2_;
};

std::vector<short> render(const Radiance& scene, int width, int height, const Motion& motion, int frame,
                          const RenderOptions& options) {
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
            const double signal = options.levelsAtOne * scene.at(bayerChannel(options.pattern, x, y), sx, sy, frame);
            double value = signal;
            if (options.shotNoiseGain > 0.0) value += gauss(rng) * std::sqrt(std::max(signal, 0.0) * options.shotNoiseGain);
            if (options.readNoise > 0.0) value += gauss(rng) * options.readNoise;
            const long level = std::lround(value + options.black);
            raw[static_cast<size_t>(y) * width + x] = static_cast<short>(std::min(std::max(level, 0L), 1023L));
        }
    }
    return raw;
}

// Renders every job on parallel threads (each frame draws from its own generator).
void renderJobs(const Radiance& scene, int width, int height, const std::vector<Motion>& motions,
                const std::vector<int>& frameOf, const std::vector<RenderOptions>& renders,
                std::vector<std::vector<short>>& out) {
    out.assign(renders.size(), {});
    std::atomic<size_t> next{0};
    auto worker = [&]() {
        for (size_t k = next++; k < out.size(); k = next++) out[k] = render(scene, width, height, motions[k], frameOf[k], renders[k]);
    };
    const unsigned threads = std::max(1u, std::min(std::thread::hardware_concurrency(), static_cast<unsigned>(out.size())));
    std::vector<std::thread> pool;
    try {
        for (unsigned t = 1; t < threads; ++t) pool.emplace_back(worker);
    } catch (const std::system_error&) {
    }
    worker();
    for (std::thread& t : pool) t.join();
}

}  // namespace

void trueSourcePosition(const Motion& m, int width, int height, double x, double y, double* sx, double* sy) {
    // A frame shows scene point R (p - c) + c + t at p; the reference shows the
    // scene unmoved, so its sample x lies where R (p - c) + c + t = x.
    const double cx = 0.5 * width, cy = 0.5 * height;
    const double u = x - cx - m.dx, v = y - cy - m.dy;
    const double c = std::cos(m.angle), s = std::sin(m.angle);
    *sx = c * u + s * v + cx;
    *sy = -s * u + c * v + cy;
}

SceneBurst makeSceneBurst(const SceneBurstOptions& o) {
    std::unique_ptr<Scene> texture;
    std::unique_ptr<Radiance> radiance;
    const MovingSubject* subject = nullptr;
    const double radius = o.subjectRadius > 0.0 ? o.subjectRadius : 0.1 * std::min(o.width, o.height);
    switch (o.scene) {
        case BurstScene::Static:
            texture.reset(new Scene(o.width, o.height, o.seed));
            radiance.reset(new TexturedScene(*texture));
            break;
        case BurstScene::MovingSubject: {
            texture.reset(new Scene(o.width, o.height, o.seed));
            auto* m = new MovingSubject(*texture, 0.3 * o.width, 0.45 * o.height, radius, o.subjectStep);
            subject = m;
            radiance.reset(m);
            break;
        }
        case BurstScene::FineTexture:
        case BurstScene::AliasedTexture:
            texture.reset(new Scene(o.width, o.height, o.seed));
            if (o.scene == BurstScene::FineTexture)
                radiance.reset(new Weave(*texture, 5.0, 6.0));
            else
                radiance.reset(new Weave(*texture, 2.5, 3.5));
            break;
    }

    SceneBurst out;
    Burst& b = out.burst;
    b.width = o.width;
    b.height = o.height;
    std::mt19937 rng(o.seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<Motion> motions;
    std::vector<int> frameOf;
    std::vector<RenderOptions> renders;
    for (int k = 0; k < o.frames; ++k) {
        Motion m;
        if (k != 2) {
            m.dx = o.maxShift * u(rng);
            m.dy = o.maxShift * u(rng);
            m.angle = o.maxAngle * u(rng);
        }
        RenderOptions r;
        r.levelsAtOne = o.levelsAtOne / (k == 0 ? 8.0 : k == 1 ? 4.0 : 1.0);
        r.shotNoiseGain = o.shotNoiseGain;
        r.readNoise = o.readNoise;
        r.noiseSeed = o.seed * 131u + static_cast<uint32_t>(k);
        b.motions.push_back(m);
        motions.push_back(m);
        frameOf.push_back(k);
        renders.push_back(r);
    }
    RenderOptions clean;
    clean.levelsAtOne = o.levelsAtOne;
    motions.push_back(Motion{});
    frameOf.push_back(2);
    renders.push_back(clean);
    std::vector<std::vector<short>> frames;
    renderJobs(*radiance, o.width, o.height, motions, frameOf, renders, frames);
    b.clean = std::move(frames.back());
    frames.pop_back();
    b.frames = std::move(frames);

    out.regions.assign(static_cast<size_t>(o.width) * o.height, kRegionStatic);
    for (int y = 0; y < o.height; ++y) {
        for (int x = 0; x < o.width; ++x) {
            uint8_t& r = out.regions[static_cast<size_t>(y) * o.width + x];
            if (x < kMargin || y < kMargin || x >= o.width - kMargin || y >= o.height - kMargin) {
                r = kRegionExcluded;
                continue;
            }
            if (o.scene == BurstScene::FineTexture || o.scene == BurstScene::AliasedTexture) {
                // Only the fabric is measured, away from its edges.
                const double m = o.maxShift + 2;
                const bool inside = Weave::inPatch(x - m, y - m, o.width, o.height) &&
                                    Weave::inPatch(x + m, y + m, o.width, o.height) &&
                                    Weave::inPatch(x - m, y + m, o.width, o.height) &&
                                    Weave::inPatch(x + m, y - m, o.width, o.height);
                r = inside ? kRegionStatic : kRegionExcluded;
                continue;
            }
            if (subject == nullptr) continue;
            // The subject where the reference shows it; its ghosts where only the
            // other merged frames did; the hand shake's few samples around both are
            // left out.
            const double dy = y - 0.45 * o.height;
            auto distance = [&](int k) { return std::hypot(x - subject->centreX(k), dy); };
            if (distance(2) < radius) {
                r = kRegionSubject;
                continue;
            }
            bool ghost = false, near = distance(2) < radius + o.maxShift + 2;
            for (int k = 3; k < o.frames; ++k) {
                ghost = ghost || distance(k) < radius - o.maxShift - 2;
                near = near || distance(k) < radius + o.maxShift + 2;
            }
            r = ghost ? kRegionGhost : near ? kRegionExcluded : kRegionStatic;
        }
    }
    return out;
}

double regionPsnr(const short* a, const short* b, const std::vector<uint8_t>& regions, Region region) {
    double sum = 0.0;
    long count = 0;
    for (size_t i = 0; i < regions.size(); ++i) {
        if (regions[i] != region) continue;
        const double d = a[i] - b[i];
        sum += d * d;
        ++count;
    }
    if (count == 0) return 0.0;
    const double mse = sum / count;
    return mse == 0.0 ? 99.0 : 10.0 * std::log10(1023.0 * 1023.0 / mse);
}

}  // namespace synth
}  // namespace kep

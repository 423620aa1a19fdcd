#include "support/pipeline_inputs.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>

#include "registration/nocturn_entry.h"
#include "synthetic_scene.h"
#if KEP_HAVE_HDR_PROCESS
#include "hdr/hdr_process.h"
#endif

namespace pipeline_inputs {

NightBurst makeNightBurst(int width, int height, uint32_t sceneSeed, const std::vector<Shift>& shifts,
                          int noiseAmplitude, uint32_t noiseSeed) {
    const kep::synth::Scene scene(width, height, sceneSeed);
    NightBurst burst;
    burst.width = width;
    burst.height = height;
    std::mt19937 rng(noiseSeed);
    std::uniform_int_distribution<int> noise(-noiseAmplitude, noiseAmplitude);
    for (size_t k = 0; k < shifts.size(); ++k) {
        kep::synth::Motion motion;
        motion.dx = shifts[k].dx;
        motion.dy = shifts[k].dy;
        kep::synth::RenderOptions options;
        options.levelsAtOne = 250.0 / (k == 0 ? 8.0 : k == 1 ? 4.0 : 1.0);
        std::vector<short> frame = kep::synth::renderRaw(scene, motion, options);
        if (noiseAmplitude > 0)
            for (short& v : frame) v = static_cast<short>(std::clamp(v + noise(rng), 0, 1023));
        burst.frames.push_back(std::move(frame));
    }
    return burst;
}

NightBurst makeExactNightBurst(int width, int height, uint32_t sceneSeed, const std::vector<Shift>& shifts) {
    int margin = 0;
    for (const Shift& s : shifts) margin = std::max({margin, static_cast<int>(std::abs(s.dx)), static_cast<int>(std::abs(s.dy))});
    margin += margin & 1;  // keeps the Bayer phase of the crop
    const int fullWidth = width + 2 * margin, fullHeight = height + 2 * margin;
    const kep::synth::Scene scene(fullWidth, fullHeight, sceneSeed);
    std::vector<short> full = kep::synth::renderRaw(scene, kep::synth::Motion{}, kep::synth::RenderOptions{});
    // Flat grey around the texture, wide enough that the texture never leaves any
    // frame and that no feature point lies where the matcher skips points near the
    // border (18 guide pixels): every guide then has the same histogram, hence the
    // same equalisation, and the guides are exact shifts of one another.
    const int band = 2 * margin + 4 * 24;
    const short flat = full[static_cast<size_t>(fullHeight / 2) * fullWidth + fullWidth / 2];
    for (int y = 0; y < fullHeight; ++y)
        for (int x = 0; x < fullWidth; ++x)
            if (x < band || y < band || x >= fullWidth - band || y >= fullHeight - band)
                full[static_cast<size_t>(y) * fullWidth + x] = flat;

    NightBurst burst;
    burst.width = width;
    burst.height = height;
    for (size_t k = 0; k < shifts.size(); ++k) {
        // Short exposures so dark that they hold nothing but the black level.
        std::vector<short> frame(static_cast<size_t>(width) * height, 64);
        const int ox = margin + static_cast<int>(shifts[k].dx), oy = margin + static_cast<int>(shifts[k].dy);
        if (k >= 2)
            for (int y = 0; y < height; ++y)
                for (int x = 0; x < width; ++x)
                    frame[static_cast<size_t>(y) * width + x] = full[static_cast<size_t>(y + oy) * fullWidth + x + ox];
        burst.frames.push_back(std::move(frame));
    }
    return burst;
}

NightResult runNight(const NightBurst& burst, const NightParams& p) {
    NightResult r;
    r.frames = burst.frames;
    std::vector<short*> pointers;
    for (auto& f : r.frames) pointers.push_back(f.data());
    std::vector<short> separate(static_cast<size_t>(burst.width) * burst.height, 0);
    short* output = p.outputFrame >= 0 ? pointers[static_cast<size_t>(p.outputFrame)] : separate.data();
    qnNocturnPreProcess(pointers.data(), output, static_cast<int>(pointers.size()), &r.usable, burst.width,
                        burst.height, p.grayGain, p.minFeatureCount, p.alignOnly, &r.zoom, p.bayerPattern, p.black[0],
                        p.black[1], p.black[2], 0.0f, 0.0f, p.gain, p.alignTuning, p.blurSelect, p.sharpnessRatio);
    r.output.assign(output, output + separate.size());
    return r;
}

void addMovingDisc(NightBurst& burst, int cx, int cy, int radius, int step) {
    for (size_t k = 2; k < burst.frames.size(); ++k) {
        const int centre = cx + (static_cast<int>(k) - 2) * step;
        for (int y = std::max(cy - radius, 0); y < std::min(cy + radius, burst.height); ++y)
            for (int x = std::max(centre - radius, 0); x < std::min(centre + radius, burst.width); ++x) {
                const int u = x - centre, v = y - cy;
                if (u * u + v * v >= radius * radius) continue;
                const int checker = ((u + 64) / 6 + (v + 64) / 6) & 1;
                burst.frames[k][static_cast<size_t>(y) * burst.width + x] = static_cast<short>(64 + 60 + 160 * checker);
            }
    }
}

NightProcessResult runNightProcess(const NightBurst& burst, const KepNightOptions& options) {
    NightProcessResult r;
    r.frames = burst.frames;
    std::vector<short*> pointers;
    for (auto& f : r.frames) pointers.push_back(f.data());
    r.output.assign(static_cast<size_t>(burst.width) * burst.height, 0);
    r.result.structSize = sizeof(KepNightResult);
    r.status = kepNightProcess(pointers.data(), static_cast<int>(pointers.size()), burst.width, burst.height, &options,
                               r.output.data(), &r.result);
    return r;
}

bool operator==(const NightResult& a, const NightResult& b) {
    return a.output == b.output && a.frames == b.frames && a.usable == b.usable && a.zoom.top == b.zoom.top &&
           a.zoom.left == b.zoom.left && a.zoom.right == b.zoom.right && a.zoom.bottom == b.zoom.bottom &&
           a.zoom.pointCount == b.zoom.pointCount;
}

Bracket makeBracket(int width, int height, uint32_t sceneSeed, int bayerPattern, int black) {
    const kep::synth::Scene scene(width, height, sceneSeed);
    Bracket bracket;
    bracket.width = width;
    bracket.height = height;
    kep::synth::RenderOptions options;
    options.pattern = bayerPattern;
    options.black = black;
    options.levelsAtOne = 150.0;
    bracket.frameA = kep::synth::renderRaw(scene, kep::synth::Motion{}, options);
    options.levelsAtOne = 300.0;
    bracket.frameB = kep::synth::renderRaw(scene, kep::synth::Motion{}, options);
    options.levelsAtOne = 600.0;  // clips the highlights
    bracket.frameC = kep::synth::renderRaw(scene, kep::synth::Motion{}, options);
    return bracket;
}

bool operator==(const HdrResult& a, const HdrResult& b) {
    return a.output == b.output && a.frameA == b.frameA && a.frameB == b.frameB && a.frameC == b.frameC;
}

#if KEP_HAVE_HDR_PROCESS
HdrResult runHdr(const Bracket& bracket, const HdrParams& p) {
    HdrResult r;
    r.frameA = bracket.frameA;
    r.frameB = bracket.frameB;
    r.frameC = bracket.frameC;
    r.output.assign(bracket.frameA.size(), 0);
    int blackLevels[4] = {p.blackLevels[0], p.blackLevels[1], p.blackLevels[2], p.blackLevels[3]};
    hdrProcess(r.frameA.data(), r.frameB.data(), r.frameC.data(), r.output.data(), p.redGain, p.blueGain,
               bracket.width, bracket.height, p.exposureRatio, p.bayerPattern, blackLevels);
    return r;
}
#endif

uint64_t fnv1a64(const short* samples, size_t count) {
    uint64_t h = 14695981039346656037ull;
    for (size_t i = 0; i < count; ++i) {
        const uint16_t v = static_cast<uint16_t>(samples[i]);
        h = (h ^ (v & 0xFFu)) * 1099511628211ull;
        h = (h ^ (v >> 8)) * 1099511628211ull;
    }
    return h;
}

uint64_t fnv1a64(const std::vector<short>& samples) { return fnv1a64(samples.data(), samples.size()); }

}  // namespace pipeline_inputs

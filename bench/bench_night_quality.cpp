// Merge quality of the night path on bursts with known truth: for the static
// textured scene, a scene with a subject that moves on its own, and fine periodic
// textures (resolved and aliased within each Bayer plane), the PSNR of the
// reference frame alone, the mean merge and the robust merge per region against
// the noiseless scene, the alignment error of the cell models and of the refined
// motion against the true motion, and the time of each merge.
//
//   bench_night_quality [--size WxH] [--seed N]
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "burst_scenes.h"
#include "registration/black_level.h"
#include "registration/burst_analysis.h"
#include "registration/night_process.h"
#include "registration/robust_alignment.h"

namespace {

using namespace kep::synth;

struct Merge {
    std::vector<short> output;
    double ms = 0.0;
    KepNightResult result{};
};

Merge runMerge(const SceneBurst& s, int mode) {
    std::vector<std::vector<short>> frames = s.burst.frames;
    std::vector<short*> pointers;
    for (auto& f : frames) pointers.push_back(f.data());
    KepNightOptions o;
    kepNightDefaultOptions(&o);
    o.mergeMode = mode;
    Merge m;
    std::vector<uint16_t> out(static_cast<size_t>(s.burst.width) * s.burst.height);
    m.result.structSize = sizeof(KepNightResult);
    std::srand(1);
    const auto t0 = std::chrono::steady_clock::now();
    const int status = kepNightProcess(pointers.data(), static_cast<int>(frames.size()), s.burst.width,
                                       s.burst.height, &o, out.data(), &m.result);
    m.ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    if (status != KEP_NIGHT_OK) {
        std::fprintf(stderr, "night path failed: %s\n", kepNightStatusText(status));
        std::exit(1);
    }
    m.output.assign(out.begin(), out.end());
    return m;
}

// RMS over the tiles of the merged frames of (estimated - true) displacement, in
// raw samples, for the cell models' fields and the refined ones.
void alignmentError(const SceneBurst& s, double* cellRms, double* refinedRms) {
    std::vector<std::vector<short>> frames = s.burst.frames;
    std::vector<short*> pointers;
    for (auto& f : frames) pointers.push_back(f.data());
    const int w = s.burst.width, h = s.burst.height, n = static_cast<int>(frames.size());
    int black[4] = {64, 64, 64, 64};
    std::srand(1);
    registration_detail::BurstAnalysis a(pointers.data(), n, w, h, 1, 0.0f, 0.9f, black);
    int usable = a.sharpCount();
    const auto ra = registration_detail::alignBurstRobust(pointers.data(), n, w, h, a, 1.0f, &usable);
    const registration_detail::TileGrid grid(w, h);
    double e[2] = {0.0, 0.0};
    long count = 0;
    for (int i = 3; i < n; ++i) {
        if (!ra.aligned[static_cast<size_t>(i)]) continue;
        for (int ty = 0; ty < grid.tilesY; ++ty) {
            for (int tx = 0; tx < grid.tilesX; ++tx) {
                const size_t t = static_cast<size_t>(ty) * grid.tilesX + tx;
                const double x = 2.0 * grid.centreX(tx) + 0.5, y = 2.0 * grid.centreY(ty) + 0.5;
                double sx, sy;
                trueSourcePosition(s.burst.motions[static_cast<size_t>(i)], w, h, x, y, &sx, &sy);
                const registration_detail::TileField* f[2] = {&ra.cellFields[static_cast<size_t>(i)], &ra.fields[static_cast<size_t>(i)]};
                for (int k = 0; k < 2; ++k) {
                    const double ex = 2.0 * f[k]->dx[t] - (sx - x), ey = 2.0 * f[k]->dy[t] - (sy - y);
                    e[k] += ex * ex + ey * ey;
                }
                ++count;
            }
        }
    }
    *cellRms = count > 0 ? std::sqrt(e[0] / count) : 0.0;
    *refinedRms = count > 0 ? std::sqrt(e[1] / count) : 0.0;
}

const char* sceneName(BurstScene s) {
    switch (s) {
        case BurstScene::Static: return "static texture";
        case BurstScene::MovingSubject: return "moving subject";
        case BurstScene::FineTexture: return "fine weave (5-6)";
        case BurstScene::AliasedTexture: return "aliased weave (2.5-3.5)";
    }
    return "";
}

}  // namespace

int main(int argc, char** argv) {
    int width = 1024, height = 768;
    uint32_t seed = 7;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--size") == 0 && std::sscanf(argv[i + 1], "%dx%d", &width, &height) == 2) continue;
        if (std::strcmp(argv[i], "--seed") == 0) {
            seed = static_cast<uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
            continue;
        }
        std::fprintf(stderr, "usage: bench_night_quality [--size WxH] [--seed N]\n");
        return 2;
    }
    std::printf("bursts of 8 frames of %d x %d, 10-bit RGGB, 300 levels above black at radiance 1, shot + read noise,\n"
                "hand shake up to 6 samples and 0.0015 rad; frame 2 the reference, 6 normal frames merged\n\n",
                width, height);
    std::printf("| scene | region | reference dB | mean dB | robust dB | robust - reference | robust - mean |\n");
    std::printf("|---|---|---:|---:|---:|---:|---:|\n");
    const BurstScene scenes[] = {BurstScene::Static, BurstScene::MovingSubject, BurstScene::FineTexture,
                                 BurstScene::AliasedTexture};
    struct Extra {
        const char* name;
        double cellRms, refinedRms, meanMs, robustMs, noiseA, noiseB, rejected;
    };
    std::vector<Extra> extras;
    for (BurstScene scene : scenes) {
        SceneBurstOptions o;
        o.scene = scene;
        o.width = width;
        o.height = height;
        o.seed = seed;
        const SceneBurst s = makeSceneBurst(o);
        const Merge mean = runMerge(s, KEP_MERGE_MEAN), robust = runMerge(s, KEP_MERGE_ROBUST);
        const Region regions[] = {kRegionStatic, kRegionSubject, kRegionGhost};
        const char* names[] = {"static", "subject", "ghost area"};
        for (int r = 0; r < 3; ++r) {
            if (scene != BurstScene::MovingSubject && r > 0) continue;
            const short* clean = s.burst.clean.data();
            const double ref = regionPsnr(s.burst.frames[2].data(), clean, s.regions, regions[r]);
            const double pm = regionPsnr(mean.output.data(), clean, s.regions, regions[r]);
            const double pr = regionPsnr(robust.output.data(), clean, s.regions, regions[r]);
            std::printf("| %s | %s | %.2f | %.2f | %.2f | %+.2f | %+.2f |\n", sceneName(scene), names[r], ref, pm, pr,
                        pr - ref, pr - pm);
        }
        Extra e{sceneName(scene), 0, 0, mean.ms, robust.ms, robust.result.noiseA, robust.result.noiseB,
                robust.result.rejectedFraction};
        alignmentError(s, &e.cellRms, &e.refinedRms);
        extras.push_back(e);
    }
    std::printf("\n| scene | cell models' error, samples RMS | refined error, samples RMS | mean ms | robust ms | "
                "noise a, b (estimated) | rejected share |\n|---|---:|---:|---:|---:|---|---:|\n");
    for (const Extra& e : extras)
        std::printf("| %s | %.3f | %.3f | %.0f | %.0f | %.2f, %.1f | %.3f |\n", e.name, e.cellRms, e.refinedRms,
                    e.meanMs, e.robustMs, e.noiseA, e.noiseB, e.rejected);
    return 0;
}

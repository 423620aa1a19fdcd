// Night path on a 4000 x 3000 burst of 8 frames: the whole entry and each stage
// on its own, in milliseconds per call and megapixels per second.
#include <benchmark/benchmark.h>

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "features/grid_features.h"
#include "imgcore/fast_paths.h"
#include "motion/block_matching.h"
#include "motion/homography_fit.h"
#include "motion/matrix.h"
#include "motion/ransac.h"
#include "registration/black_level.h"
#include "registration/frame_average.h"
#include "registration/guide_image.h"
#include "registration/night_process.h"
#include "registration/nocturn_entry.h"
#include "registration/raw_warp.h"
#include "registration/sharpness.h"
#include "synthetic_scene.h"

namespace {

constexpr int kWidth = 4000;
constexpr int kHeight = 3000;
constexpr int kFrames = 8;
constexpr int kGuideW = kWidth / 4;
constexpr int kGuideH = kHeight / 4;

const kep::synth::Burst& burst() {
    static const kep::synth::Burst b = [] {
        kep::synth::Scene scene(kWidth, kHeight, 7);
        kep::synth::BurstOptions o;
        o.width = kWidth;
        o.height = kHeight;
        o.frames = kFrames;
        return kep::synth::makeNightBurst(scene, o);
    }();
    return b;
}

void setRate(benchmark::State& state, long samplesPerCall) {
    state.counters["MP/s"] = benchmark::Counter(static_cast<double>(samplesPerCall) * state.iterations() / 1e6,
                                                benchmark::Counter::kIsRate);
}

// Guides of the burst after the driver's preparation (smoothed and equalised).
struct Guides {
    std::vector<std::vector<unsigned char>> images;
    std::vector<unsigned char> edgeMask;
    Guides() : images(kFrames, std::vector<unsigned char>(kGuideW * kGuideH)), edgeMask(kGuideW * kGuideH) {
        int order[4] = {64, 64, 64, 64};
        std::vector<short> corrected(static_cast<size_t>(kWidth) * kHeight);
        for (int i = 0; i < kFrames; ++i) {
            removeBLC(burst().frames[i].data(), corrected.data(), kWidth, kHeight, order);
            bayer_to_8bit_gray(corrected.data(), images[i].data(), kWidth, kHeight, 1, i);
            conImageBlur(images[i].data(), images[i].data(), kGuideW, kGuideH, 0.0f);
            if (i == 2) edgeDetection(images[i].data(), edgeMask.data(), kGuideW, kGuideH, 5);
            histogram_equalization(images[i].data(), images[i].data(), kGuideW, kGuideH);
        }
    }
};

const Guides& guides() {
    static const Guides g;
    return g;
}

void BM_NightPathWhole(benchmark::State& state) {
    std::vector<std::vector<short>> frames = burst().frames;
    std::vector<short*> ptrs(kFrames);
    std::vector<short> output(static_cast<size_t>(kWidth) * kHeight);
    for (auto _ : state) {
        state.PauseTiming();
        for (int i = 0; i < kFrames; ++i) {
            std::memcpy(frames[i].data(), burst().frames[i].data(), frames[i].size() * sizeof(short));
            ptrs[i] = frames[i].data();
        }
        state.ResumeTiming();
        int usable = 0;
        USERZOOM zoom{};
        qnNocturnPreProcess(ptrs.data(), output.data(), kFrames, &usable, kWidth, kHeight, 1, 30, 0, &zoom, 0, 64, 64,
                            64, 0.0f, 0.0f, 1.0f, 1.0f, 0.0f, 0.5f);
        benchmark::DoNotOptimize(output.data());
        state.counters["usable"] = usable;
        state.counters["points"] = zoom.pointCount;
    }
    setRate(state, static_cast<long>(kWidth) * kHeight * kFrames);
}

// Growth of the resident set over one call (the call's scratch: inputs and
// output are touched before): the peak is reset and freed heap handed back to
// the system first.
long statusKb(const char* key) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind(key, 0) == 0) return std::atol(line.c_str() + std::strlen(key));
    return -1;
}

template <typename Call>
double scratchMegabytes(Call call) {
    malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << "5";
    const long before = statusKb("VmRSS:");
    call();
    const long peak = statusKb("VmHWM:");
    return before < 0 || peak < 0 ? -1.0 : (peak - before) / 1024.0;
}

// The night path with options: the mean merge (the entry above, through the new
// entry) and the robust merge on one worker or two; with the scratch it needs.
void BM_NightProcess(benchmark::State& state) {
    std::vector<std::vector<short>> frames = burst().frames;
    std::vector<short*> ptrs(kFrames);
    std::vector<uint16_t> output(static_cast<size_t>(kWidth) * kHeight, 1);
    KepNightOptions o;
    kepNightDefaultOptions(&o);
    o.mergeMode = static_cast<int>(state.range(0));
    o.workers = static_cast<int>(state.range(1));
    o.sharpnessRatio = 0.5f;
    KepNightResult r;
    r.structSize = sizeof(r);
    auto reset = [&] {
        for (int i = 0; i < kFrames; ++i) {
            std::memcpy(frames[i].data(), burst().frames[i].data(), frames[i].size() * sizeof(short));
            ptrs[i] = frames[i].data();
        }
    };
    reset();
    state.counters["scratch_MB"] = scratchMegabytes([&] { kepNightProcess(ptrs.data(), kFrames, kWidth, kHeight, &o, output.data(), &r); });
    for (auto _ : state) {
        state.PauseTiming();
        reset();
        state.ResumeTiming();
        kepNightProcess(ptrs.data(), kFrames, kWidth, kHeight, &o, output.data(), &r);
        benchmark::DoNotOptimize(output.data());
    }
    state.counters["usable"] = r.usableFrames;
    setRate(state, static_cast<long>(kWidth) * kHeight * kFrames);
}

// One frame's guide as the driver builds it: black-level removal and block means
// (in one pass in the fast build), smoothing, equalisation.
void BM_StageGuides(benchmark::State& state) {
    int order[4] = {64, 64, 64, 64};
    std::vector<short> corrected(kUseFastPaths ? 0 : static_cast<size_t>(kWidth) * kHeight);
    std::vector<unsigned char> guide(kGuideW * kGuideH);
    for (auto _ : state) {
        if (kUseFastPaths) {
            guide_detail::guideFromRaw(burst().frames[3].data(), order, guide.data(), kWidth, kHeight, 1);
        } else {
            removeBLC(burst().frames[3].data(), corrected.data(), kWidth, kHeight, order);
            bayer_to_8bit_gray(corrected.data(), guide.data(), kWidth, kHeight, 1, 3);
        }
        conImageBlur(guide.data(), guide.data(), kGuideW, kGuideH, 0.0f);
        histogram_equalization(guide.data(), guide.data(), kGuideW, kGuideH);
        benchmark::DoNotOptimize(guide.data());
    }
    setRate(state, static_cast<long>(kWidth) * kHeight);
}

void BM_StageSharpness(benchmark::State& state) {
    std::vector<unsigned char*> ptrs;
    std::vector<std::vector<unsigned char>> copies = guides().images;
    for (auto& g : copies) ptrs.push_back(g.data());
    for (auto _ : state) {
        int reference = 2;
        char flags[kFrames] = {};
        getClearestFrame(ptrs.data(), kFrames, &reference, flags, 0.5f, kGuideW, kGuideH);
        benchmark::DoNotOptimize(flags);
    }
    setRate(state, static_cast<long>(kGuideW) * kGuideH * (kFrames - 2));
}

QNGridFeaturePointList detect(int* count) {
    QNGridFeaturePointList list;
    std::memset(&list, 0, sizeof(list));
    std::vector<unsigned char> image = guides().images[2];
    std::vector<unsigned char> mask = guides().edgeMask;
    QNGet4x4GridFeatureParam_ param{image.data(), 1, -3.0f, 3.0f, 6.0f, 640, count, 6, 6, kGuideH, kGuideW};
    qnGet4x4GridFeature(&param, &list, mask.data());
    return list;
}

void BM_StageFeatures(benchmark::State& state) {
    for (auto _ : state) {
        int count = 0;
        QNGridFeaturePointList list = detect(&count);
        benchmark::DoNotOptimize(count);
        std::free(list.cells);
    }
    setRate(state, static_cast<long>(kGuideW) * kGuideH);
}

// Matches of every valid reference point into frame 3's guide.
struct MatchSet {
    std::vector<Point2f> current, reference;
};

MatchSet matchAll(int* ambiguous) {
    int count = 0;
    QNGridFeaturePointList list = detect(&count);
    static int coarse[18] = {0, 0, 2, 0, -2, 0, 0, -2, 0, 2, 1, 1, 1, -1, -1, 1, -1, -1};
    static int fine[10] = {0, 0, 1, 0, -1, 0, 0, -1, 0, 1};
    QNMatchSingleBlockParam_ p{};
    p.refImg = const_cast<unsigned char*>(guides().images[2].data());
    p.curImg = const_cast<unsigned char*>(guides().images[3].data());
    p.imgHeight = kGuideH;
    p.imgWidth = kGuideW;
    p.searchRadiusX = p.searchRadiusY = 12;
    p.halfBlockW = p.halfBlockH = 6;
    p.coarsePattern = coarse;
    p.finePattern = fine;
    p.coarseCount = 9;
    p.fineCount = 5;
    p.costPower = 2.0f;
    MatchSet set;
    for (int c = 0; c < 16; ++c) {
        for (int i = 0; i < list.cells[c].count; ++i) {
            const QNFeaturePoint& fp = list.cells[c].points[i];
            if (fp.valid != 1 || fp.x <= 18 || fp.y <= 18 || fp.x >= kGuideW - 19 || fp.y >= kGuideH - 19) continue;
            p.x = fp.x;
            p.y = fp.y;
            if (qnMatchSingleBlock(&p, ambiguous) == 0) {
                set.reference.push_back({p.centerX, p.centerY});
                set.current.push_back({p.centerX + p.motionX, p.centerY + p.motionY});
            }
        }
    }
    std::free(list.cells);
    return set;
}

void BM_StageMatching(benchmark::State& state) {
    for (auto _ : state) {
        int ambiguous = 0;
        MatchSet set = matchAll(&ambiguous);
        benchmark::DoNotOptimize(set.current.data());
        state.counters["matches"] = static_cast<double>(set.current.size());
    }
}

void BM_StageRansac(benchmark::State& state) {
    int ambiguous = 0;
    MatchSet set = matchAll(&ambiguous);
    set.current.resize(640, Point2f{0, 0});
    set.reference.resize(640, Point2f{0, 0});
    for (auto _ : state) {
        std::srand(1);
        Matrix H = matrixEmpty(), R = matrixEmpty();
        run_ransac(set.current.data(), set.reference.data(), H, 640, 1.5f, 0.999999f, 10000, 3);
        run_ransac(set.reference.data(), set.current.data(), R, 640, 1.5f, 0.999999f, 10000, 3);
        matrixRelease(H);
        matrixRelease(R);
    }
}

void BM_StageCellFits(benchmark::State& state) {
    int ambiguous = 0;
    MatchSet set = matchAll(&ambiguous);
    const int k = std::min<int>(static_cast<int>(set.current.size()), 160);
    std::vector<double> w(static_cast<size_t>(k) * k, 0.0);
    for (int i = 0; i < k; ++i) w[static_cast<size_t>(i) * k + i] = 0.5;
    for (auto _ : state) {
        // 16 cells, two weighted fits each, on up to 160 points per cell.
        for (int c = 0; c < 16; ++c) {
            Matrix H = matrixEmpty(), Hi = matrixEmpty();
            calc_homo_wlsq(set.current.data(), set.reference.data(), H, matrixWrap(w.data(), k, k), k);
            calc_homo_wlsq(set.reference.data(), set.current.data(), Hi, matrixWrap(w.data(), k, k), k);
            matrixRelease(H);
            matrixRelease(Hi);
        }
    }
    state.counters["points_per_cell"] = k;
}

void BM_StageWarp(benchmark::State& state) {
    const int quadCols = kWidth / 2, quadRows = kHeight / 2;
    std::vector<short> dst(static_cast<size_t>(kWidth) * kHeight, -1);
    double model[6] = {1.0005, 0.0008, 1.3, -0.0008, 1.0005, -0.7};
    short* src = const_cast<short*>(burst().frames[3].data());
    Rect cells[16];
    const double* models[16];
    for (int c = 0; c < 16; ++c) {
        cells[c] = Rect{(c % 4) * quadCols / 4, (c / 4) * quadRows / 4, quadCols / 4, quadRows / 4};
        models[c] = model;
    }
    for (auto _ : state) {
        int top = 0, bottom = 0, reportedTop = 0, reportedBottom = 0;
        if (kUseFastPaths) {
            // As the alignment does it for the driver: the cells of a grid row
            // together, every sample written (no -1 fill needed beforehand).
            raw_warp_detail::warpCellsByRows(cells, models, 16, quadCols, quadRows, &reportedTop, &reportedBottom, src,
                                             dst.data(), &top, &bottom, true);
        } else {
            for (const Rect& cell : cells)
                qnWarpImgRaw(cell, matrixWrap(model, 2, 3), quadCols, quadRows, 0, 0, nullptr, nullptr, nullptr,
                             nullptr, nullptr, nullptr, nullptr, nullptr, &reportedTop, &reportedBottom, src,
                             dst.data(), &top, &bottom);
        }
        benchmark::DoNotOptimize(dst.data());
    }
    setRate(state, static_cast<long>(kWidth) * kHeight);
}

void BM_StageWriteBack(benchmark::State& state) {
    std::vector<short> aligned = burst().frames[3];
    std::vector<short> frame(aligned.size());
    for (auto _ : state) {
        for (size_t k = 0; k < aligned.size(); ++k) frame[k] = static_cast<short>(std::min(std::max<int>(aligned[k], 0), 1023));
        benchmark::DoNotOptimize(frame.data());
    }
    setRate(state, static_cast<long>(kWidth) * kHeight);
}

void BM_StageAveraging(benchmark::State& state) {
    std::vector<const short*> list;
    for (int i = 2; i < kFrames; ++i) list.push_back(burst().frames[i].data());
    std::vector<short> out(static_cast<size_t>(kWidth) * kHeight);
    for (auto _ : state) {
        frameAverage(list.data(), out.data(), kWidth, kHeight, static_cast<int>(list.size()));
        benchmark::DoNotOptimize(out.data());
    }
    setRate(state, static_cast<long>(kWidth) * kHeight * static_cast<long>(list.size()));
}

}  // namespace

BENCHMARK(BM_NightPathWhole)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_NightProcess)
    ->ArgNames({"robust", "workers"})
    ->Args({KEP_MERGE_MEAN, 1})
    ->Args({KEP_MERGE_ROBUST, 1})
    ->Args({KEP_MERGE_ROBUST, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_StageGuides)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StageSharpness)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StageFeatures)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StageMatching)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StageRansac)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StageCellFits)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StageWarp)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StageWriteBack)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StageAveraging)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();

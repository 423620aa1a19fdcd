// HDR path on a 4000 x 3000 three-exposure bracket: the whole entry and each stage
// on its own, in milliseconds per call (wall clock: most stages run on worker
// threads) and megapixels per second (samples of one frame per call).
//
// The whole-path benchmark labels its result with a hash of the output frame, so
// that a fast build and a -DKEP_FORCE_PLAIN=ON build can be compared at a glance.
#include <benchmark/benchmark.h>

#include <unistd.h>
#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "hdr/exposure_fusion.h"
#include "hdr/fusion_weights.h"
#include "hdr/hdr_process.h"
#include "hdr/intensity.h"
#include "hdr/pyramid.h"
#include "hdr/tone_ops.h"
#include "imgcore/fast_paths.h"
#include "imgcore/row_stripes.h"
#include "synthetic_scene.h"

namespace {

constexpr int kWidth = 4000;
constexpr int kHeight = 3000;
constexpr size_t kPixels = static_cast<size_t>(kWidth) * kHeight;
constexpr int kFrames = 4;
constexpr float kRedGain = 1.9f;
constexpr float kBlueGain = 1.6f;
constexpr float kExposureRatio = 2.0f;
constexpr int kWhite = 1023;

using S16 = std::vector<short>;
using U16 = std::vector<unsigned short>;

const kep::synth::Bracket& bracket() {
    static const kep::synth::Bracket b = [] {
        kep::synth::Scene scene(kWidth, kHeight, 11);
        return kep::synth::makeHdrBracket(scene, kep::synth::BracketOptions{});
    }();
    return b;
}

int* blackLevels() {
    static int levels[4] = {64, 64, 64, 64};
    return levels;
}

void setRate(benchmark::State& state, double samplesPerCall) {
    state.counters["MP/s"] =
        benchmark::Counter(samplesPerCall * static_cast<double>(state.iterations()) / 1e6, benchmark::Counter::kIsRate);
}

// Processor time of the whole process (all worker threads) over the timed
// regions: less sensitive than wall time to other load on a shared machine.
class CpuMeter {
public:
    void start() { begin_ = now(); }
    void stop() { total_ += now() - begin_; }
    void report(benchmark::State& state) const {
        state.counters["cpu_ms"] = total_ * 1e3 / static_cast<double>(std::max<int64_t>(state.iterations(), 1));
    }

private:
    static double now() {
        timespec t;
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
        return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
    }
    double begin_ = 0.0;
    double total_ = 0.0;
};

uint64_t fnv1a(const short* data, size_t count) {
    uint64_t h = 1469598103934665603ull;
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data);
    for (size_t i = 0; i < count * sizeof(short); ++i) h = (h ^ bytes[i]) * 1099511628211ull;
    return h;
}

void whiteBalanceFrame(short* frame, float redGain, float blueGain) {
    runFourWorkers([&](int k) {
        whiteBalance(frame, frame, hdr_detail::whiteBalanceStripeStart(kHeight, k),
                     hdr_detail::whiteBalanceStripeEnd(kHeight, k), redGain, blueGain, kWidth, kWhite, 0);
    });
}

struct LevelSizes {
    int count = hdr_detail::levelCountForSize(kWidth, kHeight);
    std::vector<std::array<int, 2>> storage = hdr_detail::levelSizesFor(kWidth, kHeight, count);
    std::vector<int*> pointers;
    LevelSizes() {
        for (auto& s : storage) pointers.push_back(s.data());
    }
    size_t area(int i) const { return static_cast<size_t>(storage[i][0]) * storage[i][1]; }
};

const LevelSizes& levels() {
    static const LevelSizes l;
    return l;
}

constexpr int kShallow = 6;

// Zero-filled accumulator pyramids of the driver.
struct Pyramids {
    std::vector<S16> full, shallow;
    std::vector<short*> fullPtr, shallowPtr;
    Pyramids() {
        for (int i = 0; i < levels().count; ++i) full.emplace_back(levels().area(i), 0);
        for (int i = 0; i < kShallow; ++i) shallow.emplace_back(levels().area(i), 0);
        point();
    }
    Pyramids(const Pyramids& other) : full(other.full), shallow(other.shallow) { point(); }
    Pyramids& operator=(const Pyramids&) = delete;
    void zero() {
        for (auto& l : full) std::fill(l.begin(), l.end(), 0);
        for (auto& l : shallow) std::fill(l.begin(), l.end(), 0);
    }
    void copyFrom(const Pyramids& other) {
        for (size_t i = 0; i < full.size(); ++i) std::copy(other.full[i].begin(), other.full[i].end(), full[i].begin());
        for (size_t i = 0; i < shallow.size(); ++i)
            std::copy(other.shallow[i].begin(), other.shallow[i].end(), shallow[i].begin());
    }

private:
    void point() {
        fullPtr.clear();
        shallowPtr.clear();
        for (auto& l : full) fullPtr.push_back(l.data());
        for (auto& l : shallow) shallowPtr.push_back(l.data());
    }
};

// The intermediate data of one run of the driver, each stage's input kept.
struct Stages {
    std::vector<S16> gained;        // after stage 4
    std::vector<S16> balanced;      // after stage 5
    std::vector<S16> mapped;        // after stage 6
    std::vector<U16> intensities;   // after stage 9
    std::vector<U16> weights;       // after stage 10
    S16 collapsedFull, collapsedShallow;       // after stage 13 (collapse)
    S16 compressedFull, compressedShallow;     // after stage 13 (range)
    S16 blended;                               // after stage 14
    S16 inverseMapped;                         // after stage 15
    S16 attenuated;                            // after stage 16
    S16 rebalanced;                            // after stage 17

    Stages() {
        const kep::synth::Bracket& b = bracket();
        std::vector<S16> frames = {b.frameC, b.frameB, b.frameA, b.frameA};
        for (int k = 0; k < kFrames; ++k)
            hdr_detail::removeBlackLevelAndGain(frames[k].data(), kWidth, kHeight,
                                                hdr_detail::bracketGain(kExposureRatio, k, kFrames), blackLevels(),
                                                kWhite);
        gained = frames;
        for (auto& f : frames) whiteBalanceFrame(f.data(), kRedGain, kBlueGain);
        balanced = frames;
        std::vector<short> table(kWhite + 1);
        for (int k = 0; k < kFrames; ++k) {
            createGammaTbl(table.data(), kWhite, hdr_detail::gammaExponent(k));
            hdr_detail::mapThroughTable(frames[k].data(), kPixels, table.data(), kWhite);
        }
        mapped = frames;

        intensities.assign(kFrames, U16(kPixels));
        std::vector<short*> f;
        std::vector<unsigned short*> w;
        for (auto& x : frames) f.push_back(x.data());
        for (auto& x : intensities) w.push_back(x.data());
        intensityEstimation(&f, &w, kWidth, kHeight, kFrames, 1, 1, 0);
        weights = intensities;
        w.clear();
        for (auto& x : weights) w.push_back(x.data());
        std::vector<int*> sizes = levels().pointers;
        calculateWeight(&w, &f, &w, kWidth, kHeight, kFrames, 511, kWhite, &sizes, levels().count, 1.0f);

        Pyramids p;
        exposureFusion(&w, &f, &p.fullPtr, &p.shallowPtr, &sizes, kHeight, kWidth, kRedGain, kBlueGain, kFrames,
                       levels().count, kShallow, 1.0f, 1.0f, 6, kWhite);
        fusedPyramids.reset(new Pyramids(p));

        reconstructLaplacianPyramid(&p.fullPtr, &sizes, levels().count, kWhite);
        reconstructLaplacianPyramid(&p.shallowPtr, &sizes, kShallow, kWhite);
        collapsedFull = p.full[0];
        collapsedShallow = p.shallow[0];
        dataRangeCompression(p.fullPtr[0], p.fullPtr[0], kWidth, kHeight, kWhite, 0.7f, 0.55f);
        dataRangeCompression(p.shallowPtr[0], p.shallowPtr[0], kWidth, kHeight, kWhite, 0.7f, 0.55f);
        compressedFull = p.full[0];
        compressedShallow = p.shallow[0];
        blended = compressedFull;
        alphaFusion(blended.data(), compressedShallow.data(), blended.data(), 0, kHeight, kWidth, 0.5f, 0.5f);
        inverseMapped = blended;
        createGammaTbl(table.data(), kWhite, 2.0f);
        hdr_detail::mapThroughTable(inverseMapped.data(), kPixels, table.data(), kWhite);
        attenuated = inverseMapped;
        greenAttenuation(attenuated.data(), attenuated.data(), kWidth, kHeight, kWhite, 0);
        rebalanced = attenuated;
        whiteBalanceFrame(rebalanced.data(), 1.0f / kRedGain, 1.0f / kBlueGain);
    }

    // The fused pyramids before the collapse (all levels).
    std::unique_ptr<Pyramids> fusedPyramids;
};

const Stages& stages() {
    static const Stages s;
    return s;
}

template <typename Image>
void copyInto(std::vector<Image>& dst, const std::vector<Image>& src) {
    dst.resize(src.size());
    for (size_t k = 0; k < src.size(); ++k) dst[k] = src[k];
}

// hdrProcess prints its processor time on every call; keep that out of the report.
class QuietStdout {
public:
    QuietStdout() {
        std::fflush(stdout);
        saved_ = dup(1);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        close(null);
    }
    ~QuietStdout() {
        std::fflush(stdout);
        dup2(saved_, 1);
        close(saved_);
    }

private:
    int saved_;
};

void BM_HdrWhole(benchmark::State& state) {
    CpuMeter cpu;
    const kep::synth::Bracket& b = bracket();
    S16 a, bb, c, out(kPixels);
    for (auto _ : state) {
        state.PauseTiming();
        a = b.frameA;
        bb = b.frameB;
        c = b.frameC;
        {
            QuietStdout quiet;
            state.ResumeTiming();
            cpu.start();
            hdrProcess(a.data(), bb.data(), c.data(), out.data(), kRedGain, kBlueGain, kWidth, kHeight,
                       kExposureRatio, 0, blackLevels());
            cpu.stop();
            state.PauseTiming();
        }
        state.ResumeTiming();
        benchmark::DoNotOptimize(out.data());
    }
    char label[32];
    std::snprintf(label, sizeof label, "output %016llx", static_cast<unsigned long long>(fnv1a(out.data(), kPixels)));
    state.SetLabel(label);
    setRate(state, static_cast<double>(kPixels));
    cpu.report(state);
}

// Stage 4: black level and bracket gains, four frames.
void BM_StageBlackLevelGain(benchmark::State& state) {
    CpuMeter cpu;
    const kep::synth::Bracket& b = bracket();
    std::vector<S16> frames;
    for (auto _ : state) {
        state.PauseTiming();
        frames = {b.frameC, b.frameB, b.frameA, b.frameA};
        state.ResumeTiming();
        cpu.start();
        for (int k = 0; k < kFrames; ++k)
            hdr_detail::removeBlackLevelAndGain(frames[k].data(), kWidth, kHeight,
                                                hdr_detail::bracketGain(kExposureRatio, k, kFrames), blackLevels(),
                                                kWhite);
        cpu.stop();
        benchmark::DoNotOptimize(frames[3].data());
    }
    setRate(state, static_cast<double>(kPixels) * kFrames);
    cpu.report(state);
}

// Stage 5: white balance, four frames.
void BM_StageWhiteBalance(benchmark::State& state) {
    CpuMeter cpu;
    std::vector<S16> frames;
    for (auto _ : state) {
        state.PauseTiming();
        copyInto(frames, stages().gained);
        state.ResumeTiming();
        cpu.start();
        for (auto& f : frames) whiteBalanceFrame(f.data(), kRedGain, kBlueGain);
        cpu.stop();
        benchmark::DoNotOptimize(frames[3].data());
    }
    setRate(state, static_cast<double>(kPixels) * kFrames);
    cpu.report(state);
}

// Stage 6: forward gamma tables and mapping, four frames.
void BM_StageGamma(benchmark::State& state) {
    CpuMeter cpu;
    std::vector<S16> frames;
    std::vector<short> table(kWhite + 1);
    for (auto _ : state) {
        state.PauseTiming();
        copyInto(frames, stages().balanced);
        state.ResumeTiming();
        cpu.start();
        for (int k = 0; k < kFrames; ++k) {
            createGammaTbl(table.data(), kWhite, hdr_detail::gammaExponent(k));
            hdr_detail::mapThroughTable(frames[k].data(), kPixels, table.data(), kWhite);
        }
        cpu.stop();
        benchmark::DoNotOptimize(frames[3].data());
    }
    setRate(state, static_cast<double>(kPixels) * kFrames);
    cpu.report(state);
}

// Stages 4 to 6 as the driver runs them (fused per band of quad rows when fast
// paths are on, stage by stage otherwise), four frames.
void BM_StagesPrepare(benchmark::State& state) {
    CpuMeter cpu;
    const kep::synth::Bracket& b = bracket();
    std::vector<S16> frames(kFrames, S16(kPixels));
    std::vector<short> table(kWhite + 1);
    for (auto _ : state) {
        state.PauseTiming();
        frames[0] = b.frameC;
        frames[1] = b.frameB;
        frames[3] = b.frameA;
        state.ResumeTiming();
        cpu.start();
        std::vector<short*> f = {frames[0].data(), frames[1].data(), frames[2].data(), frames[3].data()};
        if (kUseFastPaths) {
            hdr_detail::prepareFramesFused(f, {b.frameC.data(), b.frameB.data(), b.frameA.data(), b.frameA.data()},
                                           kWidth, kHeight, kExposureRatio, blackLevels(), kRedGain, kBlueGain, kWhite,
                                           0, table.data(), bestKernelIsa());
        } else {
            frames[2] = b.frameA;
            hdr_detail::prepareFramesPlain(f, kWidth, kHeight, kExposureRatio, blackLevels(), kRedGain, kBlueGain,
                                           kWhite, 0, table.data());
        }
        cpu.stop();
        benchmark::DoNotOptimize(frames[3].data());
    }
    setRate(state, static_cast<double>(kPixels) * kFrames);
    cpu.report(state);
}

// Stage 9: intensity estimation, four frames.
void BM_StageIntensity(benchmark::State& state) {
    CpuMeter cpu;
    std::vector<S16> frames = stages().mapped;
    std::vector<U16> out(kFrames, U16(kPixels));
    std::vector<short*> f;
    std::vector<unsigned short*> w;
    for (auto& x : frames) f.push_back(x.data());
    for (auto& x : out) w.push_back(x.data());
    for (auto _ : state) {
        cpu.start();
        intensityEstimation(&f, &w, kWidth, kHeight, kFrames, 1, 1, 0);
        cpu.stop();
        benchmark::DoNotOptimize(out[3].data());
    }
    setRate(state, static_cast<double>(kPixels) * kFrames);
    cpu.report(state);
}

// Stage 10: fusion weights from the intensities, in place as the driver runs it.
void BM_StageWeights(benchmark::State& state) {
    CpuMeter cpu;
    std::vector<U16> maps;
    std::vector<S16> frames = stages().mapped;
    std::vector<short*> f;
    for (auto& x : frames) f.push_back(x.data());
    std::vector<int*> sizes = levels().pointers;
    for (auto _ : state) {
        state.PauseTiming();
        copyInto(maps, stages().intensities);
        std::vector<unsigned short*> w;
        for (auto& x : maps) w.push_back(x.data());
        state.ResumeTiming();
        cpu.start();
        calculateWeight(&w, &f, &w, kWidth, kHeight, kFrames, 511, kWhite, &sizes, levels().count, 1.0f);
        cpu.stop();
        benchmark::DoNotOptimize(maps[3].data());
    }
    setRate(state, static_cast<double>(kPixels) * kFrames);
    cpu.report(state);
}

// Stage 12: weight pyramids, Laplacian pyramids and their fusion into both
// accumulator pyramids, four frames.
void BM_StagePyramidsAndFusion(benchmark::State& state) {
    CpuMeter cpu;
    std::vector<S16> frames;
    std::vector<U16> weights;
    std::vector<int*> sizes = levels().pointers;
    Pyramids p;
    for (auto _ : state) {
        state.PauseTiming();
        copyInto(frames, stages().mapped);
        copyInto(weights, stages().weights);
        std::vector<short*> f;
        std::vector<unsigned short*> w;
        for (auto& x : frames) f.push_back(x.data());
        for (auto& x : weights) w.push_back(x.data());
        p.zero();
        state.ResumeTiming();
        cpu.start();
        exposureFusion(&w, &f, &p.fullPtr, &p.shallowPtr, &sizes, kHeight, kWidth, kRedGain, kBlueGain, kFrames,
                       levels().count, kShallow, 1.0f, 1.0f, 6, kWhite);
        cpu.stop();
        benchmark::DoNotOptimize(p.full[0].data());
    }
    setRate(state, static_cast<double>(kPixels) * kFrames);
    cpu.report(state);
}

// Stage 13, first half: both collapses.
void BM_StageCollapse(benchmark::State& state) {
    CpuMeter cpu;
    std::vector<int*> sizes = levels().pointers;
    Pyramids p;
    for (auto _ : state) {
        state.PauseTiming();
        p.copyFrom(*stages().fusedPyramids);
        state.ResumeTiming();
        cpu.start();
        reconstructLaplacianPyramid(&p.fullPtr, &sizes, levels().count, kWhite);
        reconstructLaplacianPyramid(&p.shallowPtr, &sizes, kShallow, kWhite);
        cpu.stop();
        benchmark::DoNotOptimize(p.full[0].data());
    }
    setRate(state, static_cast<double>(kPixels) * 2);
    cpu.report(state);
}

// Stage 13, second half: range compression of both collapsed images.
void BM_StageRangeCompression(benchmark::State& state) {
    CpuMeter cpu;
    S16 full, shallow;
    for (auto _ : state) {
        state.PauseTiming();
        full = stages().collapsedFull;
        shallow = stages().collapsedShallow;
        state.ResumeTiming();
        cpu.start();
        dataRangeCompression(full.data(), full.data(), kWidth, kHeight, kWhite, 0.7f, 0.55f);
        dataRangeCompression(shallow.data(), shallow.data(), kWidth, kHeight, kWhite, 0.7f, 0.55f);
        cpu.stop();
        benchmark::DoNotOptimize(shallow.data());
    }
    setRate(state, static_cast<double>(kPixels) * 2);
    cpu.report(state);
}

// Stages 13 (range compression) to 19 as the driver runs them: fused per band of
// quad rows when fast paths are on, stage by stage otherwise.
void BM_StagesTone(benchmark::State& state) {
    CpuMeter cpu;
    S16 full, shallow, out(kPixels);
    Parameter tuning;
    initializeParameter(&tuning);
    std::vector<short> table(kWhite + 1);
    for (auto _ : state) {
        state.PauseTiming();
        full = stages().collapsedFull;
        shallow = stages().collapsedShallow;
        state.ResumeTiming();
        cpu.start();
        if (kUseFastPaths)
            hdr_detail::toneStagesFused(full.data(), shallow.data(), out.data(), kWidth, kHeight, kRedGain, kBlueGain,
                                        blackLevels(), tuning, 2.0f, table.data(), bestKernelIsa());
        else
            hdr_detail::toneStagesPlain(full.data(), shallow.data(), out.data(), kWidth, kHeight, kRedGain, kBlueGain,
                                        blackLevels(), tuning, 2.0f, table.data());
        cpu.stop();
        benchmark::DoNotOptimize(out.data());
    }
    setRate(state, static_cast<double>(kPixels));
    cpu.report(state);
}

// Stage 14: blend of the two results on four stripes.
void BM_StageBlend(benchmark::State& state) {
    CpuMeter cpu;
    S16 full;
    for (auto _ : state) {
        state.PauseTiming();
        full = stages().compressedFull;
        state.ResumeTiming();
        cpu.start();
        short* a = full.data();
        short* b = const_cast<short*>(stages().compressedShallow.data());
        runOnFourStripes(kHeight, [&](int rowStart, int rowEnd) {
            alphaFusion(a, b, a, rowStart, rowEnd, kWidth, 0.5f, 0.5f);
        });
        cpu.stop();
        benchmark::DoNotOptimize(full.data());
    }
    setRate(state, static_cast<double>(kPixels));
    cpu.report(state);
}

// Stage 15: inverse gamma table and mapping.
void BM_StageInverseGamma(benchmark::State& state) {
    CpuMeter cpu;
    S16 image;
    std::vector<short> table(kWhite + 1);
    for (auto _ : state) {
        state.PauseTiming();
        image = stages().blended;
        state.ResumeTiming();
        cpu.start();
        createGammaTbl(table.data(), kWhite, 2.0f);
        hdr_detail::mapThroughTable(image.data(), kPixels, table.data(), kWhite);
        cpu.stop();
        benchmark::DoNotOptimize(image.data());
    }
    setRate(state, static_cast<double>(kPixels));
    cpu.report(state);
}

// Stage 16: green attenuation.
void BM_StageGreenAttenuation(benchmark::State& state) {
    CpuMeter cpu;
    S16 image;
    for (auto _ : state) {
        state.PauseTiming();
        image = stages().inverseMapped;
        state.ResumeTiming();
        cpu.start();
        greenAttenuation(image.data(), image.data(), kWidth, kHeight, kWhite, 0);
        cpu.stop();
        benchmark::DoNotOptimize(image.data());
    }
    setRate(state, static_cast<double>(kPixels));
    cpu.report(state);
}

// Stage 17: inverse white balance.
void BM_StageInverseWhiteBalance(benchmark::State& state) {
    CpuMeter cpu;
    S16 image;
    for (auto _ : state) {
        state.PauseTiming();
        image = stages().attenuated;
        state.ResumeTiming();
        cpu.start();
        whiteBalanceFrame(image.data(), 1.0f / kRedGain, 1.0f / kBlueGain);
        cpu.stop();
        benchmark::DoNotOptimize(image.data());
    }
    setRate(state, static_cast<double>(kPixels));
    cpu.report(state);
}

// Stage 18: black-level restore.
void BM_StageBlackLevelRestore(benchmark::State& state) {
    CpuMeter cpu;
    S16 image;
    for (auto _ : state) {
        state.PauseTiming();
        image = stages().rebalanced;
        state.ResumeTiming();
        cpu.start();
        hdr_detail::restoreBlackLevel(image.data(), kWidth, kHeight, blackLevels(), kWhite);
        cpu.stop();
        benchmark::DoNotOptimize(image.data());
    }
    setRate(state, static_cast<double>(kPixels));
    cpu.report(state);
}

}  // namespace

BENCHMARK(BM_HdrWhole)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StageBlackLevelGain)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StageWhiteBalance)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StageGamma)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StagesPrepare)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StageIntensity)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StageWeights)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StagePyramidsAndFusion)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StageCollapse)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StageRangeCompression)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StagesTone)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StageBlend)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StageInverseGamma)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StageGreenAttenuation)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StageInverseWhiteBalance)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StageBlackLevelRestore)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();

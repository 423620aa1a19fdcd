// Whole-pipeline output hashes of fixed bursts and brackets. Each case runs twice
// and must give the same hashes (catches reads of uninitialised memory and other
// nondeterminism). With KEP_PIPELINE_HASHES set to a file name, every line
// "<case> <item> <value>" is appended to that file: scripts/compare-pipeline-hashes.sh
// runs this program natively and under the AArch64 emulator and requires identical
// files, which holds only if the arithmetic is bit-exact on both architectures.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/pipeline_inputs.h"

namespace {

using pipeline_inputs::fnv1a64;

std::string hex(uint64_t h) {
    char text[17];
    std::snprintf(text, sizeof text, "%016" PRIx64, h);
    return text;
}

// Lines of one case; printed, and appended to $KEP_PIPELINE_HASHES when set.
struct HashLines {
    std::vector<std::string> lines;

    void add(const std::string& name, const std::string& item, const std::string& value) {
        lines.push_back(name + " " + item + " " + value);
    }
    void publish() const {
        for (const auto& l : lines) std::printf("%s\n", l.c_str());
        const char* path = std::getenv("KEP_PIPELINE_HASHES");
        if (path == nullptr || *path == '\0') return;
        std::FILE* f = std::fopen(path, "a");
        ASSERT_NE(f, nullptr) << path;
        for (const auto& l : lines) std::fprintf(f, "%s\n", l.c_str());
        std::fclose(f);
    }
};

struct NightCase {
    const char* name;
    pipeline_inputs::NightBurst burst;
    pipeline_inputs::NightParams params;
};

std::vector<NightCase> nightCases() {
    std::vector<NightCase> cases;
    // Hand-shake with sub-sample shifts and sensor-like noise: every stage of the
    // registration, bilinear warping and the averaging.
    NightCase shake{"night_shake",
                    pipeline_inputs::makeNightBurst(640, 480, 3,
                                                    {{2.5, -1.25}, {-3.0, 1.5}, {0, 0}, {1.75, 2.25}, {-2.5, -0.5},
                                                     {3.25, 1.0}, {-1.0, -2.75}},
                                                    3, 9),
                    {}};
    cases.push_back(shake);
    // Another pattern code, brightening, and the output aliasing the reference.
    NightCase bright{"night_bright", pipeline_inputs::makeNightBurst(448, 256, 8,
                                                                     {{-2.0, 3.5}, {1.5, 0.75}, {0, 0}, {-1.25, -2.0},
                                                                      {2.75, -1.5}},
                                                                     2, 4),
                     {}};
    bright.params.bayerPattern = 2;
    bright.params.gain = 2.5f;
    bright.params.outputFrame = 2;
    bright.params.alignTuning = 1.5f;
    bright.params.minFeatureCount = 8;
    cases.push_back(bright);
    return cases;
}

HashLines nightHashes(const NightCase& c) {
    HashLines out;
    for (size_t k = 0; k < c.burst.frames.size(); ++k) out.add(c.name, "input" + std::to_string(k), hex(fnv1a64(c.burst.frames[k])));
    std::srand(1);  // RANSAC draws from rand(): a fixed sequence makes the run reproducible
    const pipeline_inputs::NightResult r = pipeline_inputs::runNight(c.burst, c.params);
    out.add(c.name, "merged", hex(fnv1a64(r.output)));
    for (size_t k = 0; k < r.frames.size(); ++k) out.add(c.name, "aligned" + std::to_string(k), hex(fnv1a64(r.frames[k])));
    out.add(c.name, "zoom",
            std::to_string(r.zoom.top) + "," + std::to_string(r.zoom.left) + "," + std::to_string(r.zoom.right) + "," +
                std::to_string(r.zoom.bottom) + "," + std::to_string(r.zoom.pointCount));
    out.add(c.name, "usable", std::to_string(r.usable));
    EXPECT_GT(r.usable, 1) << c.name << ": the burst fell back to the reference";
    return out;
}

// The night path with options: the robust merge (estimated and given noise, 10 and
// 16 bits, a subject that moves on its own) and the mean merge at 12 bits.
struct ProcessCase {
    const char* name;
    pipeline_inputs::NightBurst burst;
    KepNightOptions options;
};

std::vector<ProcessCase> processCases() {
    std::vector<ProcessCase> cases;
    const std::vector<NightCase> night = nightCases();
    KepNightOptions o;
    kepNightDefaultOptions(&o);
    o.sharpnessRatio = 0.5f;
    o.mergeMode = KEP_MERGE_ROBUST;
    cases.push_back({"robust_shake", night[0].burst, o});
    pipeline_inputs::NightBurst subject = night[1].burst;
    pipeline_inputs::addMovingDisc(subject, 150, 120, 40, 20);
    KepNightOptions deep = o;
    deep.bayerPattern = 2;
    deep.outputBits = 16;
    deep.gain = 1.5f;
    deep.noiseGiven = 1;
    deep.noiseA = 2.0f;
    deep.noiseB = 9.0f;
    deep.minFeatureCount = 8;
    deep.workers = 1;
    cases.push_back({"robust_subject16", subject, deep});
    KepNightOptions mean = o;
    mean.mergeMode = KEP_MERGE_MEAN;
    mean.outputBits = 12;
    cases.push_back({"mean_shake12", night[0].burst, mean});
    return cases;
}

std::string bits(float v) {
    uint32_t u;
    std::memcpy(&u, &v, sizeof u);
    char text[9];
    std::snprintf(text, sizeof text, "%08" PRIx32, u);
    return text;
}

HashLines processHashes(const ProcessCase& c) {
    HashLines out;
    std::srand(1);
    const pipeline_inputs::NightProcessResult r = pipeline_inputs::runNightProcess(c.burst, c.options);
    EXPECT_EQ(r.status, KEP_NIGHT_OK) << c.name;
    out.add(c.name, "merged",
            hex(pipeline_inputs::fnv1a64(reinterpret_cast<const short*>(r.output.data()), r.output.size())));
    for (size_t k = 0; k < r.frames.size(); ++k) out.add(c.name, "aligned" + std::to_string(k), hex(fnv1a64(r.frames[k])));
    const KepNightResult& m = r.result;
    std::string outcomes, weights;
    for (size_t k = 0; k < r.frames.size(); ++k) {
        outcomes += std::to_string(m.frameOutcome[k]);
        weights += bits(m.frameWeight[k]) + ",";
    }
    out.add(c.name, "result",
            std::to_string(m.usableFrames) + "," + std::to_string(m.validTop) + "," + std::to_string(m.validLeft) + "," +
                std::to_string(m.validRight) + "," + std::to_string(m.validBottom) + "," +
                std::to_string(m.featurePoints) + "," + outcomes);
    out.add(c.name, "weights", weights + bits(m.rejectedFraction) + "," + bits(m.refinedTileFraction));
    out.add(c.name, "noise", bits(m.noiseA) + "," + bits(m.noiseB) + "," + std::to_string(m.noiseEstimated));
    EXPECT_GT(m.usableFrames, 1) << c.name << ": the burst fell back to the reference";
    return out;
}

TEST(PipelineHashes, NightProcess) {
    for (const ProcessCase& c : processCases()) {
        const HashLines first = processHashes(c);
        ProcessCase other = c;
        other.options.workers = c.options.workers == 1 ? 3 : 1;
        const HashLines second = processHashes(other);
        ASSERT_EQ(first.lines, second.lines) << c.name << ": the result depends on the number of workers";
        first.publish();
    }
}

TEST(PipelineHashes, NightEntry) {
    for (const NightCase& c : nightCases()) {
        const HashLines first = nightHashes(c);
        const HashLines second = nightHashes(c);
        ASSERT_EQ(first.lines, second.lines) << c.name << ": two runs with the same rand() sequence differ";
        first.publish();
    }
}

#if KEP_HAVE_HDR_PROCESS

struct HdrCase {
    const char* name;
    pipeline_inputs::Bracket bracket;
    pipeline_inputs::HdrParams params;
};

std::vector<HdrCase> hdrCases() {
    std::vector<HdrCase> cases;
    cases.push_back({"hdr_256x192", pipeline_inputs::makeBracket(256, 192, 5, 0, 64), {}});
    // A quarter height that is odd (stripe starts on odd rows) and a smaller side
    // below 128 (fewer pyramid levels than the shallow depth).
    HdrCase small{"hdr_160x108", pipeline_inputs::makeBracket(160, 108, 12, 3, 48), {}};
    small.params.bayerPattern = 3;
    small.params.exposureRatio = 8.0f;
    small.params.redGain = 2.25f;
    small.params.blueGain = 1.125f;
    small.params.blackLevels[0] = 48;
    small.params.blackLevels[1] = 50;
    small.params.blackLevels[2] = 52;
    small.params.blackLevels[3] = 47;
    cases.push_back(small);
    return cases;
}

HashLines hdrHashes(const HdrCase& c) {
    HashLines out;
    out.add(c.name, "inputA", hex(fnv1a64(c.bracket.frameA)));
    out.add(c.name, "inputB", hex(fnv1a64(c.bracket.frameB)));
    out.add(c.name, "inputC", hex(fnv1a64(c.bracket.frameC)));
    const pipeline_inputs::HdrResult r = pipeline_inputs::runHdr(c.bracket, c.params);
    out.add(c.name, "output", hex(fnv1a64(r.output)));
    return out;
}

TEST(PipelineHashes, HdrProcess) {
    for (const HdrCase& c : hdrCases()) {
        const HashLines first = hdrHashes(c);
        const HashLines second = hdrHashes(c);
        ASSERT_EQ(first.lines, second.lines) << c.name << ": two runs differ";
        first.publish();
    }
}

#else

TEST(PipelineHashes, HdrProcess) { GTEST_SKIP() << "hdr/hdr_process.h is not on this tree yet"; }

#endif

}  // namespace

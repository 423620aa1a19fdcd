// kepraw demo at a small size: its outputs are the scene and the library's own
// results (both merges and the HDR fusion), and its report says so.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "burst_scenes.h"
#include "commands.h"
#include "registration/night_process.h"
#include "test_support.h"

namespace {

using kepraw_test::TempDir;

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

constexpr int kWidth = 448, kHeight = 320;

std::vector<short> merge(const kep::synth::Burst& burst, int mode) {
    std::vector<std::vector<short>> frames = burst.frames;
    std::vector<short*> pointers;
    for (auto& f : frames) pointers.push_back(f.data());
    std::vector<uint16_t> merged(burst.clean.size());
    KepNightOptions o;
    kepNightDefaultOptions(&o);
    o.mergeMode = mode;
    KepNightResult r;
    r.structSize = sizeof(r);
    EXPECT_EQ(kepNightProcess(pointers.data(), 8, kWidth, kHeight, &o, merged.data(), &r), KEP_NIGHT_OK);
    EXPECT_EQ(r.usableFrames, 6);
    return std::vector<short>(merged.begin(), merged.end());
}

TEST(DemoCommand, WritesTheSceneAndTheLibrarysOwnResults) {
    TempDir dir;
    // Without --out the demo writes ./kepraw-demo in the current directory.
    const std::string size = std::to_string(kWidth) + "x" + std::to_string(kHeight);
    const kepraw_test::RunResult r = kepraw_test::runKepraw({"demo", "--size", size}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "") << "library diagnostics belong in the report";
    for (const char* line : {"synthetic scene 448x320", "frame  exposure", "usable frames 6",
                             "reference frame alone", "mean   merge", "robust merge", "rejected as motion"})
        EXPECT_TRUE(contains(r.out, line)) << line << "\n" << r.out;
    const std::string out = dir.file("kepraw-demo");

    std::vector<std::string> names, expected = {"merged-mean.png",   "merged-mean.raw", "merged-robust.png",
                                                "merged-robust.raw", "reference.png",   "reference.raw",
                                                "report.json",       "weights.png"};
    if (kepraw::hdrAvailable()) expected.insert(expected.begin(), {"hdr.png", "hdr.raw"});
    for (const auto& e : std::filesystem::directory_iterator(out)) names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, expected) << "no temporaries may remain";
    int w = 0, h = 0;
    ASSERT_TRUE(kepraw_test::pngSize(out + "/weights.png", w, h));
    EXPECT_EQ(w, kWidth / 2);
    EXPECT_EQ(h, kHeight / 2);

    kep::synth::SceneBurstOptions o;
    o.scene = kep::synth::BurstScene::MovingSubject;
    o.width = kWidth;
    o.height = kHeight;
    const kep::synth::SceneBurst scene = kep::synth::makeSceneBurst(o);
    EXPECT_EQ(kepraw_test::readHeaderless(out + "/reference.raw"), scene.burst.frames[2]);
    EXPECT_EQ(kepraw_test::readHeaderless(out + "/merged-mean.raw"), merge(scene.burst, KEP_MERGE_MEAN));
    EXPECT_EQ(kepraw_test::readHeaderless(out + "/merged-robust.raw"), merge(scene.burst, KEP_MERGE_ROBUST));
    if (kepraw::hdrAvailable()) {
        const kep::synth::HdrBracket b =
            kep::synth::makeHdrBracket(kep::synth::Scene(kWidth, kHeight, 7), kep::synth::HdrBracketOptions{});
        std::vector<short> s = b.shortFrame, m = b.midFrame, l = b.longFrame, fused(s.size());
        int black[4] = {64, 64, 64, 64};
        kepraw::callHdrProcess(s.data(), m.data(), l.data(), fused.data(), 1.0f, 1.0f, kWidth, kHeight, 4.0f, 0, black);
        EXPECT_EQ(kepraw_test::readHeaderless(out + "/hdr.raw"), fused);
    }
    const std::string json = kepraw_test::readBytes(out + "/report.json");
    for (const char* key : {"\"psnrGhostArea\"", "\"rejectedFraction\"", "\"robustMergeWeight\"", "\"motionDx\"",
                            "\"outcome\"", "nocturn : enter frame registration"})
        EXPECT_TRUE(contains(json, key)) << key;
}

}  // namespace

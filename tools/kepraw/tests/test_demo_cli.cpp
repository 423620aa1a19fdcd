// kepraw demo: once at its full size (the outputs, the report and the printed
// summary), and at a small size, where every raw result is checked against the
// synthetic data and direct library calls.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "commands.h"
#include "registration/nocturn_entry.h"
#include "test_support.h"

namespace {

using kepraw_test::TempDir;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::vector<std::string> expectedFiles() {
    std::vector<std::string> names = {"merged.png", "merged.raw", "reference.png", "reference.raw", "report.json"};
    if (kepraw::hdrAvailable())
        names = {"hdr.png", "hdr.raw", "merged.png", "merged.raw", "reference.png", "reference.raw", "report.json"};
    return names;
}

TEST(DemoCommand, FullSizeDemoWritesEveryOutputAndPrintsItsReport) {
    TempDir dir;
    const kepraw_test::RunResult r = kepraw_test::runKepraw({"demo", "--out", dir.file("demo")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "") << "library diagnostics belong in the report";
    for (const char* line : {"synthetic scene 2048x1536", "frame  exposure", "usable frames",
                             "PSNR against the clean scene: reference", "time "})
        EXPECT_TRUE(contains(r.out, line)) << line << "\n" << r.out;
    EXPECT_TRUE(contains(r.out, kepraw::hdrAvailable() ? "hdr path: short / mid / long" : "hdr path: not built"));

    const std::string out = dir.file("demo");
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(out)) names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, expectedFiles()) << "no temporaries may remain";
    EXPECT_EQ(kepraw_test::readBytes(out + "/merged.raw").size(), 2048u * 1536u * 2u);
    int w = 0, h = 0;
    ASSERT_TRUE(kepraw_test::pngSize(out + "/merged.png", w, h));
    EXPECT_EQ(w, 2048);
    EXPECT_EQ(h, 1536);
    const std::string json = kepraw_test::readBytes(out + "/report.json");
    for (const char* key : {"\"usableFrameCount\"", "\"pointCount\"", "\"psnrReference\"", "\"psnrMerged\"",
                            "\"motionDx\"", "\"outcome\"", "nocturn : enter frame registration"})
        EXPECT_TRUE(contains(json, key)) << key;
}

TEST(DemoCommand, SmallDemoResultsAreTheSceneAndTheLibrarysOwnOutputs) {
    TempDir dir;
    // Without --out the demo writes ./kepraw-demo in the current directory.
    const kepraw_test::RunResult r = kepraw_test::runKepraw({"demo", "--size", "256x192"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string out = dir.file("kepraw-demo");

    const kep::synth::Scene scene(256, 192, 11);
    kep::synth::BurstOptions options;
    options.width = 256;
    options.height = 192;
    const kep::synth::Burst burst = kep::synth::makeNightBurst(scene, options);
    EXPECT_EQ(kepraw_test::readHeaderless(out + "/reference.raw"), burst.frames[2]);

    std::vector<std::vector<short>> frames = burst.frames;
    std::vector<short*> pointers;
    for (auto& f : frames) pointers.push_back(f.data());
    std::vector<short> merged(burst.clean.size());
    int usable = 0;
    USERZOOM zoom{};
    qnNocturnPreProcess(pointers.data(), merged.data(), 8, &usable, 256, 192, 1, 30, 0, &zoom, 0, 64, 64, 64, 0.0f,
                        0.0f, 1.0f, 1.0f, 0.0f, 0.9f);
    EXPECT_EQ(kepraw_test::readHeaderless(out + "/merged.raw"), merged);
    EXPECT_TRUE(contains(
        r.out, "usable frames " + std::to_string(usable) + ", feature points " + std::to_string(zoom.pointCount)));

    if (kepraw::hdrAvailable()) {
        const kep::synth::HdrBracket b = kep::synth::makeHdrBracket(scene, kep::synth::HdrBracketOptions{});
        std::vector<short> s = b.shortFrame, m = b.midFrame, l = b.longFrame, fused(s.size());
        int black[4] = {64, 64, 64, 64};
        kepraw::callHdrProcess(s.data(), m.data(), l.data(), fused.data(), 1.0f, 1.0f, 256, 192, 4.0f, 0, black);
        EXPECT_EQ(kepraw_test::readHeaderless(out + "/hdr.raw"), fused);
    }

    // A second run replaces the outputs with identical ones.
    const std::string firstReport = kepraw_test::readBytes(out + "/merged.raw");
    ASSERT_EQ(kepraw_test::runKepraw({"demo", "--size", "256x192"}, dir.path()).status, 0);
    EXPECT_EQ(kepraw_test::readBytes(out + "/merged.raw"), firstReport);
}

}  // namespace

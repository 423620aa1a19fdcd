// kepraw night on generated bursts: the raw result must be what a direct call of
// the library gives on the same data and parameters, in headerless and DNG form,
// with the preview and report written and the inputs untouched.

#include <gtest/gtest.h>

#include "raw_reader.h"
#include "registration/night_process.h"
#include "registration/nocturn_entry.h"
#include "test_support.h"

namespace {

using kepraw_test::TempDir;

struct NightParams {
    int grayGain = 1, minFeatures = 30, pattern = 0, black[3] = {64, 64, 64};
    float gain = 1.0f, alignTuning = 1.0f, blurSelect = 0.0f, sharpnessRatio = 0.9f;
};

struct Direct {
    std::vector<short> output;
    int usable = 0;
    USERZOOM zoom{};
};

Direct callNight(std::vector<std::vector<short>> frames, int w, int h, const NightParams& p) {
    std::vector<short*> pointers;
    for (auto& f : frames) pointers.push_back(f.data());
    Direct d;
    d.output.assign(static_cast<size_t>(w) * h, 0);
    qnNocturnPreProcess(pointers.data(), d.output.data(), static_cast<int>(frames.size()), &d.usable, w, h, p.grayGain,
                        p.minFeatures, 0, &d.zoom, p.pattern, p.black[0], p.black[1], p.black[2], 0.0f, 0.0f, p.gain,
                        p.alignTuning, p.blurSelect, p.sharpnessRatio);
    return d;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(NightCommand, HeaderlessBurstGivesTheLibrarysResultPreviewAndReport) {
    const int w = 640, h = 480;
    const kep::synth::Burst burst = kepraw_test::smallBurst(w, h, 8);
    TempDir in, out;
    std::vector<std::string> args = {"night"};
    for (size_t i = 0; i < burst.frames.size(); ++i) {
        const std::string path = in.file("frame" + std::to_string(i) + ".raw");
        kepraw_test::writeHeaderless(path, burst.frames[i]);
        args.push_back(path);
    }
    const auto inputs = kepraw_test::snapshot(in);
    args.insert(args.end(), {"--size", "640x480", "-o", out.file("merged.raw"), "--png", out.file("merged.png"),
                             "--json", out.file("report.json")});
    const kepraw_test::RunResult r = kepraw_test::runKepraw(args);
    ASSERT_EQ(r.status, 0) << r.err;

    const Direct direct = callNight(burst.frames, w, h, NightParams{});
    EXPECT_EQ(kepraw_test::readHeaderless(out.file("merged.raw")), direct.output);
    int pw = 0, ph = 0;
    ASSERT_TRUE(kepraw_test::pngSize(out.file("merged.png"), pw, ph));
    EXPECT_EQ(pw, w);
    EXPECT_EQ(ph, h);
    const std::string json = kepraw_test::readBytes(out.file("report.json"));
    EXPECT_TRUE(contains(json, "\"usableFrameCount\": " + std::to_string(direct.usable)));
    EXPECT_TRUE(contains(json, "\"featurePoints\": " + std::to_string(direct.zoom.pointCount)));
    EXPECT_TRUE(contains(json, "\"minFeatureCount\": 30"));
    EXPECT_TRUE(contains(json, "\"sharpnessRatio\": 0.8999999762"));
    EXPECT_TRUE(contains(json, "\"outcome\": \"reference\""));
    EXPECT_TRUE(contains(r.out, "usable frames " + std::to_string(direct.usable)));
    EXPECT_TRUE(contains(r.out, "frame  7"));
    EXPECT_EQ(kepraw_test::snapshot(in), inputs) << "inputs must never change";
    EXPECT_EQ(out.list(), (std::vector<std::string>{"merged.png", "merged.raw", "report.json"}));
}

TEST(NightCommand, TwelveBitDngBurstMapsEveryOptionAndWritesDng) {
    const int w = 640, h = 480;
    const kep::synth::Burst burst = kepraw_test::smallBurst(w, h, 5, 9);
    TempDir in, out;
    // GRBG with per-site black levels of a 12-bit sensor: green 256, red 260, blue 252.
    kepraw::DngOptions o;
    o.pattern = 2;
    o.white = 4095;
    const int black[4] = {256, 260, 252, 256};
    std::copy(black, black + 4, o.black);
    std::vector<std::string> args = {"night"};
    std::vector<std::vector<short>> tenBit;
    for (size_t i = 0; i < burst.frames.size(); ++i) {
        const std::string path = in.file("f" + std::to_string(i) + ".dng");
        kepraw_test::writeDngFile(path, kepraw_test::deepen(burst.frames[i], 4095), w, h, o);
        tenBit.push_back(kepraw::readRawFile(path, {}).samples);
        args.push_back(path);
    }
    const auto inputs = kepraw_test::snapshot(in);
    args.insert(args.end(),
                {"-o", out.file("m.dng"), "--gain", "2", "--gray-gain", "2", "--min-features", "0", "--align-tuning",
                 "1.5", "--blur-select", "600", "--sharpness-ratio", "0.5", "--json", out.file("m.json")});
    const kepraw_test::RunResult r = kepraw_test::runKepraw(args);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(contains(r.err, "12-bit data (white level 4095) scaled to 10 bits")) << r.err;

    NightParams p;
    p.grayGain = 2, p.minFeatures = 0, p.pattern = 2, p.gain = 2.0f, p.alignTuning = 1.5f, p.blurSelect = 600.0f;
    p.sharpnessRatio = 0.5f;
    p.black[0] = (260 * 1023 + 2047) / 4095, p.black[1] = (256 * 1023 + 2047) / 4095,
    p.black[2] = (252 * 1023 + 2047) / 4095;
    const Direct direct = callNight(tenBit, w, h, p);
    const kepraw::RawImage written = kepraw::readRawFile(out.file("m.dng"), {});
    EXPECT_EQ(written.pattern, 2);
    EXPECT_EQ(written.fileWhite, 1023);
    const int siteBlack[4] = {p.black[1], p.black[0], p.black[2], p.black[1]};
    EXPECT_TRUE(std::equal(siteBlack, siteBlack + 4, written.fileBlack));
    ASSERT_EQ(written.samples.size(), direct.output.size());
    for (size_t i = 0; i < direct.output.size(); ++i)
        ASSERT_EQ(written.samples[i], std::min<short>(1023, std::max<short>(0, direct.output[i]))) << i;

    const std::string json = kepraw_test::readBytes(out.file("m.json"));
    EXPECT_TRUE(contains(json, "\"bayerPattern\": \"GRBG\""));
    EXPECT_TRUE(contains(json, "\"blackLevelR\": 65"));
    EXPECT_TRUE(contains(json, "\"grayGain\": 2"));
    EXPECT_TRUE(contains(json, "\"blurSelect\": 600"));
    EXPECT_TRUE(contains(json, "\"usableFrameCount\": " + std::to_string(direct.usable)));
    EXPECT_EQ(kepraw_test::snapshot(in), inputs);
    EXPECT_EQ(out.list(), (std::vector<std::string>{"m.dng", "m.json"}));
}

TEST(NightCommand, RobustMergeAtSixteenBitsWritesItsWeightsAndDeepDng) {
    const int w = 640, h = 480;
    const kep::synth::Burst burst = kepraw_test::smallBurst(w, h, 8);
    TempDir in, out;
    std::vector<std::string> args = {"night"};
    for (size_t i = 0; i < burst.frames.size(); ++i) {
        const std::string path = in.file("frame" + std::to_string(i) + ".raw");
        kepraw_test::writeHeaderless(path, burst.frames[i]);
        args.push_back(path);
    }
    args.insert(args.end(), {"--size", "640x480", "--merge", "robust", "--noise", "2.5,9", "--output-bits", "16",
                             "--workers", "1", "-o", out.file("m.dng"), "--weights-png", out.file("w.png"), "--json",
                             out.file("m.json")});
    const kepraw_test::RunResult r = kepraw_test::runKepraw(args);
    ASSERT_EQ(r.status, 0) << r.err;

    std::vector<std::vector<short>> frames = burst.frames;
    std::vector<short*> pointers;
    for (auto& f : frames) pointers.push_back(f.data());
    std::vector<uint16_t> direct(static_cast<size_t>(w) * h);
    KepNightOptions o;
    kepNightDefaultOptions(&o);
    o.mergeMode = KEP_MERGE_ROBUST;
    o.outputBits = 16;
    o.noiseGiven = 1;
    o.noiseA = 2.5f;
    o.noiseB = 9.0f;
    KepNightResult result;
    result.structSize = sizeof(result);
    ASSERT_EQ(kepNightProcess(pointers.data(), 8, w, h, &o, direct.data(), &result), KEP_NIGHT_OK);
    const kepraw::RawImage written = kepraw::readRawFile(out.file("m.dng"), {});
    EXPECT_EQ(written.fileWhite, 65535);
    EXPECT_EQ(written.fileBlack[0], 64 * 64);
    for (size_t i = 0; i < direct.size(); i += 31)
        ASSERT_EQ(written.samples[i], kepraw::scaleTo10Bits(direct[i], 65535)) << i;
    int pw = 0, ph = 0;
    ASSERT_TRUE(kepraw_test::pngSize(out.file("w.png"), pw, ph));
    EXPECT_EQ(pw, w / 2);
    const std::string json = kepraw_test::readBytes(out.file("m.json"));
    EXPECT_TRUE(contains(json, "\"merge\": \"robust\""));
    EXPECT_TRUE(contains(json, "\"outputBits\": 16"));
    EXPECT_TRUE(contains(json, "\"mergeWeight\""));
    EXPECT_TRUE(contains(json, "\"rejectedFraction\""));
    EXPECT_TRUE(contains(r.out, "robust merge: ")) << r.out;
    EXPECT_TRUE(contains(r.out, "(given)")) << r.out;
}

TEST(NightCommand, OptionsOverrideTheFilesAndOutputsReplaceOnlyWhatWasAsked) {
    const int w = 128, h = 96;
    const kep::synth::Burst burst = kepraw_test::smallBurst(w, h, 3, 3);
    TempDir dir;
    kepraw::DngOptions o;  // RGGB, black 64
    for (size_t i = 0; i < 3; ++i)
        kepraw_test::writeDngFile(dir.file("f" + std::to_string(i) + ".dng"), burst.frames[i], w, h, o);
    kepraw_test::writeBytes(dir.file("out.raw"), "an older result");
    const kepraw_test::RunResult r = kepraw_test::runKepraw({"night", "f0.dng", "f1.dng", "f2.dng", "--pattern", "bggr",
                                                             "--black", "60,62,58", "--gain", "0.5", "-o", "out.raw"},
                                                            dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(contains(r.err, "--pattern BGGR overrides the files' RGGB")) << r.err;
    NightParams p;
    p.pattern = 1, p.black[0] = 60, p.black[1] = 62, p.black[2] = 58, p.gain = 0.5f;
    EXPECT_EQ(kepraw_test::readHeaderless(dir.file("out.raw")), callNight(burst.frames, w, h, p).output);
    EXPECT_EQ(dir.list(), (std::vector<std::string>{"f0.dng", "f1.dng", "f2.dng", "out.raw"}));
}

}  // namespace

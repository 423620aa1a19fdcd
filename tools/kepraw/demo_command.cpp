#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <iostream>

#include "burst_scenes.h"
#include "cli.h"
#include "commands.h"
#include "library_capture.h"
#include "output_files.h"
#include "png_preview.h"
#include "registration/night_process.h"
#include "synthetic_scene.h"

namespace kepraw {

namespace {

constexpr uint32_t kSceneSeed = 7;
constexpr int kBlack = 64;
constexpr double kPi = 3.14159265358979323846;

const std::vector<OptionDef> kDemoOptions = {{"--out", true}, {"--size", true}};

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void makeDirectory(const std::string& dir) {
    struct stat st;
    if (::stat(dir.c_str(), &st) == 0) {
        if (!S_ISDIR(st.st_mode)) throw InputError("--out: " + dir + " exists and is not a directory");
        return;
    }
    if (::mkdir(dir.c_str(), 0777) != 0) throw InputError("--out: cannot create " + dir + ": " + std::strerror(errno));
}

double clippedPercent(const std::vector<short>& frame) {
    long n = 0;
    for (short v : frame) n += v >= 1023;
    return 100.0 * n / static_cast<double>(frame.size());
}

// One merge of the demo burst and its quality against the noiseless scene.
struct NightDemo {
    const char* name;
    std::vector<short> merged;
    std::vector<uint8_t> weights;
    KepNightResult result{};
    double seconds = 0;
    double psnr[3] = {0, 0, 0};  // static, subject, ghost area
    std::vector<std::string> libraryLines;
};

const kep::synth::Region kRegions[3] = {kep::synth::kRegionStatic, kep::synth::kRegionSubject,
                                        kep::synth::kRegionGhost};

NightDemo runNightDemo(const kep::synth::SceneBurst& scene, int mode) {
    NightDemo d;
    d.name = mode == KEP_MERGE_ROBUST ? "robust" : "mean";
    const kep::synth::Burst& burst = scene.burst;
    std::vector<std::vector<short>> work = burst.frames;
    std::vector<short*> pointers;
    for (auto& f : work) pointers.push_back(f.data());
    std::vector<uint16_t> merged(burst.clean.size());
    KepNightOptions o;
    kepNightDefaultOptions(&o);
    o.mergeMode = mode;
    if (mode == KEP_MERGE_ROBUST) {
        d.weights.assign(merged.size() / 4, 0);
        o.weightMap = d.weights.data();
    }
    d.result.structSize = sizeof(d.result);
    const auto start = std::chrono::steady_clock::now();
    {
        LibraryCapture capture;
        const int status = kepNightProcess(pointers.data(), static_cast<int>(pointers.size()), burst.width,
                                           burst.height, &o, merged.data(), &d.result);
        d.libraryLines = capture.finish();
        if (status != KEP_NIGHT_OK) throw std::runtime_error(std::string("night path: ") + kepNightStatusText(status));
    }
    d.seconds = secondsSince(start);
    d.merged.assign(merged.begin(), merged.end());
    for (int r = 0; r < 3; ++r)
        d.psnr[r] = kep::synth::regionPsnr(d.merged.data(), burst.clean.data(), scene.regions, kRegions[r]);
    return d;
}

void describeNight(JsonWriter& json, const NightDemo& d) {
    json.beginObject(d.name)
        .value("usableFrameCount", d.result.usableFrames)
        .beginObject("validArea")
        .value("top", d.result.validTop)
        .value("left", d.result.validLeft)
        .value("right", d.result.validRight)
        .value("bottom", d.result.validBottom)
        .endObject()
        .value("pointCount", d.result.featurePoints)
        .value("psnrStatic", d.psnr[0])
        .value("psnrSubject", d.psnr[1])
        .value("psnrGhostArea", d.psnr[2])
        .value("rejectedFraction", d.result.rejectedFraction)
        .value("seconds", d.seconds)
        .stringArray("libraryOutput", d.libraryLines)
        .endObject();
}

}  // namespace

int runDemo(const std::vector<std::string>& args) {
    const ParsedArgs a = parseArgs(args, kDemoOptions);
    if (a.help) {
        std::cout << kDemoHelp;
        return kExitOk;
    }
    if (!a.positional.empty()) throw InputError(a.positional.front() + ": demo takes no input files (see --help)");
    FrameSize size{2048, 1536};
    if (a.has("--size")) {
        size = parseSize("--size", a.value("--size"));
        if (size.width % 4 || size.height % 4 || size.width < 64 || size.height < 64)
            throw InputError("--size: " + a.value("--size") + ": sides must be multiples of 4 and at least 64");
    }
    const std::string dir = a.has("--out") ? a.value("--out") : "kepraw-demo";
    if (dir.empty()) throw InputError("--out: empty directory name");
    makeDirectory(dir);

    std::vector<std::string> names = {"reference.raw",     "merged-mean.raw", "merged-robust.raw", "reference.png",
                                      "merged-mean.png",   "merged-robust.png", "weights.png",     "report.json"};
    if (hdrAvailable()) names.insert(names.end(), {"hdr.raw", "hdr.png"});
    OutputFiles outputs({});
    std::vector<std::string> temps;
    for (const std::string& name : names) temps.push_back(outputs.claim(dir + "/" + name, "--out"));

    // A burst with hand shake and a subject that moves on its own, and a bracket.
    const auto buildStart = std::chrono::steady_clock::now();
    kep::synth::SceneBurstOptions burstOptions;
    burstOptions.scene = kep::synth::BurstScene::MovingSubject;
    burstOptions.width = size.width;
    burstOptions.height = size.height;
    burstOptions.seed = kSceneSeed;
    const kep::synth::SceneBurst scene = kep::synth::makeSceneBurst(burstOptions);
    const kep::synth::Burst& burst = scene.burst;
    const kep::synth::HdrBracketOptions bracketOptions;
    const kep::synth::HdrBracket bracket =
        kep::synth::makeHdrBracket(kep::synth::Scene(size.width, size.height, kSceneSeed), bracketOptions);
    const double buildSeconds = secondsSince(buildStart);

    const NightDemo nights[2] = {runNightDemo(scene, KEP_MERGE_MEAN), runNightDemo(scene, KEP_MERGE_ROBUST)};
    double referencePsnr[3];
    for (int r = 0; r < 3; ++r)
        referencePsnr[r] = kep::synth::regionPsnr(burst.frames[2].data(), burst.clean.data(), scene.regions, kRegions[r]);

    std::vector<short> fused;
    double hdrSeconds = 0;
    std::vector<std::string> hdrLines;
    int hdrBlack[4] = {kBlack, kBlack, kBlack, kBlack};
    if (hdrAvailable()) {
        std::vector<short> a0 = bracket.shortFrame, b0 = bracket.midFrame, c0 = bracket.longFrame;
        fused.assign(a0.size(), 0);
        const auto start = std::chrono::steady_clock::now();
        LibraryCapture capture;
        callHdrProcess(a0.data(), b0.data(), c0.data(), fused.data(), 1.0f, 1.0f, size.width, size.height,
                       static_cast<float>(bracketOptions.ratio), 0, hdrBlack);
        hdrLines = capture.finish();
        hdrSeconds = secondsSince(start);
    }

    // The reference and both merges share one white balance and exposure so that
    // their previews compare directly.
    const short* reference = burst.frames[2].data();
    PreviewOptions po;
    std::fill(po.black, po.black + 4, kBlack);
    const Preview meanPreview = renderPreview(nights[0].merged.data(), size.width, size.height, po);
    po.redGain = meanPreview.redGain;
    po.blueGain = meanPreview.blueGain;
    po.exposure = meanPreview.exposure;
    writeHeaderlessRaw(temps[0], reference, burst.frames[2].size());
    writeHeaderlessRaw(temps[1], nights[0].merged.data(), nights[0].merged.size());
    writeHeaderlessRaw(temps[2], nights[1].merged.data(), nights[1].merged.size());
    writePng(temps[3], renderPreview(reference, size.width, size.height, po));
    writePng(temps[4], meanPreview);
    writePng(temps[5], renderPreview(nights[1].merged.data(), size.width, size.height, po));
    writePng(temps[6], weightPicture(nights[1].weights, size.width / 2, size.height / 2));
    if (!fused.empty()) {
        writeHeaderlessRaw(temps[8], fused.data(), fused.size());
        PreviewOptions hp;
        std::fill(hp.black, hp.black + 4, kBlack);
        writePng(temps[9], renderPreview(fused.data(), size.width, size.height, hp));
    }

    JsonWriter json;
    json.beginObject().value("command", "demo");
    json.beginObject("scene")
        .value("width", size.width)
        .value("height", size.height)
        .value("bayerPattern", "RGGB")
        .value("blackLevel", kBlack)
        .value("seed", static_cast<int>(kSceneSeed))
        .value("subjectStepSamples", burstOptions.subjectStep)
        .endObject();
    json.beginObject("night").value("frameCount", static_cast<int>(burst.frames.size())).beginArray("frames");
    for (size_t i = 0; i < burst.frames.size(); ++i)
        json.beginObject()
            .value("index", static_cast<int>(i))
            .value("exposure", i == 0   ? 0.125
                               : i == 1 ? 0.25
                                        : 1.0)
            .value("motionDx", burst.motions[i].dx)
            .value("motionDy", burst.motions[i].dy)
            .value("motionDegrees", burst.motions[i].angle * 180.0 / kPi)
            .value("outcome", frameOutcomeCode(nights[1].result.frameOutcome[i]))
            .value("robustMergeWeight", nights[1].result.frameWeight[i])
            .endObject();
    json.endArray()
        .value("psnrReferenceStatic", referencePsnr[0])
        .value("psnrReferenceSubject", referencePsnr[1])
        .value("psnrReferenceGhostArea", referencePsnr[2]);
    describeNight(json, nights[0]);
    describeNight(json, nights[1]);
    json.endObject();
    json.beginObject("hdr").value("built", hdrAvailable());
    if (hdrAvailable())
        json.value("exposureRatio", bracketOptions.ratio)
            .value("clippedPercentLong", clippedPercent(bracket.longFrame))
            .value("clippedPercentResult", clippedPercent(fused))
            .value("seconds", hdrSeconds)
            .stringArray("libraryOutput", hdrLines);
    json.endObject().value("buildSeconds", buildSeconds).endObject();
    writeTextFile(temps[7], json.str());
    outputs.commit();

    std::cout << format("kepraw demo: synthetic scene %dx%d, 10-bit RGGB on black %d (built in %.2f s)\n", size.width,
                        size.height, kBlack, buildSeconds);
    std::cout << format("night path: %zu frames, 0 and 1 short exposures (1/8, 1/4), 2 the reference; a subject moves "
                        "%g samples per frame on its own\n",
                        burst.frames.size(), burstOptions.subjectStep);
    std::cout << "  frame  exposure  motion dx, dy (samples), rotation   outcome\n";
    for (size_t i = 0; i < burst.frames.size(); ++i) {
        const kep::synth::Motion& m = burst.motions[i];
        std::string line = format("  %5zu  %8s  %+6.2f, %+6.2f, %+7.4f deg        %s", i,
                                  i == 0   ? "1/8"
                                  : i == 1 ? "1/4"
                                           : "1",
                                  m.dx, m.dy, m.angle * 180.0 / kPi, frameOutcomeText(nights[1].result.frameOutcome[i]));
        if (nights[1].result.frameOutcome[i] == KEP_FRAME_MERGED)
            line += format(" (robust weight %.2f)", nights[1].result.frameWeight[i]);
        std::cout << line << "\n";
    }
    std::cout << format("  usable frames %d, feature points %d\n", nights[1].result.usableFrames,
                        nights[1].result.featurePoints);
    std::cout << "  PSNR against the clean scene, dB      static   subject   ghost area   time\n";
    std::cout << format("    reference frame alone          %8.2f  %8.2f  %11.2f\n", referencePsnr[0], referencePsnr[1],
                        referencePsnr[2]);
    for (const NightDemo& d : nights)
        std::cout << format("    %-6s merge                   %8.2f  %8.2f  %11.2f   %.3f s\n", d.name, d.psnr[0],
                            d.psnr[1], d.psnr[2], d.seconds);
    std::cout << format("  robust merge: %.1f%% of the other frames' samples rejected as motion (weights.png)\n",
                        100.0 * nights[1].result.rejectedFraction);
    if (hdrAvailable()) {
        std::cout << format("hdr path: short / mid / long exposures 1/%g, 1/%g, 1, exposure ratio %g\n",
                            bracketOptions.ratio, bracketOptions.ratio / 2, bracketOptions.ratio);
        std::cout << format("  clipped samples: long exposure %.2f%%, result %.2f%%\n",
                            clippedPercent(bracket.longFrame), clippedPercent(fused));
        std::cout << format("  time %.3f s\n", hdrSeconds);
    } else {
        std::cout << "hdr path: not built (this library has no HDR entry)\n";
    }
    std::cout << "wrote " << dir << "/: reference.raw merged-mean.raw merged-robust.raw" << (fused.empty() ? "" : " hdr.raw")
              << format(" (headerless 16-bit LE, %dx%d), their PNGs, weights.png, report.json\n", size.width,
                        size.height);
    return kExitOk;
}

}  // namespace kepraw

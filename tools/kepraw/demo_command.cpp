#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <iostream>

#include "cli.h"
#include "commands.h"
#include "library_capture.h"
#include "merge_analysis.h"
#include "output_files.h"
#include "png_preview.h"
#include "registration/nocturn_entry.h"
#include "synthetic_scene.h"

namespace kepraw {

namespace {

constexpr uint32_t kSceneSeed = 11;
constexpr int kBlack = 64;
constexpr int kMinFeatureCount = 30;
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

struct NightDemo {
    std::vector<short> merged;
    int usable = 0;
    USERZOOM zoom{0, 0, 0, 0, 0};
    NightAnalysis analysis;
    double seconds = 0;
    double psnrReference = 0;
    double psnrMerged = 0;
    std::vector<std::string> libraryLines;
};

NightDemo runNightDemo(const kep::synth::Burst& burst) {
    NightDemo d;
    const int w = burst.width, h = burst.height;
    std::vector<std::vector<short>> work = burst.frames;
    std::vector<short*> pointers;
    for (auto& f : work) pointers.push_back(f.data());
    d.merged.assign(static_cast<size_t>(w) * h, 0);

    const auto start = std::chrono::steady_clock::now();
    {
        LibraryCapture capture;
        qnNocturnPreProcess(pointers.data(), d.merged.data(), static_cast<int>(pointers.size()), &d.usable, w, h, 1,
                            kMinFeatureCount, 0, &d.zoom, 0, kBlack, kBlack, kBlack, 0.0f, 0.0f, 1.0f, 1.0f, 0.0f,
                            0.9f);
        d.libraryLines = capture.finish();
    }
    d.seconds = secondsSince(start);

    NightCall call{&burst.frames, &work,  d.merged.data(),  w,    h,
                   d.usable,      d.zoom, kMinFeatureCount, 1.0f, {kBlack, kBlack, kBlack, kBlack}};
    d.analysis = analyseNightResult(call);

    // PSNR over the valid area of the merge (the whole frame when the reference came back).
    int top = 0, left = 0, right = w, bottom = h;
    if (!d.analysis.fellBack) {
        top = std::max(0, d.zoom.top);
        left = std::max(0, d.zoom.left);
        right = std::min(w, d.zoom.right);
        bottom = std::min(h, d.zoom.bottom);
    }
    d.psnrReference = kep::synth::psnr(burst.frames[2].data(), burst.clean.data(), w, left, top, right, bottom);
    d.psnrMerged = kep::synth::psnr(d.merged.data(), burst.clean.data(), w, left, top, right, bottom);
    return d;
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

    // Temporaries: reference.raw, merged.raw, reference.png, merged.png,
    // report.json, then hdr.raw and hdr.png when the HDR path is built.
    std::vector<std::string> names = {"reference.raw", "merged.raw", "reference.png", "merged.png", "report.json"};
    if (hdrAvailable()) names.insert(names.end(), {"hdr.raw", "hdr.png"});
    OutputFiles outputs({});
    std::vector<std::string> temps;
    for (const std::string& name : names) temps.push_back(outputs.claim(dir + "/" + name, "--out"));

    const auto buildStart = std::chrono::steady_clock::now();
    const kep::synth::Scene scene(size.width, size.height, kSceneSeed);
    kep::synth::BurstOptions burstOptions;
    burstOptions.width = size.width;
    burstOptions.height = size.height;
    const kep::synth::Burst burst = kep::synth::makeNightBurst(scene, burstOptions);
    const kep::synth::HdrBracketOptions bracketOptions;
    const kep::synth::HdrBracket bracket = kep::synth::makeHdrBracket(scene, bracketOptions);
    const double buildSeconds = secondsSince(buildStart);

    NightDemo night = runNightDemo(burst);

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

    // Outputs: the reference and the merge share one white balance and exposure
    // so that their previews compare directly.
    const short* reference = burst.frames[2].data();
    PreviewOptions po;
    std::fill(po.black, po.black + 4, kBlack);
    const Preview mergedPreview = renderPreview(night.merged.data(), size.width, size.height, po);
    po.redGain = mergedPreview.redGain;
    po.blueGain = mergedPreview.blueGain;
    po.exposure = mergedPreview.exposure;
    writeHeaderlessRaw(temps[0], reference, burst.frames[2].size());
    writeHeaderlessRaw(temps[1], night.merged.data(), night.merged.size());
    writePng(temps[2], renderPreview(reference, size.width, size.height, po));
    writePng(temps[3], mergedPreview);
    if (!fused.empty()) {
        writeHeaderlessRaw(temps[5], fused.data(), fused.size());
        PreviewOptions hp;
        std::fill(hp.black, hp.black + 4, kBlack);
        writePng(temps[6], renderPreview(fused.data(), size.width, size.height, hp));
    }

    JsonWriter json;
    json.beginObject().value("command", "demo");
    json.beginObject("scene")
        .value("width", size.width)
        .value("height", size.height)
        .value("bayerPattern", "RGGB")
        .value("blackLevel", kBlack)
        .value("seed", static_cast<int>(kSceneSeed))
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
            .value("outcome", outcomeCode(night.analysis.outcomes[i]))
            .endObject();
    json.endArray()
        .value("usableFrameCount", night.usable)
        .beginObject("zoom")
        .value("top", night.zoom.top)
        .value("left", night.zoom.left)
        .value("right", night.zoom.right)
        .value("bottom", night.zoom.bottom)
        .value("pointCount", night.zoom.pointCount)
        .endObject()
        .value("fellBackToReference", night.analysis.fellBack)
        .value("fallbackReason", night.analysis.fallbackReason)
        .value("psnrReference", night.psnrReference)
        .value("psnrMerged", night.psnrMerged)
        .value("seconds", night.seconds)
        .stringArray("libraryOutput", night.libraryLines)
        .endObject();
    json.beginObject("hdr").value("built", hdrAvailable());
    if (hdrAvailable())
        json.value("exposureRatio", bracketOptions.ratio)
            .value("clippedPercentLong", clippedPercent(bracket.longFrame))
            .value("clippedPercentResult", clippedPercent(fused))
            .value("seconds", hdrSeconds)
            .stringArray("libraryOutput", hdrLines);
    json.endObject().value("buildSeconds", buildSeconds).endObject();
    writeTextFile(temps[4], json.str());
    outputs.commit();

    std::cout << format("kepraw demo: synthetic scene %dx%d, 10-bit RGGB on black %d (built in %.2f s)\n", size.width,
                        size.height, kBlack, buildSeconds);
    std::cout << format("night path: %zu frames, 0 and 1 short exposures (1/8, 1/4), 2 the reference\n",
                        burst.frames.size());
    std::cout << "  frame  exposure  motion dx, dy (samples), rotation   outcome\n";
    for (size_t i = 0; i < burst.frames.size(); ++i) {
        const kep::synth::Motion& m = burst.motions[i];
        std::cout << format("  %5zu  %8s  %+6.2f, %+6.2f, %+7.4f deg        %s\n", i,
                            i == 0   ? "1/8"
                            : i == 1 ? "1/4"
                                     : "1",
                            m.dx, m.dy, m.angle * 180.0 / kPi, outcomeText(night.analysis.outcomes[i]));
    }
    if (night.analysis.fellBack)
        std::cout << "  fell back to the reference frame: " << night.analysis.fallbackReason << "\n";
    std::cout << format("  usable frames %d, feature points %d, valid area top %d left %d right %d bottom %d\n",
                        night.usable, night.zoom.pointCount, night.zoom.top, night.zoom.left, night.zoom.right,
                        night.zoom.bottom);
    std::cout << format("  PSNR against the clean scene: reference %.2f dB, merged %.2f dB\n", night.psnrReference,
                        night.psnrMerged);
    std::cout << format("  time %.3f s\n", night.seconds);
    if (hdrAvailable()) {
        std::cout << format("hdr path: short / mid / long exposures 1/%g, 1/%g, 1, exposure ratio %g\n",
                            bracketOptions.ratio, bracketOptions.ratio / 2, bracketOptions.ratio);
        std::cout << format("  clipped samples: long exposure %.2f%%, result %.2f%%\n",
                            clippedPercent(bracket.longFrame), clippedPercent(fused));
        std::cout << format("  time %.3f s\n", hdrSeconds);
    } else {
        std::cout << "hdr path: not built (this library has no HDR entry)\n";
    }
    std::cout << "wrote " << dir << "/: reference.raw merged.raw" << (fused.empty() ? "" : " hdr.raw")
              << format(" (headerless 16-bit LE, %dx%d), reference.png merged.png", size.width, size.height)
              << (fused.empty() ? "" : " hdr.png") << " report.json\n";
    return kExitOk;
}

}  // namespace kepraw

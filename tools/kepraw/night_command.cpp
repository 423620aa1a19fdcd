#include <algorithm>
#include <chrono>
#include <cmath>
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

constexpr int kMinFrames = 3;
constexpr int kMaxFrames = 18;
constexpr int kMinSide = 64;
constexpr int kReference = 2;

const std::vector<OptionDef> kNightOptions = {{"-o", true},
                                              {"--output", true},
                                              {"--size", true},
                                              {"--bits", true},
                                              {"--pattern", true},
                                              {"--black", true},
                                              {"--gain", true},
                                              {"--gray-gain", true},
                                              {"--min-features", true},
                                              {"--align-tuning", true},
                                              {"--blur-select", true},
                                              {"--sharpness-ratio", true},
                                              {"--png", true},
                                              {"--json", true}};

struct NightParameters {
    int pattern = 0;
    int black[3] = {64, 64, 64};  // red, green, blue, 10-bit
    float gain = 1.0f;
    int grayGain = 1;
    int minFeatureCount = 30;
    float alignTuning = 1.0f;
    float blurSelect = 0.0f;
    float sharpnessRatio = 0.9f;
};

std::string outputOption(const ParsedArgs& args, std::string& name) {
    if (args.has("-o") && args.has("--output")) throw InputError("--output: given together with -o");
    if (args.has("-o")) {
        name = "-o";
        return args.value("-o");
    }
    if (args.has("--output")) {
        name = "--output";
        return args.value("--output");
    }
    throw InputError("-o: missing output file (kepraw night FRAME... -o OUT)");
}

// Black levels of the red, green and blue sites: --black (file units, scaled by
// the 10-bit rule), else the reference file's, else 64.
void resolveBlack(const ParsedArgs& args, const std::vector<RawImage>& frames, NightParameters& p,
                  std::vector<std::string>& notes) {
    const RawImage& ref = frames[kReference];
    const std::vector<int> given = blackLevelsFrom(args, 3, ref.fileWhite);
    if (!given.empty()) {
        std::copy(given.begin(), given.end(), p.black);
        return;
    }
    if (!ref.hasBlack) return;
    int green[2], g = 0;
    for (int s = 0; s < 4; ++s) {
        const int channel = kep::synth::bayerChannel(p.pattern, s % 2, s / 2);
        if (channel == 1)
            green[g++] = ref.black[s];
        else
            p.black[channel] = ref.black[s];
    }
    p.black[1] = (green[0] + green[1] + 1) / 2;
    if (green[0] != green[1])
        notes.push_back(ref.path + format(": green black levels %d and %d differ; the night entry takes one, using %d",
                                          green[0], green[1], p.black[1]));
    for (const RawImage& f : frames)
        if (f.hasBlack && !std::equal(f.black, f.black + 4, ref.black)) {
            notes.push_back(f.path + ": black levels differ from the reference's; the reference's are used");
            break;
        }
}

NightParameters parseParameters(const ParsedArgs& args) {
    NightParameters p;
    if (args.has("--gain")) p.gain = static_cast<float>(parseNumber("--gain", args.value("--gain"), 0.0, 64.0));
    if (args.has("--gray-gain")) p.grayGain = parseInteger("--gray-gain", args.value("--gray-gain"), 1, 64);
    if (args.has("--min-features"))
        p.minFeatureCount = parseInteger("--min-features", args.value("--min-features"), 0, 80000);
    if (args.has("--align-tuning"))
        p.alignTuning = static_cast<float>(parseNumber("--align-tuning", args.value("--align-tuning"), 0.0, 10.0));
    if (args.has("--blur-select"))
        p.blurSelect = static_cast<float>(parseNumber("--blur-select", args.value("--blur-select"), 0.0, 1e6));
    if (args.has("--sharpness-ratio"))
        p.sharpnessRatio =
            static_cast<float>(parseNumber("--sharpness-ratio", args.value("--sharpness-ratio"), 0.0, 1.0));
    return p;
}

void checkNightSize(const RawImage& f) {
    if (f.width % 4 || f.height % 4 || f.width < kMinSide || f.height < kMinSide)
        throw InputError(f.path + format(": frame size %dx%d cannot be merged: both sides must be multiples of 4 "
                                         "and at least %d",
                                         f.width, f.height, kMinSide));
}

}  // namespace

int runNight(const std::vector<std::string>& args) {
    const ParsedArgs a = parseArgs(args, kNightOptions);
    if (a.help) {
        std::cout << kNightHelp;
        return kExitOk;
    }
    const std::vector<std::string>& paths = a.positional;
    if (paths.size() < kMinFrames || paths.size() > kMaxFrames)
        throw InputError(format("%zu frame%s given: the night path takes %d to %d (frame 2 is the reference)",
                                paths.size(), paths.size() == 1 ? "" : "s", kMinFrames, kMaxFrames));
    std::string outName;
    const std::string out = outputOption(a, outName);
    NightParameters p = parseParameters(a);
    const ReadOptions readOptions = readOptionsFrom(a);
    if (a.has("--pattern")) parsePattern("--pattern", a.value("--pattern"));
    checkRawOutputName(out, outName);

    OutputFiles outputs(paths);
    const std::string rawTemp = outputs.claim(out, outName);
    const std::string pngTemp = a.has("--png") ? outputs.claim(a.value("--png"), "--png") : "";
    const std::string jsonTemp = a.has("--json") ? outputs.claim(a.value("--json"), "--json") : "";

    std::vector<std::string> notes;
    const std::vector<RawImage> frames = readFrames("night", paths, readOptions, notes);
    checkNightSize(frames.front());
    const int width = frames.front().width, height = frames.front().height;
    std::vector<std::string> setupNotes;
    p.pattern = resolvePattern(a, frames, setupNotes);
    resolveBlack(a, frames, p, setupNotes);
    for (const std::string& n : setupNotes) printNote("night", n);
    notes.insert(notes.end(), setupNotes.begin(), setupNotes.end());

    // The library writes the aligned frames back into its inputs: it works on
    // copies, and the originals are kept to tell what it did to each frame.
    std::vector<std::vector<short>> before, work;
    for (const RawImage& f : frames) before.push_back(f.samples);
    work = before;
    std::vector<short*> pointers;
    for (auto& w : work) pointers.push_back(w.data());
    std::vector<short> merged(static_cast<size_t>(width) * height);
    int usable = 0;
    USERZOOM zoom{0, 0, 0, 0, 0};

    const auto start = std::chrono::steady_clock::now();
    LibraryCapture capture;
    qnNocturnPreProcess(pointers.data(), merged.data(), static_cast<int>(pointers.size()), &usable, width, height,
                        p.grayGain, p.minFeatureCount, 0, &zoom, p.pattern, p.black[0], p.black[1], p.black[2], 0.0f,
                        0.0f, p.gain, p.alignTuning, p.blurSelect, p.sharpnessRatio);
    const std::vector<std::string> libraryLines = capture.finish();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    NightCall call{&before, &work, merged.data(), width, height, usable, zoom, p.minFeatureCount, p.gain, {}};
    for (int s = 0; s < 4; ++s) call.siteBlack[s] = p.black[kep::synth::bayerChannel(p.pattern, s % 2, s / 2)];
    const NightAnalysis analysis = analyseNightResult(call);

    const auto range = std::minmax_element(merged.begin(), merged.end());
    long outside = 0;
    for (short v : merged) outside += (v < 0 || v > 1023);

    long clampedInDng = 0;
    writeRawResult(out, rawTemp, merged, width, height, p.pattern, call.siteBlack, clampedInDng);
    if (clampedInDng) notes.push_back(format("%ld samples outside 0..1023 clamped in the DNG output", clampedInDng));
    if (!pngTemp.empty()) {
        PreviewOptions po;
        po.pattern = p.pattern;
        std::copy(call.siteBlack, call.siteBlack + 4, po.black);
        po.redGain = frames[kReference].asShotRedGain;
        po.blueGain = frames[kReference].asShotBlueGain;
        writePng(pngTemp, renderPreview(merged.data(), width, height, po));
    }
    if (!jsonTemp.empty()) {
        JsonWriter json;
        json.beginObject().value("command", "night");
        describeInputs(json, frames);
        json.beginObject("parameters")
            .value("frameCount", static_cast<int>(frames.size()))
            .value("width", width)
            .value("height", height)
            .value("bayerPattern", patternName(p.pattern))
            .value("bayerPatternCode", p.pattern)
            .value("blackLevelR", p.black[0])
            .value("blackLevelG", p.black[1])
            .value("blackLevelB", p.black[2])
            .value("grayGain", p.grayGain)
            .value("minFeatureCount", p.minFeatureCount)
            .value("alignOnly", 0)
            .value("gain", p.gain)
            .value("alignTuning", p.alignTuning)
            .value("blurSelect", p.blurSelect)
            .value("sharpnessRatio", p.sharpnessRatio)
            .endObject();
        json.beginObject("result")
            .value("usableFrameCount", usable)
            .beginObject("zoom")
            .value("top", zoom.top)
            .value("left", zoom.left)
            .value("right", zoom.right)
            .value("bottom", zoom.bottom)
            .value("pointCount", zoom.pointCount)
            .endObject()
            .value("fellBackToReference", analysis.fellBack)
            .value("fallbackReason", analysis.fallbackReason)
            .value("mergedFramesIdentified", analysis.mergeIdentified)
            .beginArray("frames");
        for (size_t i = 0; i < frames.size(); ++i)
            json.beginObject()
                .value("index", static_cast<int>(i))
                .value("path", frames[i].path)
                .value("outcome", outcomeCode(analysis.outcomes[i]))
                .value("description", outcomeText(analysis.outcomes[i]))
                .endObject();
        json.endArray()
            .value("outputMin", static_cast<int>(*range.first))
            .value("outputMax", static_cast<int>(*range.second))
            .value("samplesOutside10Bit", outside)
            .endObject();
        json.beginObject("timing").value("nightSeconds", seconds).endObject();
        json.stringArray("libraryOutput", libraryLines).stringArray("notes", notes);
        json.beginObject("outputs")
            .value("raw", out)
            .value("rawFormat", isDngPath(out) ? "DNG" : formatName(RawFormat::Headerless));
        if (a.has("--png")) json.value("png", a.value("--png"));
        json.value("json", a.value("--json")).endObject().endObject();
        writeTextFile(jsonTemp, json.str());
    }
    outputs.commit();

    std::cout << format("kepraw night: %zu frames %dx%d %s, black R/G/B %d/%d/%d, gain %g\n", frames.size(), width,
                        height, patternName(p.pattern), p.black[0], p.black[1], p.black[2], p.gain);
    for (size_t i = 0; i < frames.size(); ++i)
        std::cout << format("  frame %2zu  %-32s %s\n", i, frames[i].path.c_str(), outcomeText(analysis.outcomes[i]));
    if (analysis.fellBack) std::cout << "  fell back to the reference frame: " << analysis.fallbackReason << "\n";
    if (!analysis.fellBack && !analysis.mergeIdentified)
        std::cout << "  (which aligned frames were merged could not be told from the result)\n";
    std::cout << format("usable frames %d, feature points %d, valid area top %d left %d right %d bottom %d\n", usable,
                        zoom.pointCount, zoom.top, zoom.left, zoom.right, zoom.bottom);
    if (outside) std::cout << format("note: %ld samples of the result lie outside 0..1023 (brightening)\n", outside);
    std::cout << format("night path %.3f s; wrote %s (%s)", seconds, out.c_str(),
                        isDngPath(out) ? "DNG" : "headerless 16-bit LE");
    if (a.has("--png")) std::cout << ", " << a.value("--png");
    if (a.has("--json")) std::cout << ", " << a.value("--json");
    std::cout << "\n";
    return kExitOk;
}

}  // namespace kepraw

#include <algorithm>
#include <chrono>
#include <cmath>
#include <iostream>

#include "cli.h"
#include "commands.h"
#include "library_capture.h"
#include "output_files.h"
#include "png_preview.h"
#include "registration/night_process.h"
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
                                              {"--merge", true},
                                              {"--noise", true},
                                              {"--output-bits", true},
                                              {"--workers", true},
                                              {"--weights-png", true},
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
    int merge = KEP_MERGE_MEAN;
    bool noiseGiven = false;
    float noise[2] = {0.0f, 0.0f};  // variance = noise[0] * signal + noise[1], 10-bit levels
    int outputBits = 10;
    int workers = 2;
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
    if (args.has("--merge")) {
        const std::string m = args.value("--merge");
        if (m == "mean")
            p.merge = KEP_MERGE_MEAN;
        else if (m == "robust")
            p.merge = KEP_MERGE_ROBUST;
        else
            throw InputError("--merge: \"" + oneLine(m) + "\" is not a merge mode (mean or robust)");
    }
    if (args.has("--noise")) {
        const std::string text = args.value("--noise");
        const size_t comma = text.find(',');
        if (comma == std::string::npos || text.find(',', comma + 1) != std::string::npos)
            throw InputError("--noise: \"" + oneLine(text) + "\" is not A,B (variance = A * signal + B)");
        p.noise[0] = static_cast<float>(parseNumber("--noise", text.substr(0, comma), 0.0, 1e6));
        p.noise[1] = static_cast<float>(parseNumber("--noise", text.substr(comma + 1), 0.0, 1e6));
        if (p.noise[0] == 0.0f && p.noise[1] == 0.0f) throw InputError("--noise: a noise model of zero variance");
        p.noiseGiven = true;
    }
    if (args.has("--output-bits")) {
        p.outputBits = parseInteger("--output-bits", args.value("--output-bits"), 10, 16);
        if (p.outputBits % 2 != 0) throw InputError("--output-bits: " + args.value("--output-bits") + " is not 10, 12, 14 or 16");
    }
    if (args.has("--workers")) p.workers = parseInteger("--workers", args.value("--workers"), 1, 16);
    return p;
}

// Why the reference came back as the result, from what the library reported.
std::string fallbackReason(const KepNightResult& r, int frameCount, int minFeatureCount) {
    if (r.featurePoints < minFeatureCount)
        return format("too few feature points on the reference (%d, at least %d needed)", r.featurePoints,
                      minFeatureCount);
    bool anySharp = false;
    for (int i = kReference + 1; i < frameCount; ++i) anySharp = anySharp || r.frameOutcome[i] != KEP_FRAME_REJECTED_BLUR;
    if (!anySharp) return "no frame besides the reference passed the sharpness screening";
    return "every frame besides the reference failed to align";
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
    if (a.has("--weights-png") && p.merge != KEP_MERGE_ROBUST)
        throw InputError("--weights-png: the merge weights exist only with --merge robust");
    const ReadOptions readOptions = readOptionsFrom(a);
    if (a.has("--pattern")) parsePattern("--pattern", a.value("--pattern"));
    checkRawOutputName(out, outName);

    OutputFiles outputs(paths);
    const std::string rawTemp = outputs.claim(out, outName);
    const std::string pngTemp = a.has("--png") ? outputs.claim(a.value("--png"), "--png") : "";
    const std::string jsonTemp = a.has("--json") ? outputs.claim(a.value("--json"), "--json") : "";
    const std::string weightsTemp =
        a.has("--weights-png") ? outputs.claim(a.value("--weights-png"), "--weights-png") : "";

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
    // copies.
    std::vector<std::vector<short>> work;
    for (const RawImage& f : frames) work.push_back(f.samples);
    std::vector<short*> pointers;
    for (auto& w : work) pointers.push_back(w.data());
    std::vector<uint16_t> merged(static_cast<size_t>(width) * height);
    std::vector<uint8_t> weightMap;
    KepNightOptions options;
    kepNightDefaultOptions(&options);
    options.bayerPattern = p.pattern;
    std::copy(p.black, p.black + 3, options.blackLevel);
    options.grayGain = p.grayGain;
    options.minFeatureCount = p.minFeatureCount;
    options.gain = p.gain;
    options.alignTuning = p.alignTuning;
    options.blurSelect = p.blurSelect;
    options.sharpnessRatio = p.sharpnessRatio;
    options.mergeMode = p.merge;
    options.outputBits = p.outputBits;
    options.noiseGiven = p.noiseGiven ? 1 : 0;
    options.noiseA = p.noise[0];
    options.noiseB = p.noise[1];
    options.workers = p.workers;
    if (!weightsTemp.empty()) {
        weightMap.assign(merged.size() / 4, 0);
        options.weightMap = weightMap.data();
    }
    KepNightResult result;
    result.structSize = sizeof(result);

    const auto start = std::chrono::steady_clock::now();
    LibraryCapture capture;
    const int status = kepNightProcess(pointers.data(), static_cast<int>(pointers.size()), width, height, &options,
                                       merged.data(), &result);
    const std::vector<std::string> libraryLines = capture.finish();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (status != KEP_NIGHT_OK) throw InputError(std::string("night: ") + kepNightStatusText(status));
    const bool fellBack = result.usableFrames <= 1;
    const std::string reason = fellBack ? fallbackReason(result, static_cast<int>(frames.size()), p.minFeatureCount) : "";
    int siteBlack[4];
    for (int s = 0; s < 4; ++s) siteBlack[s] = p.black[kep::synth::bayerChannel(p.pattern, s % 2, s / 2)];
    const int shift = p.outputBits - 10;

    // 10-bit results are the library's signed samples (brightening may leave the
    // range); deeper ones are unsigned.
    long outside = 0;
    int lowest = 65535, highest = -32768;
    for (uint16_t u : merged) {
        const int v = p.outputBits == 10 ? static_cast<short>(u) : u;
        lowest = std::min(lowest, v);
        highest = std::max(highest, v);
        outside += p.outputBits == 10 && (v < 0 || v > 1023);
    }

    long clampedInDng = 0;
    writeRawResult(out, rawTemp, merged, width, height, p.pattern, siteBlack, p.outputBits, clampedInDng);
    if (clampedInDng) notes.push_back(format("%ld samples outside 0..1023 clamped in the DNG output", clampedInDng));
    if (!pngTemp.empty()) {
        std::vector<short> tenBits(merged.size());
        for (size_t i = 0; i < merged.size(); ++i)
            tenBits[i] = static_cast<short>(p.outputBits == 10 ? static_cast<short>(merged[i]) : merged[i] >> shift);
        PreviewOptions po;
        po.pattern = p.pattern;
        std::copy(siteBlack, siteBlack + 4, po.black);
        po.redGain = frames[kReference].asShotRedGain;
        po.blueGain = frames[kReference].asShotBlueGain;
        writePng(pngTemp, renderPreview(tenBits.data(), width, height, po));
    }
    if (!weightsTemp.empty()) writePng(weightsTemp, weightPicture(weightMap, width / 2, height / 2));
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
            .value("merge", p.merge == KEP_MERGE_ROBUST ? "robust" : "mean")
            .value("outputBits", p.outputBits)
            .value("noiseGiven", p.noiseGiven)
            .value("workers", p.workers);
        if (p.noiseGiven) json.value("noiseA", p.noise[0]).value("noiseB", p.noise[1]);
        json.endObject();
        json.beginObject("result")
            .value("usableFrameCount", result.usableFrames)
            .beginObject("validArea")
            .value("top", result.validTop)
            .value("left", result.validLeft)
            .value("right", result.validRight)
            .value("bottom", result.validBottom)
            .endObject()
            .value("featurePoints", result.featurePoints)
            .value("fellBackToReference", fellBack)
            .value("fallbackReason", reason)
            .value("rejectedFraction", result.rejectedFraction)
            .value("refinedTileFraction", result.refinedTileFraction)
            .beginObject("noiseModel")
            .value("a", result.noiseA)
            .value("b", result.noiseB)
            .value("estimated", result.noiseEstimated != 0)
            .endObject()
            .beginArray("frames");
        for (size_t i = 0; i < frames.size(); ++i)
            json.beginObject()
                .value("index", static_cast<int>(i))
                .value("path", frames[i].path)
                .value("outcome", frameOutcomeCode(result.frameOutcome[i]))
                .value("description", frameOutcomeText(result.frameOutcome[i]))
                .value("mergeWeight", result.frameWeight[i])
                .endObject();
        json.endArray()
            .value("outputBits", p.outputBits)
            .value("outputMin", lowest)
            .value("outputMax", highest)
            .value("samplesOutside10Bit", outside)
            .endObject();
        json.beginObject("timing").value("nightSeconds", seconds).endObject();
        json.stringArray("libraryOutput", libraryLines).stringArray("notes", notes);
        json.beginObject("outputs")
            .value("raw", out)
            .value("rawFormat", isDngPath(out) ? "DNG" : formatName(RawFormat::Headerless));
        if (a.has("--png")) json.value("png", a.value("--png"));
        if (a.has("--weights-png")) json.value("weightsPng", a.value("--weights-png"));
        json.value("json", a.value("--json")).endObject().endObject();
        writeTextFile(jsonTemp, json.str());
    }
    outputs.commit();

    std::cout << format("kepraw night: %zu frames %dx%d %s, black R/G/B %d/%d/%d, gain %g, %s merge, %d-bit output\n",
                        frames.size(), width, height, patternName(p.pattern), p.black[0], p.black[1], p.black[2], p.gain,
                        p.merge == KEP_MERGE_ROBUST ? "robust" : "mean", p.outputBits);
    for (size_t i = 0; i < frames.size(); ++i) {
        std::string line = format("  frame %2zu  %-32s %s", i, frames[i].path.c_str(), frameOutcomeText(result.frameOutcome[i]));
        if (p.merge == KEP_MERGE_ROBUST && result.frameOutcome[i] == KEP_FRAME_MERGED && !fellBack)
            line += format(", mean weight %.2f", result.frameWeight[i]);
        std::cout << line << "\n";
    }
    if (fellBack) std::cout << "  fell back to the reference frame: " << reason << "\n";
    std::cout << format("usable frames %d, feature points %d, valid area top %d left %d right %d bottom %d\n",
                        result.usableFrames, result.featurePoints, result.validTop, result.validLeft, result.validRight,
                        result.validBottom);
    if (p.merge == KEP_MERGE_ROBUST && !fellBack)
        std::cout << format("robust merge: %.1f%% of the other frames' samples rejected as motion, noise model "
                            "variance = %.3g * signal + %.3g (%s)\n",
                            100.0 * result.rejectedFraction, result.noiseA, result.noiseB,
                            result.noiseEstimated ? "estimated" : "given");
    if (outside) std::cout << format("note: %ld samples of the result lie outside 0..1023 (brightening)\n", outside);
    std::cout << format("night path %.3f s; wrote %s (%s)", seconds, out.c_str(),
                        isDngPath(out) ? "DNG" : "headerless 16-bit LE");
    if (a.has("--png")) std::cout << ", " << a.value("--png");
    if (a.has("--weights-png")) std::cout << ", " << a.value("--weights-png");
    if (a.has("--json")) std::cout << ", " << a.value("--json");
    std::cout << "\n";
    return kExitOk;
}

}  // namespace kepraw

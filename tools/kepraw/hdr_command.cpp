#include <algorithm>
#include <chrono>
#include <iostream>

#include "cli.h"
#include "commands.h"
#include "library_capture.h"
#include "output_files.h"
#include "png_preview.h"

#if __has_include("hdr/hdr_process.h")
#include "hdr/hdr_process.h"
#define KEPRAW_HAVE_HDR 1
#else
#define KEPRAW_HAVE_HDR 0
#endif

namespace kepraw {

namespace {

constexpr int kMinSide = 8;

const std::vector<OptionDef> kHdrOptions = {{"-o", true},         {"--output", true},    {"--size", true},
                                            {"--bits", true},     {"--pattern", true},   {"--black", true},
                                            {"--red-gain", true}, {"--blue-gain", true}, {"--ratio", true},
                                            {"--png", true},      {"--json", true}};

struct HdrParameters {
    int pattern = 0;
    int black[4] = {64, 64, 64, 64};  // per site, 10-bit
    float redGain = 1.0f;
    float blueGain = 1.0f;
    float ratio = 4.0f;
};

// --black (file units of SHORT, scaled by the 10-bit rule), else SHORT's file
// levels, else 64.
void resolveBlack(const ParsedArgs& args, const std::vector<RawImage>& frames, HdrParameters& p,
                  std::vector<std::string>& notes) {
    const RawImage& first = frames.front();
    const std::vector<int> given = blackLevelsFrom(args, 4, first.fileWhite);
    if (!given.empty()) {
        std::copy(given.begin(), given.end(), p.black);
        return;
    }
    if (!first.hasBlack) return;
    std::copy(first.black, first.black + 4, p.black);
    for (const RawImage& f : frames)
        if (f.hasBlack && !std::equal(f.black, f.black + 4, first.black)) {
            notes.push_back(f.path + ": black levels differ from SHORT's; SHORT's are used");
            break;
        }
}

}  // namespace

bool hdrAvailable() {
    return KEPRAW_HAVE_HDR != 0;
}

void callHdrProcess(short* frameA, short* frameB, short* frameC, short* output, float redGain, float blueGain,
                    int width, int height, float exposureRatio, int bayerPattern, int* blackLevels) {
#if KEPRAW_HAVE_HDR
    hdrProcess(frameA, frameB, frameC, output, redGain, blueGain, width, height, exposureRatio, bayerPattern,
               blackLevels);
#else
    (void)frameA, (void)frameB, (void)frameC, (void)output, (void)redGain, (void)blueGain, (void)width, (void)height,
        (void)exposureRatio, (void)bayerPattern, (void)blackLevels;
    throw std::runtime_error("HDR path not built: this library has no hdr/hdr_process.h");
#endif
}

int runHdr(const std::vector<std::string>& args) {
    const ParsedArgs a = parseArgs(args, kHdrOptions);
    if (a.help) {
        std::cout << kHdrHelp;
        return kExitOk;
    }
    const std::vector<std::string>& paths = a.positional;
    if (paths.size() != 3)
        throw InputError(format("%zu frame%s given: the HDR path takes exactly three, SHORT MID LONG", paths.size(),
                                paths.size() == 1 ? "" : "s"));
    if (a.has("-o") && a.has("--output")) throw InputError("--output: given together with -o");
    const std::string outName = a.has("--output") ? "--output" : "-o";
    if (!a.has(outName)) throw InputError("-o: missing output file (kepraw hdr SHORT MID LONG -o OUT)");
    const std::string out = a.value(outName);
    HdrParameters p;
    if (a.has("--red-gain"))
        p.redGain = static_cast<float>(parseNumber("--red-gain", a.value("--red-gain"), 0.0625, 16.0));
    if (a.has("--blue-gain"))
        p.blueGain = static_cast<float>(parseNumber("--blue-gain", a.value("--blue-gain"), 0.0625, 16.0));
    if (a.has("--ratio")) p.ratio = static_cast<float>(parseNumber("--ratio", a.value("--ratio"), 0.0625, 64.0));
    const ReadOptions readOptions = readOptionsFrom(a);
    if (a.has("--pattern")) parsePattern("--pattern", a.value("--pattern"));
    checkRawOutputName(out, outName);

    OutputFiles outputs(paths);
    const std::string rawTemp = outputs.claim(out, outName);
    const std::string pngTemp = a.has("--png") ? outputs.claim(a.value("--png"), "--png") : "";
    const std::string jsonTemp = a.has("--json") ? outputs.claim(a.value("--json"), "--json") : "";

    std::vector<std::string> notes;
    const std::vector<RawImage> frames = readFrames("hdr", paths, readOptions, notes);
    const int width = frames.front().width, height = frames.front().height;
    if (width % 2 || height % 2 || width < kMinSide || height < kMinSide)
        throw InputError(frames.front().path + format(": frame size %dx%d cannot be fused: both sides must be even "
                                                      "and at least %d",
                                                      width, height, kMinSide));
    std::vector<std::string> setupNotes;
    p.pattern = resolvePattern(a, frames, setupNotes);
    resolveBlack(a, frames, p, setupNotes);
    for (const std::string& n : setupNotes) printNote("hdr", n);
    notes.insert(notes.end(), setupNotes.begin(), setupNotes.end());

    // The entry uses its three inputs as working buffers: hand it copies.
    std::vector<short> shortFrame = frames[0].samples, midFrame = frames[1].samples, longFrame = frames[2].samples;
    std::vector<short> fused(static_cast<size_t>(width) * height);
    int blackLevels[4];
    std::copy(p.black, p.black + 4, blackLevels);

    const auto start = std::chrono::steady_clock::now();
    LibraryCapture capture;
    callHdrProcess(shortFrame.data(), midFrame.data(), longFrame.data(), fused.data(), p.redGain, p.blueGain, width,
                   height, p.ratio, p.pattern, blackLevels);
    const std::vector<std::string> libraryLines = capture.finish();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    const auto range = std::minmax_element(fused.begin(), fused.end());
    long clampedInDng = 0;
    writeRawResult(out, rawTemp, std::vector<uint16_t>(fused.begin(), fused.end()), width, height, p.pattern, p.black, 10,
                   clampedInDng);
    if (clampedInDng) notes.push_back(format("%ld samples outside 0..1023 clamped in the DNG output", clampedInDng));
    if (!pngTemp.empty()) {
        PreviewOptions po;
        po.pattern = p.pattern;
        std::copy(p.black, p.black + 4, po.black);
        if (a.has("--red-gain") || a.has("--blue-gain")) {
            po.redGain = p.redGain;
            po.blueGain = p.blueGain;
        } else {
            po.redGain = frames[0].asShotRedGain;
            po.blueGain = frames[0].asShotBlueGain;
        }
        writePng(pngTemp, renderPreview(fused.data(), width, height, po));
    }
    if (!jsonTemp.empty()) {
        JsonWriter json;
        json.beginObject().value("command", "hdr");
        describeInputs(json, frames);
        json.beginObject("parameters")
            .value("frameA", frames[0].path)
            .value("frameB", frames[1].path)
            .value("frameC", frames[2].path)
            .value("width", width)
            .value("height", height)
            .value("bayerPattern", patternName(p.pattern))
            .value("bayerPatternCode", p.pattern)
            .intArray("blackLevels", p.black, 4)
            .value("redGain", p.redGain)
            .value("blueGain", p.blueGain)
            .value("exposureRatio", p.ratio)
            .endObject();
        json.beginObject("result")
            .value("outputMin", static_cast<int>(*range.first))
            .value("outputMax", static_cast<int>(*range.second))
            .endObject();
        json.beginObject("timing").value("hdrSeconds", seconds).endObject();
        json.stringArray("libraryOutput", libraryLines).stringArray("notes", notes);
        json.beginObject("outputs")
            .value("raw", out)
            .value("rawFormat", isDngPath(out) ? "DNG" : formatName(RawFormat::Headerless));
        if (a.has("--png")) json.value("png", a.value("--png"));
        json.value("json", a.value("--json")).endObject().endObject();
        writeTextFile(jsonTemp, json.str());
    }
    outputs.commit();

    std::cout << format("kepraw hdr: %dx%d %s, black %d/%d/%d/%d, red gain %g, blue gain %g, ratio %g\n", width, height,
                        patternName(p.pattern), p.black[0], p.black[1], p.black[2], p.black[3], p.redGain, p.blueGain,
                        p.ratio);
    std::cout << format("  frameA (short) %s\n  frameB (mid)   %s\n  frameC (long)  %s\n", frames[0].path.c_str(),
                        frames[1].path.c_str(), frames[2].path.c_str());
    std::cout << format("result range %d..%d\n", *range.first, *range.second);
    std::cout << format("hdr path %.3f s; wrote %s (%s)", seconds, out.c_str(),
                        isDngPath(out) ? "DNG" : "headerless 16-bit LE");
    if (a.has("--png")) std::cout << ", " << a.value("--png");
    if (a.has("--json")) std::cout << ", " << a.value("--json");
    std::cout << "\n";
    return kExitOk;
}

}  // namespace kepraw

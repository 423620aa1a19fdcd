#include <algorithm>
#include <iostream>

#include "cli.h"
#include "commands.h"
#include "dng_writer.h"
#include "output_files.h"
#include "registration/night_process.h"

namespace kepraw {

namespace {

const char* const kUnwritableExtensions[] = {"cr2", "cr3", "crw", "nef", "nrw", "arw",  "srf", "sr2", "orf", "rw2",
                                             "raf", "pef", "srw", "3fr", "erf", "kdc",  "dcr", "mos", "mef", "mrw",
                                             "x3f", "iiq", "rwl", "gpr", "tif", "tiff", "jpg", "jpeg"};

std::string extensionOf(const std::string& path) {
    const size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || path.find('/', dot) != std::string::npos) return "";
    std::string ext = path.substr(dot + 1);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

}  // namespace

void printNote(const std::string& command, const std::string& note) {
    std::cout.flush();
    std::cerr << "kepraw " << command << ": " << oneLine(note) << "\n";
}

ReadOptions readOptionsFrom(const ParsedArgs& args) {
    ReadOptions o;
    if (args.has("--size")) {
        const FrameSize s = parseSize("--size", args.value("--size"));
        o.width = s.width;
        o.height = s.height;
    }
    if (args.has("--bits")) o.bits = parseInteger("--bits", args.value("--bits"), 10, 16);
    return o;
}

std::vector<RawImage> readFrames(const std::string& command, const std::vector<std::string>& paths,
                                 const ReadOptions& options, std::vector<std::string>& notes) {
    std::vector<RawImage> frames;
    for (const std::string& path : paths) {
        frames.push_back(readRawFile(path, options));
        const RawImage& f = frames.back();
        const RawImage& first = frames.front();
        if (f.width != first.width || f.height != first.height)
            throw InputError(path + format(": frame is %dx%d but %s is %dx%d; all frames must have one size", f.width,
                                           f.height, first.path.c_str(), first.width, first.height));
        for (const std::string& note : readingNotes(f)) {
            if (std::find(notes.begin(), notes.end(), note) != notes.end()) continue;  // a file given twice
            printNote(command, note);
            notes.push_back(note);
        }
    }
    return frames;
}

void checkRawOutputName(const std::string& path, const std::string& option) {
    const std::string ext = extensionOf(path);
    if (ext == "png" || ext == "json")
        throw InputError(option + ": " + path + ": the raw result cannot be a ." + ext + " file (use --" + ext +
                         " for the " + (ext == "png" ? "preview" : "report") + ")");
    for (const char* e : kUnwritableExtensions)
        if (ext == e)
            throw InputError(option + ": " + path + ": kepraw cannot write ." + ext +
                             " files; name the output .dng or give it a headerless-raw name such as .raw");
}

int resolvePattern(const ParsedArgs& args, const std::vector<RawImage>& frames, std::vector<std::string>& notes) {
    int fromFiles = -1;
    std::string source;
    for (const RawImage& f : frames) {
        if (f.pattern < 0) continue;
        if (fromFiles >= 0 && f.pattern != fromFiles && !args.has("--pattern"))
            throw InputError(f.path + ": Bayer pattern " + patternName(f.pattern) + " differs from " + source + "'s " +
                             patternName(fromFiles));
        if (fromFiles < 0) {
            fromFiles = f.pattern;
            source = f.path;
        }
    }
    if (args.has("--pattern")) {
        const int given = parsePattern("--pattern", args.value("--pattern"));
        if (fromFiles >= 0 && fromFiles != given)
            notes.push_back(std::string("--pattern ") + patternName(given) + " overrides the files' " +
                            patternName(fromFiles));
        return given;
    }
    return fromFiles >= 0 ? fromFiles : 0;
}

void writeRawResult(const std::string& target, const std::string& temp, const std::vector<uint16_t>& samples,
                    int width, int height, int pattern, const int siteBlack[4], int bits, long& clamped) {
    clamped = 0;
    if (!isDngPath(target)) {
        writeHeaderlessRaw(temp, reinterpret_cast<const short*>(samples.data()), samples.size());
        return;
    }
    std::vector<unsigned short> stored(samples.size());
    if (bits == 10) {
        for (size_t i = 0; i < samples.size(); ++i) {
            const int v = static_cast<short>(samples[i]);
            if (v < 0 || v > 1023) ++clamped;
            stored[i] = static_cast<unsigned short>(v < 0 ? 0 : v > 1023 ? 1023 : v);
        }
    } else {
        stored.assign(samples.begin(), samples.end());
    }
    DngOptions o;
    o.pattern = pattern;
    for (int s = 0; s < 4; ++s) o.black[s] = siteBlack[s] << (bits - 10);
    o.white = (1 << bits) - 1;
    writeDng(temp, stored.data(), width, height, o);
}

const char* frameOutcomeCode(int outcome) {
    switch (outcome) {
        case KEP_FRAME_REFERENCE: return "reference";
        case KEP_FRAME_MERGED: return "merged";
        case KEP_FRAME_ALIGNED_SHORT: return "aligned-short";
        case KEP_FRAME_REJECTED_BLUR: return "rejected-blur";
        case KEP_FRAME_REJECTED_ALIGNMENT: return "rejected-alignment";
        case KEP_FRAME_NOT_ALIGNED: return "not-aligned";
        default: return "unknown";
    }
}

const char* frameOutcomeText(int outcome) {
    switch (outcome) {
        case KEP_FRAME_REFERENCE: return "reference";
        case KEP_FRAME_MERGED: return "aligned, merged";
        case KEP_FRAME_ALIGNED_SHORT: return "aligned (short exposure, never merged)";
        case KEP_FRAME_REJECTED_BLUR: return "rejected: not sharp enough";
        case KEP_FRAME_REJECTED_ALIGNMENT: return "rejected: alignment failed";
        case KEP_FRAME_NOT_ALIGNED: return "not aligned: registration fell back to the reference";
        default: return "unknown";
    }
}

void describeInputs(JsonWriter& json, const std::vector<RawImage>& frames) {
    json.beginArray("inputs");
    for (const RawImage& f : frames) {
        json.beginObject()
            .value("path", f.path)
            .value("format", formatName(f.format))
            .value("camera", f.camera)
            .value("width", f.width)
            .value("height", f.height)
            .value("pattern", f.pattern >= 0 ? patternName(f.pattern) : "not recorded")
            .intArray("fileBlackLevels", f.fileBlack, 4)
            .value("fileWhiteLevel", f.fileWhite)
            .value("fileBits", f.fileBits)
            .intArray("blackLevels10bit", f.black, 4)
            .value("scaledTo10Bits", f.scaled)
            .value("clampedSamples", f.clampedCount)
            .value("fileMin", f.fileMin)
            .value("fileMax", f.fileMax)
            .endObject();
    }
    json.endArray();
}

std::vector<int> blackLevelsFrom(const ParsedArgs& args, size_t count, int fileWhite) {
    if (!args.has("--black")) return {};
    std::vector<int> v = parseIntList("--black", args.value("--black"), {1, count}, 0, 65535);
    if (v.size() == 1) v.assign(count, v[0]);
    for (int& level : v) {
        if (level >= fileWhite)
            throw InputError("--black: " + args.value("--black") +
                             format(": black level %d is not below the white level %d", level, fileWhite));
        level = scaleTo10Bits(level, fileWhite);
    }
    return v;
}

}  // namespace kepraw

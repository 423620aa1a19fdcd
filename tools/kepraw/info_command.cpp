#include <sys/stat.h>

#include <cmath>
#include <iostream>

#include "cli.h"
#include "commands.h"

namespace kepraw {

namespace {

const std::vector<OptionDef> kInfoOptions = {{"--size", true}, {"--bits", true}};

// Sizes of common aspect ratios (4:3, 3:2, 16:9, 1:1, either way round) with
// even sides that hold exactly `samples` samples.
std::vector<std::string> candidateSizes(long long samples) {
    static const int kRatios[][2] = {{4, 3}, {3, 4}, {3, 2}, {2, 3}, {16, 9}, {9, 16}, {1, 1}};
    std::vector<std::string> sizes;
    for (const auto& r : kRatios) {
        const long long unit = static_cast<long long>(r[0]) * r[1];
        if (samples % unit) continue;
        const long long k = std::llround(std::sqrt(static_cast<double>(samples / unit)));
        const long long w = r[0] * k, h = r[1] * k;
        if (k > 0 && w * h == samples && w % 2 == 0 && h % 2 == 0) sizes.push_back(format("%lldx%lld", w, h));
    }
    return sizes;
}

void describe(const RawImage& f) {
    std::cout << f.path << ": " << formatName(f.format) << (f.camera.empty() ? "" : " (" + f.camera + ")") << "\n";
    std::cout << format("  size %dx%d, pattern %s\n", f.width, f.height,
                        f.pattern >= 0 ? patternName(f.pattern) : "not recorded (--pattern, default RGGB)");
    if (f.hasBlack)
        std::cout << format("  black levels %d %d %d %d (top-left, top-right, bottom-left, bottom-right)\n",
                            f.fileBlack[0], f.fileBlack[1], f.fileBlack[2], f.fileBlack[3]);
    else
        std::cout << "  black levels not recorded (--black, default 64)\n";
    std::cout << format("  white level %d (%d-bit), values %d..%d\n", f.fileWhite, f.fileBits, f.fileMin, f.fileMax);
    if (f.scaled)
        std::cout << format("  read as 10-bit: v' = round(v * 1023 / %d); black levels become %d %d %d %d\n",
                            f.fileWhite, f.black[0], f.black[1], f.black[2], f.black[3]);
    else
        std::cout << "  read as 10-bit data as it is\n";
    if (f.clampedCount)
        std::cout << format("  warning: %ld samples above the %s would be clamped to 1023\n", f.clampedCount,
                            f.scaled ? "white level" : "10-bit range");
    if (f.asShotRedGain > 0)
        std::cout << format("  as-shot white balance: red x%.3f, blue x%.3f\n", f.asShotRedGain, f.asShotBlueGain);
}

}  // namespace

int runInfo(const std::vector<std::string>& args) {
    const ParsedArgs a = parseArgs(args, kInfoOptions);
    if (a.help) {
        std::cout << kInfoHelp;
        return kExitOk;
    }
    if (a.positional.empty()) throw InputError("no file given (kepraw info FILE...)");
    const ReadOptions options = readOptionsFrom(a);
    for (const std::string& path : a.positional) {
        if (options.width == 0) {
            // Without --size a headerless file cannot be read; say what it could be.
            struct stat st;
            unsigned char head[16] = {};
            if (::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
                FILE* f = std::fopen(path.c_str(), "rb");
                const size_t n = f ? std::fread(head, 1, sizeof head, f) : 0;
                if (f) std::fclose(f);
                if (f && st.st_size > 0 && detectFormat(path, head, n) == RawFormat::Headerless) {
                    const long long bytes = static_cast<long long>(st.st_size);
                    std::cout << path << ": " << formatName(RawFormat::Headerless) << format(", %lld bytes", bytes);
                    if (bytes % 2) {
                        std::cout << " (odd: not 16-bit samples)\n";
                        continue;
                    }
                    std::cout << format(" = %lld samples\n  size unknown: give --size WxH", bytes / 2);
                    const std::vector<std::string> sizes = candidateSizes(bytes / 2);
                    for (size_t i = 0; i < sizes.size(); ++i) std::cout << (i ? ", " : " (fits: ") << sizes[i];
                    std::cout << (sizes.empty() ? "\n" : ")\n");
                    continue;
                }
            }
        }
        describe(readRawFile(path, options));
    }
    return kExitOk;
}

}  // namespace kepraw

#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Reading raw Bayer frames from people's files: headerless little-endian 16-bit
// dumps (the library's own raw-file format) and DNG / camera raw files through
// LibRaw. Every frame comes out as 10-bit samples for the library.
namespace kepraw {

enum class RawFormat { Headerless, Dng, CameraRaw };

const char* formatName(RawFormat format);

struct ReadOptions {
    int width = 0;  // --size, required for headerless files, checked for the others when given
    int height = 0;
    int bits = 10;  // --bits: sample depth of headerless files (10..16)
};

struct RawImage {
    std::string path;
    RawFormat format = RawFormat::Headerless;
    std::string camera;  // make and model when the file names them
    int width = 0;
    int height = 0;
    int pattern = -1;  // Bayer code 0..3 from the file; -1 when the file does not say (headerless)

    // Levels as stored in the file (file units) and after scaling to 10 bits.
    int fileBlack[4] = {0, 0, 0, 0};  // per site: top-left, top-right, bottom-left, bottom-right
    int fileWhite = 1023;
    int fileBits = 10;  // bits needed for fileWhite
    bool hasBlack = false;
    int black[4] = {0, 0, 0, 0};  // 10-bit
    int fileMin = 0;              // smallest and largest stored sample (file units)
    int fileMax = 0;

    bool scaled = false;    // samples were scaled from fileWhite to 1023
    long clampedCount = 0;  // samples above the white level, clamped to 1023

    // White balance the file records (as-shot neutral): red and blue gains
    // relative to green; 0 when the file has none.
    float asShotRedGain = 0.0f;
    float asShotBlueGain = 0.0f;

    std::vector<short> samples;  // width x height, 10-bit (0..1023)
};

// The 10-bit rule: with a white level W above 1023, a sample v (and each black
// level) becomes round(v * 1023 / W), computed as (v * 1023 + W / 2) / W in
// integers; a sample above W is clamped to 1023 and counted. Data of 10 bits or
// fewer is left as it is.
int scaleTo10Bits(int value, int white);

// Reads one frame; throws InputError naming `path` with what is wrong.
RawImage readRawFile(const std::string& path, const ReadOptions& options);

// The file's format as decided before any decoder sees it: a TIFF/DNG signature,
// another camera-raw signature or a known camera-raw extension, else headerless.
RawFormat detectFormat(const std::string& path, const unsigned char* head, size_t headSize);

// One-line notes for the user about what reading changed (scaling, clamping).
std::vector<std::string> readingNotes(const RawImage& image);

}  // namespace kepraw

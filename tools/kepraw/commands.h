#pragma once

#include <string>
#include <vector>

#include "cli.h"
#include "json_writer.h"
#include "raw_reader.h"

// The kepraw commands. Each takes its arguments (after the command name), prints
// its report on standard output and returns the exit status; bad input is thrown
// as InputError and reported by main().
namespace kepraw {

int runNight(const std::vector<std::string>& args);
int runHdr(const std::vector<std::string>& args);
int runInfo(const std::vector<std::string>& args);
int runDemo(const std::vector<std::string>& args);

extern const char* const kMainHelp;
extern const char* const kNightHelp;
extern const char* const kHdrHelp;
extern const char* const kInfoHelp;
extern const char* const kDemoHelp;

// ---- shared by the commands ----

// Prints a note or warning about the input on standard error, prefixed with the
// command ("kepraw night: ...").
void printNote(const std::string& command, const std::string& note);

// Reads the frames (all of one size) and prints the reading notes.
std::vector<RawImage> readFrames(const std::string& command, const std::vector<std::string>& paths,
                                 const ReadOptions& options, std::vector<std::string>& notes);

// --size and --bits as ReadOptions.
ReadOptions readOptionsFrom(const ParsedArgs& args);

// Refuses output names kepraw cannot honour for the raw result: camera-raw
// extensions other than .dng, and .png / .json (previews and reports have their
// own options).
void checkRawOutputName(const std::string& path, const std::string& option);

// The Bayer pattern: --pattern when given (noted if it overrides a file's),
// else the files' (all must agree), else RGGB.
int resolvePattern(const ParsedArgs& args, const std::vector<RawImage>& frames, std::vector<std::string>& notes);

// Writes the raw result: DNG when the name ends in .dng, otherwise headerless
// 16-bit little-endian with the samples exactly as the library produced them.
// Samples are `bits` deep: 10-bit results are the library's signed samples, and
// the DNG clamps them to 0..1023 (counted in `clamped`); deeper ones are unsigned
// and the DNG's white level and black levels (siteBlack, 10-bit) are scaled to them.
void writeRawResult(const std::string& target, const std::string& temp, const std::vector<uint16_t>& samples,
                    int width, int height, int pattern, const int siteBlack[4], int bits, long& clamped);

// A frame's outcome (KepFrameOutcome) as a short code ("merged", "rejected-blur",
// ...) and as words.
const char* frameOutcomeCode(int outcome);
const char* frameOutcomeText(int outcome);

// --black given as `count` levels (or one for all), in the files' units: each must
// lie below fileWhite and is scaled to 10 bits. Empty when --black is absent.
std::vector<int> blackLevelsFrom(const ParsedArgs& args, size_t count, int fileWhite);

// The input files in a report.
void describeInputs(JsonWriter& json, const std::vector<RawImage>& frames);

// The HDR entry, when this build of the library has it.
bool hdrAvailable();
void callHdrProcess(short* frameA, short* frameB, short* frameC, short* output, float redGain, float blueGain,
                    int width, int height, float exposureRatio, int bayerPattern, int* blackLevels);

}  // namespace kepraw

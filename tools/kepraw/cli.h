#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

// Command-line plumbing shared by the kepraw commands: exit codes, the error type
// for bad input, option parsing and strict value parsers.
namespace kepraw {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;   // the tool itself failed (out of memory, I/O error on a good path)
constexpr int kExitBadInput = 2;  // the user's input or arguments were refused

// Input the tool refuses. The message is one line naming the offending argument
// first ("--gain: 'x' is not a number", "a.raw: file not found"); the caller
// prefixes the command name and exits with kExitBadInput.
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct OptionDef {
    const char* name;  // "--gain" or "-o"
    bool takesValue;
};

struct ParsedArgs {
    std::vector<std::string> positional;
    std::map<std::string, std::string> values;  // option name -> value ("" for flags)
    bool help = false;

    bool has(const std::string& name) const { return values.count(name) != 0; }
    const std::string& value(const std::string& name) const { return values.at(name); }
};

// Parses a command's arguments: "--name value", "--name=value", "-o value"; "--"
// ends the options; "-h"/"--help" sets `help`. Unknown options, missing values
// and repeated options throw InputError.
ParsedArgs parseArgs(const std::vector<std::string>& args, const std::vector<OptionDef>& definitions);

// Strict parsers: the whole text must be the value, finite and within [lo, hi].
double parseNumber(const std::string& option, const std::string& text, double lo, double hi);
int parseInteger(const std::string& option, const std::string& text, long lo, long hi);

struct FrameSize {
    int width = 0;
    int height = 0;
};
// "WxH" with positive integers, each at most kMaxSide.
constexpr int kMaxSide = 16384;
FrameSize parseSize(const std::string& option, const std::string& text);

// Bayer pattern names and the library's codes: rggb 0, bggr 1, grbg 2, gbrg 3.
int parsePattern(const std::string& option, const std::string& text);
const char* patternName(int code);  // "RGGB" ...; "unknown" outside 0..3

// Comma-separated integers in [lo, hi]; the count must be one of `counts`.
std::vector<int> parseIntList(const std::string& option, const std::string& text, const std::vector<size_t>& counts,
                              long lo, long hi);

// The text with control characters (line breaks in file names...) shown as '?',
// so that every message stays on one line.
std::string oneLine(const std::string& text);

// Printf-style formatting into a std::string.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kepraw

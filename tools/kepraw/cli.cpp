#include "cli.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace kepraw {

namespace {

const OptionDef* findOption(const std::vector<OptionDef>& definitions, const std::string& name) {
    for (const OptionDef& s : definitions)
        if (name == s.name) return &s;
    return nullptr;
}

// Quotes a user's text for a message, cutting absurdly long values.
std::string quoted(const std::string& text) {
    return "'" + oneLine(text.size() > 60 ? text.substr(0, 57) + "..." : text) + "'";
}

}  // namespace

std::string oneLine(const std::string& text) {
    std::string out = text;
    for (char& c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    return out;
}

std::string format(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string out(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    if (n > 0) std::vsnprintf(&out[0], out.size() + 1, fmt, args);
    va_end(args);
    return out;
}

ParsedArgs parseArgs(const std::vector<std::string>& args, const std::vector<OptionDef>& definitions) {
    ParsedArgs parsed;
    bool optionsEnded = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
            parsed.positional.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        if (arg == "-h" || arg == "--help") {
            parsed.help = true;
            continue;
        }
        std::string name = arg, value;
        bool inlineValue = false;
        const size_t eq = arg.find('=');
        if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
            name = arg.substr(0, eq);
            value = arg.substr(eq + 1);
            inlineValue = true;
        }
        const OptionDef* definition = findOption(definitions, name);
        if (!definition) throw InputError(quoted(name) + ": unknown option (see --help)");
        if (parsed.has(name)) throw InputError(name + ": option given more than once");
        if (definition->takesValue) {
            if (!inlineValue) {
                if (i + 1 >= args.size()) throw InputError(name + ": option needs a value");
                value = args[++i];
            }
        } else if (inlineValue) {
            throw InputError(name + ": option takes no value");
        }
        parsed.values[name] = value;
    }
    return parsed;
}

double parseNumber(const std::string& option, const std::string& text, double lo, double hi) {
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(begin, &end);
    if (text.empty() || end != begin + text.size() || std::isspace(static_cast<unsigned char>(text[0])))
        throw InputError(option + ": " + quoted(text) + " is not a number");
    if (!std::isfinite(v) || errno == ERANGE || v < lo || v > hi)
        throw InputError(option + ": " + quoted(text) + format(" is out of range (%g to %g)", lo, hi));
    return v;
}

int parseInteger(const std::string& option, const std::string& text, long lo, long hi) {
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(begin, &end, 10);
    if (text.empty() || end != begin + text.size() || std::isspace(static_cast<unsigned char>(text[0])))
        throw InputError(option + ": " + quoted(text) + " is not an integer");
    if (errno == ERANGE || v < lo || v > hi)
        throw InputError(option + ": " + quoted(text) + format(" is out of range (%ld to %ld)", lo, hi));
    return static_cast<int>(v);
}

FrameSize parseSize(const std::string& option, const std::string& text) {
    const size_t x = text.find_first_of("xX");
    if (x == std::string::npos || x == 0 || x + 1 >= text.size())
        throw InputError(option + ": " + quoted(text) + " is not a size (expected WIDTHxHEIGHT, e.g. 4000x3000)");
    FrameSize size;
    try {
        size.width = parseInteger(option, text.substr(0, x), 1, kMaxSide);
        size.height = parseInteger(option, text.substr(x + 1), 1, kMaxSide);
    } catch (const InputError&) {
        throw InputError(option + ": " + quoted(text) +
                         format(" is not a size (expected WIDTHxHEIGHT, each side 1 to %d)", kMaxSide));
    }
    return size;
}

int parsePattern(const std::string& option, const std::string& text) {
    static const char* const kNames[4] = {"rggb", "bggr", "grbg", "gbrg"};
    std::string lower = text;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (int code = 0; code < 4; ++code)
        if (lower == kNames[code]) return code;
    throw InputError(option + ": " + quoted(text) + " is not a Bayer pattern (rggb, bggr, grbg or gbrg)");
}

const char* patternName(int code) {
    static const char* const kNames[4] = {"RGGB", "BGGR", "GRBG", "GBRG"};
    return code >= 0 && code < 4 ? kNames[code] : "unknown";
}

std::vector<int> parseIntList(const std::string& option, const std::string& text, const std::vector<size_t>& counts,
                              long lo, long hi) {
    std::vector<int> values;
    size_t start = 0;
    while (true) {
        const size_t comma = text.find(',', start);
        values.push_back(parseInteger(option, text.substr(start, comma - start), lo, hi));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    for (size_t c : counts)
        if (values.size() == c) return values;
    std::string expected;
    for (size_t i = 0; i < counts.size(); ++i)
        expected += (i ? (i + 1 == counts.size() ? " or " : ", ") : "") + std::to_string(counts[i]);
    throw InputError(option + ": " + quoted(text) + " has " + std::to_string(values.size()) + " values (expected " +
                     expected + ")");
}

}  // namespace kepraw

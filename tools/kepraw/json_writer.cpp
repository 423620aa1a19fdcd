#include "json_writer.h"

#include <cmath>
#include <cstdio>

namespace kepraw {

std::string jsonEscape(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", c);
                    out += buf;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

void JsonWriter::prefix(const char* key) {
    if (!hasItems_.empty()) {
        out_ += hasItems_.back() ? ",\n" : "\n";
        hasItems_.back() = true;
        out_.append(2 * hasItems_.size(), ' ');
    }
    if (key) out_ += jsonEscape(key) + ": ";
}

void JsonWriter::raw(const char* key, const std::string& text) {
    prefix(key);
    out_ += text;
}

JsonWriter& JsonWriter::beginObject(const char* key) {
    raw(key, "{");
    hasItems_.push_back(false);
    return *this;
}

JsonWriter& JsonWriter::endObject() {
    const bool items = hasItems_.back();
    hasItems_.pop_back();
    if (items) {
        out_ += "\n";
        out_.append(2 * hasItems_.size(), ' ');
    }
    out_ += "}";
    return *this;
}

JsonWriter& JsonWriter::beginArray(const char* key) {
    raw(key, "[");
    hasItems_.push_back(false);
    return *this;
}

JsonWriter& JsonWriter::endArray() {
    const bool items = hasItems_.back();
    hasItems_.pop_back();
    if (items) {
        out_ += "\n";
        out_.append(2 * hasItems_.size(), ' ');
    }
    out_ += "]";
    return *this;
}

JsonWriter& JsonWriter::value(const char* key, const std::string& v) {
    raw(key, jsonEscape(v));
    return *this;
}

JsonWriter& JsonWriter::value(const char* key, long long v) {
    raw(key, std::to_string(v));
    return *this;
}

JsonWriter& JsonWriter::value(const char* key, double v) {
    if (!std::isfinite(v)) {
        raw(key, "null");
        return *this;
    }
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.10g", v);
    raw(key, buf);
    return *this;
}

JsonWriter& JsonWriter::value(const char* key, bool v) {
    raw(key, v ? "true" : "false");
    return *this;
}

JsonWriter& JsonWriter::intArray(const char* key, const int* values, size_t count) {
    std::string text = "[";
    for (size_t i = 0; i < count; ++i) text += (i ? ", " : "") + std::to_string(values[i]);
    raw(key, text + "]");
    return *this;
}

JsonWriter& JsonWriter::stringArray(const char* key, const std::vector<std::string>& values) {
    beginArray(key);
    for (const std::string& v : values) value(nullptr, v);
    return endArray();
}

}  // namespace kepraw

#pragma once

#include <string>
#include <vector>

// A small streaming JSON writer for the reports: objects, arrays, strings
// (escaped), integers, numbers (non-finite ones as null) and booleans, indented.
namespace kepraw {

class JsonWriter {
public:
    JsonWriter& beginObject(const char* key = nullptr);
    JsonWriter& endObject();
    JsonWriter& beginArray(const char* key = nullptr);
    JsonWriter& endArray();
    JsonWriter& value(const char* key, const std::string& v);
    JsonWriter& value(const char* key, const char* v) { return value(key, std::string(v)); }
    JsonWriter& value(const char* key, long long v);
    JsonWriter& value(const char* key, int v) { return value(key, static_cast<long long>(v)); }
    JsonWriter& value(const char* key, long v) { return value(key, static_cast<long long>(v)); }
    JsonWriter& value(const char* key, double v);
    JsonWriter& value(const char* key, float v) { return value(key, static_cast<double>(v)); }
    JsonWriter& value(const char* key, bool v);
    JsonWriter& intArray(const char* key, const int* values, size_t count);
    JsonWriter& stringArray(const char* key, const std::vector<std::string>& values);

    // The document, ending with a newline once every container is closed.
    std::string str() const { return out_ + "\n"; }

private:
    void prefix(const char* key);
    void raw(const char* key, const std::string& text);
    std::string out_;
    std::vector<bool> hasItems_;  // per open container
};

std::string jsonEscape(const std::string& text);

}  // namespace kepraw

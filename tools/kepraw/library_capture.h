#pragma once

#include <cstdio>
#include <string>
#include <vector>

// Collects what the library prints while it runs (its log lines on standard
// error, timing lines on standard output) so that they go into the report
// instead of between the tool's own lines. In sanitizer builds the sanitizers'
// reports still go to the real standard error.
namespace kepraw {

class LibraryCapture {
public:
    LibraryCapture();   // starts redirecting standard output and error
    ~LibraryCapture();  // restores them if finish() was not called
    LibraryCapture(const LibraryCapture&) = delete;
    LibraryCapture& operator=(const LibraryCapture&) = delete;

    // Restores the streams and returns the captured lines.
    std::vector<std::string> finish();

private:
    void restore();
    int savedOut_ = -1;
    int savedErr_ = -1;
    std::FILE* sink_ = nullptr;
};

}  // namespace kepraw

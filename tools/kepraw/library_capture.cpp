#include "library_capture.h"

#include <unistd.h>

#include <cstdint>
#include <iostream>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_UNDEFINED__)
#define KEPRAW_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(undefined_behavior_sanitizer)
#define KEPRAW_SANITIZED 1
#endif
#endif
#ifdef KEPRAW_SANITIZED
#include <sanitizer/common_interface_defs.h>
#endif

namespace kepraw {

namespace {

// Sanitizer reports keep going to the real standard error while the library's
// output is captured, so that none can be swallowed.
void pointSanitizerReportsAt(int fd) {
#ifdef KEPRAW_SANITIZED
    __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<intptr_t>(fd)));
#else
    (void)fd;
#endif
}

}  // namespace

LibraryCapture::LibraryCapture() {
    std::cout.flush();
    std::cerr.flush();
    std::fflush(stdout);
    std::fflush(stderr);
    sink_ = std::tmpfile();
    if (!sink_) return;  // nothing captured: the library's lines go to the terminal
    savedOut_ = ::dup(STDOUT_FILENO);
    savedErr_ = ::dup(STDERR_FILENO);
    if (savedOut_ < 0 || savedErr_ < 0) {
        restore();
        return;
    }
    pointSanitizerReportsAt(savedErr_);
    ::dup2(::fileno(sink_), STDOUT_FILENO);
    ::dup2(::fileno(sink_), STDERR_FILENO);
}

LibraryCapture::~LibraryCapture() {
    restore();
    if (sink_) std::fclose(sink_);
}

void LibraryCapture::restore() {
    std::cout.flush();
    std::fflush(stdout);
    std::fflush(stderr);
    if (savedOut_ >= 0) {
        ::dup2(savedOut_, STDOUT_FILENO);
        ::close(savedOut_);
        savedOut_ = -1;
    }
    if (savedErr_ >= 0) {
        ::dup2(savedErr_, STDERR_FILENO);
        pointSanitizerReportsAt(STDERR_FILENO);
        ::close(savedErr_);
        savedErr_ = -1;
    }
}

std::vector<std::string> LibraryCapture::finish() {
    restore();
    std::vector<std::string> lines;
    if (!sink_) return lines;
    std::rewind(sink_);
    std::string line;
    int c;
    while ((c = std::fgetc(sink_)) != EOF) {
        if (c == '\n') {
            lines.push_back(line);
            line.clear();
        } else {
            line += static_cast<char>(c);
        }
    }
    if (!line.empty()) lines.push_back(line);
    std::fclose(sink_);
    sink_ = nullptr;
    return lines;
}

}  // namespace kepraw

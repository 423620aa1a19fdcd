#include "diagnostics/formatted_timer.h"

#include <chrono>
#include <cstdio>

std::vector<FormattedTimer::Info>* FormattedTimer::s_vecInfos = nullptr;

namespace {

long long steadyNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

FormattedTimer::FormattedTimer() : start(0), end(0) {}

FormattedTimer::~FormattedTimer() {}

void FormattedTimer::init() {
    if (s_vecInfos == nullptr) s_vecInfos = new std::vector<Info>();
}

void FormattedTimer::uninit() {
    delete s_vecInfos;
    s_vecInfos = nullptr;
}

void FormattedTimer::tic() { start = steadyNanoseconds(); }

void FormattedTimer::toc(const char* label1, const char* label2) {
    if (s_vecInfos == nullptr) return;
    end = steadyNanoseconds();
    // Whole microseconds first, then milliseconds.
    const float ms = static_cast<float>(((end - start) / 1000) / 1000.0);
    s_vecInfos->push_back(Info{label2 != nullptr ? label2 : "", label1 != nullptr ? label1 : "", ms});
}

void FormattedTimer::print() {
    if (s_vecInfos == nullptr || s_vecInfos->empty()) return;
    size_t width2 = 0, width1 = 0;
    for (const Info& info : *s_vecInfos) {
        if (info.label2.size() > width2) width2 = info.label2.size();
        if (info.label1.size() > width1) width1 = info.label1.size();
    }
    for (Info& info : *s_vecInfos) {
        info.label2.resize(width2, ' ');
        info.label1.resize(width1, ' ');
        std::printf("%s|%s| time: |%7.2f ms|\n", info.label2.c_str(), info.label1.c_str(), static_cast<double>(info.ms));
    }
    std::fflush(stdout);
}

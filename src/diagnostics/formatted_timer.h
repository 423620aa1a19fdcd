#pragma once

#include <string>
#include <vector>

#include "imgcore/kep_export.h"

// Wall-clock stage timer collecting labelled intervals in one class-wide list that
// prints as an aligned table. Timing is switched on by init() and off by uninit():
// toc() without a list does nothing. The list is not guarded: init, uninit, toc
// and print must not run concurrently.
class KEP_API FormattedTimer {
public:
    struct Info {
        std::string label2;
        std::string label1;
        float ms;
    };

    FormattedTimer();
    ~FormattedTimer();

    static void init();
    static void uninit();
    void tic();
    // Records the interval since tic() as { label2, label1, ms }; null labels
    // become empty strings.
    void toc(const char* label1, const char* label2);
    // Prints every entry as "label2|label1| time: |%7.2f ms|", labels padded to
    // the longest of their column (the stored labels keep the padding).
    static void print();

    static std::vector<Info>* s_vecInfos;
    long long start;  // steady-clock nanoseconds
    long long end;
};

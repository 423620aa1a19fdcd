#include "diagnostics/platform_log.h"

#if defined(__ANDROID__)
#include <android/log.h>
#else
#include <cstdio>
#endif

namespace {
constexpr const char* kLogTag = "QUNO_ALGO";
}

void logInfo(const char* message) {
#if defined(__ANDROID__)
    __android_log_print(ANDROID_LOG_INFO, kLogTag, "%s", message);
#else
    std::fprintf(stderr, "I/%s: %s\n", kLogTag, message);
#endif
}

// Raw dump reader: fuzzer-chosen file content and size arguments. The content is
// written to a private temporary file; the reader must fill exactly width x height
// samples (low byte first, zeros past a short file), never touch dst when the file
// is missing, and a dump written back with WriteRawFile must read as the 10-bit cut
// of the samples. The sample count is the product width * height, as the dump
// format defines it (two negative sides make a positive count); dst has exactly
// that many samples, none for a product <= 0.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "diagnostics/raw_file.h"
#include "fuzz_support.h"

namespace {

std::string scratchPath(const char* tag) {
    const char* dir = std::getenv("TMPDIR");
    return std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/kep-fuzz-raw-" + std::to_string(getpid()) +
           "-" + tag;
}

bool writeFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) return false;
    const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return std::fclose(f) == 0 && ok;
}

// Per-process scratch files, removed when the fuzzer exits.
struct ScratchFiles {
    std::string content = scratchPath("in"), roundTrip = scratchPath("out"), missing = scratchPath("missing");
    ~ScratchFiles() {
        std::remove(content.c_str());
        std::remove(roundTrip.c_str());
    }
};

constexpr short kUntouched = 0x5A5A;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const ScratchFiles files;
    const std::string& content = files.content;
    const std::string& roundTrip = files.roundTrip;
    const std::string& missing = files.missing;
    FuzzedDataProvider fdp(data, size);
    const int width = fdp.ConsumeIntegralInRange<int>(-3, 64);
    const int height = fdp.ConsumeIntegralInRange<int>(-3, 48);
    const bool fileMissing = fdp.ConsumeIntegralInRange<int>(0, 15) == 0;
    const std::vector<uint8_t> bytes = fdp.ConsumeRemainingBytes<uint8_t>();

    const int product = width * height;
    const size_t samples = product > 0 ? static_cast<size_t>(product) : 0;
    fuzz::TightBuffer<short> dst(samples);
    for (size_t i = 0; i < samples; ++i) dst[i] = kUntouched;

    if (fileMissing) {
        std::remove(missing.c_str());
        ReadRawFile(missing.c_str(), dst.data(), width, height);
        for (size_t i = 0; i < samples; ++i) FUZZ_CHECK(dst[i] == kUntouched);
        return 0;
    }

    if (!writeFile(content, bytes)) return 0;
    ReadRawFile(content.c_str(), dst.data(), width, height);
    for (size_t i = 0; i < samples; ++i) {
        const unsigned lo = 2 * i < bytes.size() ? bytes[2 * i] : 0u;
        const unsigned hi = 2 * i + 1 < bytes.size() ? bytes[2 * i + 1] : 0u;
        FUZZ_CHECK(static_cast<uint16_t>(dst[i]) == (lo | (hi << 8)));
    }

    // Round trip through the writer (a negative product is outside its contract: it
    // throws when it cannot allocate the dump).
    if (product >= 0) {
        WriteRawFile(roundTrip.c_str(), dst.data(), width, height);
        fuzz::TightBuffer<short> back(samples);
        ReadRawFile(roundTrip.c_str(), back.data(), width, height);
        for (size_t i = 0; i < samples; ++i) FUZZ_CHECK(back[i] == (dst[i] & 0x3FF));
    }
    return 0;
}

#include "diagnostics/raw_file.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

namespace {

// Byte count of a width x height dump, or -1 when it is negative or does not fit
// the 32-bit size the format uses.
long long dumpBytes(int width, int height) {
    const long long bytes = static_cast<long long>(width) * height * 2;
    return (bytes < 0 || bytes > INT32_MAX) ? -1 : bytes;
}

}  // namespace

void ReadRawFile(const char* path, short* dst, int width, int height) {
    std::FILE* file = std::fopen(path, "rb");
    if (file == nullptr) {
        std::printf("can not open the raw image");
        std::fflush(stdout);
        return;
    }
    std::printf("open OK\n");
    std::printf("begin read\n");
    std::fflush(stdout);
    const long long bytes = dumpBytes(width, height);
    if (bytes > 0) {
        std::unique_ptr<unsigned char, decltype(&std::free)> buffer(
            static_cast<unsigned char*>(std::calloc(static_cast<size_t>(bytes), 1)), &std::free);
        if (buffer) {
            (void)std::fread(buffer.get(), 1, static_cast<size_t>(bytes), file);
            const unsigned char* b = buffer.get();
            for (long long i = 0; i < bytes / 2; ++i)
                dst[i] = static_cast<short>(static_cast<uint16_t>(b[2 * i] | (b[2 * i + 1] << 8)));
        }
    }
    std::fclose(file);
}

void WriteRawFile(const char* path, short* src, int width, int height) {
    const long long bytes = dumpBytes(width, height);
    if (bytes < 0) throw std::bad_alloc();  // an impossible size cannot be allocated
    std::unique_ptr<unsigned char[]> buffer(new unsigned char[static_cast<size_t>(bytes)]);
    for (long long i = 0; i < bytes / 2; ++i) {
        const uint16_t v = static_cast<uint16_t>(src[i]);
        buffer[2 * i] = static_cast<unsigned char>(v & 0xFF);
        buffer[2 * i + 1] = static_cast<unsigned char>((v >> 8) & 0x03);  // cut to 10 bits
    }
    std::FILE* file = std::fopen(path, "wb");
    if (file == nullptr) return;
    std::fwrite(buffer.get(), 1, static_cast<size_t>(bytes), file);
    std::fclose(file);
}

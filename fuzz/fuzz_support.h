#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

// Helpers shared by the fuzz targets.
namespace fuzz {

// A heap block of exactly `count` elements (none for 0): AddressSanitizer reports
// any access one element past either end.
template <typename T>
class TightBuffer {
public:
    explicit TightBuffer(size_t count) : count_(count), data_(new T[count]) {}
    T* data() { return data_.get(); }
    const T* data() const { return data_.get(); }
    size_t size() const { return count_; }
    T& operator[](size_t i) { return data_[i]; }
    const T& operator[](size_t i) const { return data_[i]; }

private:
    size_t count_;
    std::unique_ptr<T[]> data_;
};

// memcmp equality that accepts empty (possibly null) ranges.
inline bool sameBytes(const void* a, const void* b, size_t bytes) {
    return bytes == 0 || std::memcmp(a, b, bytes) == 0;
}

// A broken property is a crash for the fuzzer.
[[noreturn]] inline void fail(const char* what, const char* file, int line) {
    std::fprintf(stderr, "%s:%d: check failed: %s\n", file, line, what);
    std::abort();
}

}  // namespace fuzz

#define FUZZ_CHECK(cond) ((cond) ? (void)0 : fuzz::fail(#cond, __FILE__, __LINE__))

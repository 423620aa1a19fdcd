#pragma once

#include "imgcore/kep_export.h"

// Headerless raw dumps: width x height samples, two bytes each, low byte first.

// Reads a dump into dst. A file that cannot be opened prints "can not open the raw
// image" (no line end) and leaves dst untouched; otherwise "open OK" and "begin
// read" are printed. A short file leaves the rest of dst at 0.
KEP_API void ReadRawFile(const char* path, short* dst, int width, int height);

// Writes src cut to 10 bits (high byte masked with 3), creating or truncating the
// file. Nothing is written, and nothing reported, when the file cannot be opened.
KEP_API void WriteRawFile(const char* path, short* src, int width, int height);

#pragma once

#include <string>

// Minimal uncompressed CFA DNG writer (libtiff): one 16-bit Bayer image in IFD 0
// with its pattern, per-site black levels (BlackLevelRepeatDim 2x2), white level
// and optional as-shot neutral. kepraw writes its DNG results with it and the
// tests build their DNG fixtures with it.
namespace kepraw {

struct DngOptions {
    int pattern = 0;                  // Bayer code 0..3
    int black[4] = {64, 64, 64, 64};  // per site: top-left, top-right, bottom-left, bottom-right
    int white = 1023;
    float asShotNeutral[3] = {0, 0, 0};  // written when all three are positive
    const char* model = "synthetic";
    // Fixture knobs for files kepraw must refuse: a CFA repeat pattern other than
    // 2x2 (the 2x2 pattern is tiled over it).
    int cfaRepeatRows = 2;
    int cfaRepeatCols = 2;
};

// Writes width x height samples (row-major) to `path`. Throws std::runtime_error
// when the file cannot be written.
void writeDng(const std::string& path, const unsigned short* samples, int width, int height, const DngOptions& options);

}  // namespace kepraw

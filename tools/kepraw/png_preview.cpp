#include "png_preview.h"

#include <png.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "synthetic_scene.h"

namespace kepraw {

namespace {

float srgbEncode(float linear) {
    return linear <= 0.0031308f ? 12.92f * linear : 1.055f * std::pow(linear, 1.0f / 2.4f) - 0.055f;
}

// Linear values in [0, 1+] per sample: black removed per site, divided by the
// site's range to white.
std::vector<float> normalise(const short* raw, int width, int height, const PreviewOptions& o) {
    std::vector<float> lin(static_cast<size_t>(width) * height);
    float scale[4];
    for (int s = 0; s < 4; ++s) scale[s] = 1.0f / static_cast<float>(std::max(1, o.white - o.black[s]));
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const size_t i = static_cast<size_t>(y) * width + x;
            const int s = (y & 1) * 2 + (x & 1);
            lin[i] = std::max(0, raw[i] - o.black[s]) * scale[s];
        }
    return lin;
}

void grayWorld(const std::vector<float>& lin, int width, int height, int pattern, float& red, float& blue) {
    double sum[3] = {0, 0, 0};
    long count[3] = {0, 0, 0};
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const int c = kep::synth::bayerChannel(pattern, x, y);
            sum[c] += lin[static_cast<size_t>(y) * width + x];
            ++count[c];
        }
    const double mean[3] = {sum[0] / std::max(1L, count[0]), sum[1] / std::max(1L, count[1]),
                            sum[2] / std::max(1L, count[2])};
    auto gain = [&](double m) { return m > 0 ? static_cast<float>(std::min(4.0, std::max(0.25, mean[1] / m))) : 1.0f; };
    red = gain(mean[0]);
    blue = gain(mean[2]);
}

}  // namespace

Preview renderPreview(const short* raw, int width, int height, const PreviewOptions& o) {
    Preview p;
    p.width = width;
    p.height = height;
    const std::vector<float> lin = normalise(raw, width, height, o);
    p.redGain = o.redGain;
    p.blueGain = o.blueGain;
    if (!(o.redGain > 0) || !(o.blueGain > 0)) grayWorld(lin, width, height, o.pattern, p.redGain, p.blueGain);
    const float gains[3] = {p.redGain, 1.0f, p.blueGain};

    p.exposure = o.exposure;
    if (!(o.exposure > 0)) {
        std::vector<float> greens;
        greens.reserve(lin.size() / 2);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                if (kep::synth::bayerChannel(o.pattern, x, y) == 1)
                    greens.push_back(lin[static_cast<size_t>(y) * width + x]);
        float level = 0.0f;
        if (!greens.empty()) {
            const size_t k = std::min(greens.size() - 1, greens.size() * 995 / 1000);
            std::nth_element(greens.begin(), greens.begin() + static_cast<long>(k), greens.end());
            level = greens[k];
        }
        p.exposure = level > 0.0f ? std::min(16.0f, std::max(1.0f, 1.0f / level)) : 1.0f;
    }

    // sRGB encoding through a table of 4096 steps of the clamped linear value.
    std::vector<uint8_t> encode(4096);
    for (int i = 0; i < 4096; ++i) encode[i] = static_cast<uint8_t>(std::lround(255.0f * srgbEncode(i / 4095.0f)));

    // Bilinear demosaic: a missing colour is the mean of the same-colour samples
    // in the 3x3 neighbourhood (two or four of them on a Bayer mosaic).
    p.rgb.assign(static_cast<size_t>(width) * height * 3, 0);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            float sum[3] = {0, 0, 0};
            int count[3] = {0, 0, 0};
            const int own = kep::synth::bayerChannel(o.pattern, x, y);
            for (int dy = -1; dy <= 1; ++dy) {
                const int yy = y + dy;
                if (yy < 0 || yy >= height) continue;
                for (int dx = -1; dx <= 1; ++dx) {
                    const int xx = x + dx;
                    if (xx < 0 || xx >= width) continue;
                    const int c = kep::synth::bayerChannel(o.pattern, xx, yy);
                    if (c == own && (dx || dy)) continue;
                    sum[c] += lin[static_cast<size_t>(yy) * width + xx];
                    ++count[c];
                }
            }
            uint8_t* out = &p.rgb[(static_cast<size_t>(y) * width + x) * 3];
            for (int c = 0; c < 3; ++c) {
                const float v = count[c] ? sum[c] / count[c] * gains[c] * p.exposure : 0.0f;
                out[c] = encode[static_cast<size_t>(std::lround(4095.0f * std::min(1.0f, std::max(0.0f, v))))];
            }
        }
    }
    return p;
}

Preview weightPicture(const std::vector<uint8_t>& map, int width, int height) {
    Preview p;
    p.width = width;
    p.height = height;
    p.rgb.resize(static_cast<size_t>(width) * height * 3);
    for (size_t i = 0; i < static_cast<size_t>(width) * height; ++i)
        p.rgb[3 * i] = p.rgb[3 * i + 1] = p.rgb[3 * i + 2] = map[i];
    return p;
}

void writePng(const std::string& path, const Preview& preview) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!png || !info) {
        png_destroy_write_struct(&png, nullptr);
        std::fclose(f);
        throw std::runtime_error("cannot write " + path + ": out of memory");
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        std::fclose(f);
        throw std::runtime_error("cannot write " + path);
    }
    png_init_io(png, f);
    png_set_IHDR(png, info, static_cast<png_uint_32>(preview.width), static_cast<png_uint_32>(preview.height), 8,
                 PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_sRGB(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
    png_set_compression_level(png, 3);
    png_write_info(png, info);
    for (int y = 0; y < preview.height; ++y)
        png_write_row(png, const_cast<png_bytep>(&preview.rgb[static_cast<size_t>(y) * preview.width * 3]));
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    if (std::fclose(f) != 0) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
}

}  // namespace kepraw

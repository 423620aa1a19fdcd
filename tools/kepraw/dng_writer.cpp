#include "dng_writer.h"

#include <tiffio.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include "synthetic_scene.h"

namespace kepraw {

namespace {

constexpr uint16_t kPhotometricCfa = 32803;
constexpr uint32_t kRowsPerStrip = 64;

}  // namespace

void writeDng(const std::string& path, const unsigned short* samples, int width, int height, const DngOptions& o) {
    TIFFSetErrorHandler(nullptr);
    TIFFSetWarningHandler(nullptr);
    std::unique_ptr<TIFF, void (*)(TIFF*)> owner(TIFFOpen(path.c_str(), "w"), [](TIFF* t) {
        if (t) TIFFClose(t);
    });
    TIFF* tif = owner.get();
    if (!tif) throw std::runtime_error("cannot create DNG file " + path);

    TIFFSetField(tif, TIFFTAG_SUBFILETYPE, 0);
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(width));
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(height));
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 16);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, kPhotometricCfa);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, kRowsPerStrip);
    TIFFSetField(tif, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
    TIFFSetField(tif, TIFFTAG_MAKE, "kepraw");
    TIFFSetField(tif, TIFFTAG_MODEL, o.model);
    TIFFSetField(tif, TIFFTAG_SOFTWARE, "kepraw");

    // Colour filter layout: CFA colour codes 0 red, 1 green, 2 blue, the 2x2
    // quad of the pattern tiled over the repeat dimensions.
    const uint16_t repeat[2] = {static_cast<uint16_t>(o.cfaRepeatRows), static_cast<uint16_t>(o.cfaRepeatCols)};
    std::vector<uint8_t> cfa(static_cast<size_t>(o.cfaRepeatRows) * o.cfaRepeatCols);
    for (int r = 0; r < o.cfaRepeatRows; ++r)
        for (int c = 0; c < o.cfaRepeatCols; ++c)
            cfa[static_cast<size_t>(r) * o.cfaRepeatCols + c] =
                static_cast<uint8_t>(kep::synth::bayerChannel(o.pattern, c, r));
    TIFFSetField(tif, TIFFTAG_CFAREPEATPATTERNDIM, repeat);
    TIFFSetField(tif, TIFFTAG_CFAPATTERN, static_cast<uint16_t>(cfa.size()), cfa.data());
    const uint8_t planeColor[3] = {0, 1, 2};
    TIFFSetField(tif, TIFFTAG_CFAPLANECOLOR, static_cast<uint16_t>(3), planeColor);
    TIFFSetField(tif, TIFFTAG_CFALAYOUT, static_cast<uint16_t>(1));

    const uint8_t version[4] = {1, 4, 0, 0}, backward[4] = {1, 1, 0, 0};
    TIFFSetField(tif, TIFFTAG_DNGVERSION, version);
    TIFFSetField(tif, TIFFTAG_DNGBACKWARDVERSION, backward);
    TIFFSetField(tif, TIFFTAG_UNIQUECAMERAMODEL, o.model);

    const uint16_t blackRepeat[2] = {2, 2};
    const float black[4] = {static_cast<float>(o.black[0]), static_cast<float>(o.black[1]),
                            static_cast<float>(o.black[2]), static_cast<float>(o.black[3])};
    TIFFSetField(tif, TIFFTAG_BLACKLEVELREPEATDIM, blackRepeat);
    TIFFSetField(tif, TIFFTAG_BLACKLEVEL, static_cast<uint16_t>(4), black);
    const uint32_t white = static_cast<uint32_t>(o.white);
    TIFFSetField(tif, TIFFTAG_WHITELEVEL, static_cast<uint16_t>(1), &white);

    // The camera space is linear sRGB: ColorMatrix1 maps XYZ (D65) to it.
    const float xyzToCamera[9] = {3.2406f, -1.5372f, -0.4986f, -0.9689f, 1.8758f, 0.0415f, 0.0557f, -0.2040f, 1.0570f};
    TIFFSetField(tif, TIFFTAG_COLORMATRIX1, static_cast<uint16_t>(9), xyzToCamera);
    TIFFSetField(tif, TIFFTAG_CALIBRATIONILLUMINANT1, static_cast<uint16_t>(21));
    if (o.asShotNeutral[0] > 0 && o.asShotNeutral[1] > 0 && o.asShotNeutral[2] > 0)
        TIFFSetField(tif, TIFFTAG_ASSHOTNEUTRAL, static_cast<uint16_t>(3), o.asShotNeutral);

    // Directory first, image data after it, as cameras lay out their files.
    if (!TIFFCheckpointDirectory(tif)) throw std::runtime_error("cannot write DNG file " + path);
    std::vector<uint16_t> row(static_cast<size_t>(width));
    for (int y = 0; y < height; ++y) {
        std::copy(samples + static_cast<size_t>(y) * width, samples + static_cast<size_t>(y + 1) * width, row.begin());
        if (TIFFWriteScanline(tif, row.data(), static_cast<uint32_t>(y), 0) < 0)
            throw std::runtime_error("cannot write DNG file " + path);
    }
    if (!TIFFWriteDirectory(tif)) throw std::runtime_error("cannot write DNG file " + path);
    TIFF* done = owner.release();
    TIFFClose(done);
}

}  // namespace kepraw

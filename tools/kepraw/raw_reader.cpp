#include "raw_reader.h"

#include <libraw/libraw.h>
#include <sys/stat.h>
#include <tiffio.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "cli.h"

namespace kepraw {

namespace {

// Camera-raw extensions that LibRaw reads; files with these names never go the
// headerless way even when their signature is unknown.
const char* const kCameraRawExtensions[] = {"dng", "cr2", "cr3", "crw", "nef", "nrw", "arw", "srf", "sr2",
                                            "orf", "rw2", "raf", "pef", "srw", "3fr", "erf", "kdc", "dcr",
                                            "mos", "mef", "mrw", "x3f", "iiq", "rwl", "gpr"};

constexpr unsigned short kPhotometricCfa = 32803;

std::string lowerExtension(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    const size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
    std::string ext = path.substr(dot + 1);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

bool startsWith(const unsigned char* head, size_t size, const char* magic, size_t magicSize, size_t offset = 0) {
    return size >= offset + magicSize && std::memcmp(head + offset, magic, magicSize) == 0;
}

// A regular, readable file and its size; anything else is refused by name.
long long checkedFileSize(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        if (errno == ENOENT) throw InputError(path + ": file not found");
        throw InputError(path + ": cannot read: " + std::strerror(errno));
    }
    if (S_ISDIR(st.st_mode)) throw InputError(path + ": is a directory, not a raw file");
    if (!S_ISREG(st.st_mode)) throw InputError(path + ": not a regular file");
    return static_cast<long long>(st.st_size);
}

struct FileCloser {
    void operator()(FILE* f) const {
        if (f) std::fclose(f);
    }
};
using File = std::unique_ptr<FILE, FileCloser>;

File openForReading(const std::string& path) {
    File f(std::fopen(path.c_str(), "rb"));
    if (!f) throw InputError(path + ": cannot read: " + std::strerror(errno));
    return f;
}

void applyLevels(RawImage& image, const std::vector<unsigned short>& stored) {
    const size_t n = stored.size();
    image.samples.resize(n);
    const int white = image.fileWhite;
    image.scaled = white > 1023;
    int lo = 65535, hi = 0;
    long clamped = 0;
    for (size_t i = 0; i < n; ++i) {
        const int v = stored[i];
        lo = std::min(lo, v);
        hi = std::max(hi, v);
        int out = v;
        if (v > (image.scaled ? white : 1023)) {
            ++clamped;
            out = 1023;
        } else if (image.scaled) {
            out = scaleTo10Bits(v, white);
        }
        image.samples[i] = static_cast<short>(out);
    }
    image.fileMin = n ? lo : 0;
    image.fileMax = n ? hi : 0;
    image.clampedCount = clamped;
    for (int s = 0; s < 4; ++s)
        image.black[s] = image.scaled ? scaleTo10Bits(image.fileBlack[s], white) : image.fileBlack[s];
}

int bitsFor(int white) {
    int bits = 1;
    while (bits < 16 && (1 << bits) - 1 < white) ++bits;
    return bits;
}

RawImage readHeaderless(const std::string& path, long long fileSize, const ReadOptions& options) {
    if (options.width <= 0 || options.height <= 0)
        throw InputError(path + format(": headerless raw file (%lld bytes) needs --size WIDTHxHEIGHT", fileSize));
    const long long expected = 2LL * options.width * options.height;
    if (fileSize != expected)
        throw InputError(path + format(": file size %lld bytes does not match --size %dx%d (%lld bytes expected)",
                                       fileSize, options.width, options.height, expected));
    RawImage image;
    image.path = path;
    image.format = RawFormat::Headerless;
    image.width = options.width;
    image.height = options.height;
    image.fileWhite = (1 << options.bits) - 1;
    image.fileBits = options.bits;

    std::vector<unsigned char> bytes(static_cast<size_t>(expected));
    File f = openForReading(path);
    if (std::fread(bytes.data(), 1, bytes.size(), f.get()) != bytes.size())
        throw InputError(path + ": cannot read the whole file");
    std::vector<unsigned short> stored(bytes.size() / 2);
    for (size_t i = 0; i < stored.size(); ++i)
        stored[i] = static_cast<unsigned short>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
    applyLevels(image, stored);
    return image;
}

// Looks at the CFA image directories with libtiff before LibRaw decodes the file:
// LibRaw takes CFA repeat patterns it does not support for 2x2 ones, and a
// truncated file may decode without an error.
void checkTiffCfaDirectories(const std::string& path, long long fileSize) {
    TIFFSetErrorHandler(nullptr);
    TIFFSetWarningHandler(nullptr);
    std::unique_ptr<TIFF, void (*)(TIFF*)> tif(TIFFOpen(path.c_str(), "rm"), [](TIFF* t) {
        if (t) TIFFClose(t);
    });
    if (!tif) return;  // not a plain TIFF layout: LibRaw decides

    auto inspect = [&](TIFF* t) {
        uint16_t photometric = 0;
        if (!TIFFGetField(t, TIFFTAG_PHOTOMETRIC, &photometric) || photometric != kPhotometricCfa) return;
        uint16_t* dim = nullptr;
        if (TIFFGetField(t, TIFFTAG_CFAREPEATPATTERNDIM, &dim) && dim && (dim[0] != 2 || dim[1] != 2))
            throw InputError(
                path +
                format(": CFA pattern repeats every %ux%u sites; only 2x2 Bayer mosaics can be read", dim[0], dim[1]));
        const bool tiled = TIFFIsTiled(t) != 0;
        const uint32_t count = tiled ? TIFFNumberOfTiles(t) : TIFFNumberOfStrips(t);
        uint64_t* offsets = nullptr;
        uint64_t* sizes = nullptr;
        if (!TIFFGetField(t, tiled ? TIFFTAG_TILEOFFSETS : TIFFTAG_STRIPOFFSETS, &offsets) ||
            !TIFFGetField(t, tiled ? TIFFTAG_TILEBYTECOUNTS : TIFFTAG_STRIPBYTECOUNTS, &sizes) || !offsets || !sizes)
            return;
        for (uint32_t i = 0; i < count; ++i) {
            const unsigned long long end = static_cast<unsigned long long>(offsets[i]) + sizes[i];
            if (end > static_cast<unsigned long long>(fileSize))
                throw InputError(path + format(": file is truncated (image data ends at byte %llu, the file has %lld)",
                                               end, fileSize));
        }
    };

    std::vector<uint64_t> subDirectories;
    int directories = 0;
    do {
        inspect(tif.get());
        uint16_t n = 0;
        uint64_t* offsets = nullptr;
        if (TIFFGetField(tif.get(), TIFFTAG_SUBIFD, &n, &offsets) && offsets)
            subDirectories.insert(subDirectories.end(), offsets, offsets + n);
    } while (++directories < 64 && TIFFReadDirectory(tif.get()));
    for (size_t i = 0; i < subDirectories.size() && i < 64; ++i)
        if (TIFFSetSubDirectory(tif.get(), subDirectories[i])) inspect(tif.get());
}

RawImage readWithLibRaw(const std::string& path, long long fileSize, RawFormat guess) {
    if (guess == RawFormat::Dng || guess == RawFormat::CameraRaw) checkTiffCfaDirectories(path, fileSize);

    std::unique_ptr<LibRaw> raw(new LibRaw(LIBRAW_OPTIONS_NONE));
    int rc = raw->open_file(path.c_str());
    if (rc != LIBRAW_SUCCESS) throw InputError(path + ": cannot decode as DNG/camera raw: " + libraw_strerror(rc));
    rc = raw->unpack();
    if (rc != LIBRAW_SUCCESS) throw InputError(path + ": cannot decode the raw data: " + libraw_strerror(rc));

    const libraw_data_t& d = raw->imgdata;
    RawImage image;
    image.path = path;
    image.format = d.idata.dng_version ? RawFormat::Dng : RawFormat::CameraRaw;
    image.camera = std::string(d.idata.make) + (d.idata.make[0] && d.idata.model[0] ? " " : "") + d.idata.model;
    if (!d.rawdata.raw_image || d.idata.filters < 1000)
        throw InputError(path + ": not a 2x2 Bayer mosaic (only single-channel Bayer raw data can be processed)");

    // The colour of each site of the first quad, and a check that the mosaic
    // repeats every two rows and columns.
    char site[4];
    for (int s = 0; s < 4; ++s) {
        const int c = raw->COLOR(s / 2, s % 2);
        site[s] = (c >= 0 && c < 4) ? d.idata.cdesc[c] : '?';
    }
    for (int r = 0; r < 8; ++r)
        for (int c = 0; c < 2; ++c)
            if (raw->COLOR(r, c) != raw->COLOR(r % 2, c))
                throw InputError(path + ": CFA pattern does not repeat every 2x2 sites");
    const std::string quad(site, 4);
    static const char* const kQuads[4] = {"RGGB", "BGGR", "GRBG", "GBRG"};
    for (int code = 0; code < 4; ++code)
        if (quad == kQuads[code]) image.pattern = code;
    if (image.pattern < 0) throw InputError(path + ": unsupported colour filter layout " + quad);

    const int width = d.sizes.width, height = d.sizes.height;
    if (width <= 0 || height <= 0 || width > kMaxSide || height > kMaxSide)
        throw InputError(path + format(": unsupported frame size %dx%d", width, height));
    image.width = width;
    image.height = height;

    // Black per site: the common level, the per-colour part and the repeating
    // pattern part (cblack[4] x cblack[5] values from cblack[6]).
    const unsigned* cb = d.color.cblack;
    const unsigned rows = cb[4], cols = cb[5];
    if (rows * cols > LIBRAW_CBLACK_SIZE - 6) throw InputError(path + ": black-level pattern too large");
    auto patternPart = [&](unsigned r, unsigned c) { return rows && cols ? cb[6 + (r % rows) * cols + c % cols] : 0u; };
    for (unsigned r = 0; r < rows; ++r)
        for (unsigned c = 0; c < cols; ++c)
            if (patternPart(r, c) != patternPart(r % 2, c % 2))
                throw InputError(path + ": black levels do not repeat every 2x2 sites");
    for (int s = 0; s < 4; ++s) {
        const unsigned b = d.color.black + cb[raw->COLOR(s / 2, s % 2)] + patternPart(s / 2, s % 2);
        image.fileBlack[s] = static_cast<int>(std::min(b, 65535u));
    }
    image.hasBlack = true;

    std::vector<unsigned short> stored(static_cast<size_t>(width) * height);
    const size_t pitch = d.sizes.raw_pitch / 2;
    for (int y = 0; y < height; ++y) {
        const unsigned short* row =
            d.rawdata.raw_image + (static_cast<size_t>(y) + d.sizes.top_margin) * pitch + d.sizes.left_margin;
        std::copy(row, row + width, stored.begin() + static_cast<size_t>(y) * width);
    }
    int white = static_cast<int>(std::min(d.color.maximum, 65535u));
    if (white <= 0) white = *std::max_element(stored.begin(), stored.end());
    image.fileWhite = std::max(white, 1);
    image.fileBits = bitsFor(image.fileWhite);
    for (int s = 0; s < 4; ++s)
        if (image.fileBlack[s] >= image.fileWhite)
            throw InputError(
                path + format(": black level %d is not below the white level %d", image.fileBlack[s], image.fileWhite));

    if (d.color.cam_mul[0] > 0.0f && d.color.cam_mul[1] > 0.0f && d.color.cam_mul[2] > 0.0f) {
        image.asShotRedGain = d.color.cam_mul[0] / d.color.cam_mul[1];
        image.asShotBlueGain = d.color.cam_mul[2] / d.color.cam_mul[1];
    }
    applyLevels(image, stored);
    return image;
}

}  // namespace

const char* formatName(RawFormat format) {
    switch (format) {
        case RawFormat::Headerless:
            return "headerless 16-bit little-endian raw";
        case RawFormat::Dng:
            return "DNG";
        case RawFormat::CameraRaw:
            return "camera raw";
    }
    return "?";
}

int scaleTo10Bits(int value, int white) {
    if (white <= 1023) return value;
    const long long v = std::max(0, std::min(value, white));
    return static_cast<int>((v * 1023 + white / 2) / white);
}

RawFormat detectFormat(const std::string& path, const unsigned char* head, size_t headSize) {
    if (startsWith(head, headSize, "II*\0", 4) || startsWith(head, headSize, "MM\0*", 4)) {
        return lowerExtension(path) == "dng" ? RawFormat::Dng : RawFormat::CameraRaw;
    }
    // Non-TIFF camera formats: Fujifilm, Olympus, Panasonic, Canon CRW/CR3,
    // Minolta, Sigma.
    if (startsWith(head, headSize, "FUJIFILM", 8) || startsWith(head, headSize, "IIRO", 4) ||
        startsWith(head, headSize, "IIRS", 4) || startsWith(head, headSize, "MMOR", 4) ||
        startsWith(head, headSize, "IIU\0", 4) || startsWith(head, headSize, "HEAPCCDR", 8, 6) ||
        startsWith(head, headSize, "ftypcrx ", 8, 4) || startsWith(head, headSize, "\0MRM", 4) ||
        startsWith(head, headSize, "FOVb", 4))
        return RawFormat::CameraRaw;
    const std::string ext = lowerExtension(path);
    for (const char* known : kCameraRawExtensions)
        if (ext == known) return ext == "dng" ? RawFormat::Dng : RawFormat::CameraRaw;
    return RawFormat::Headerless;
}

RawImage readRawFile(const std::string& path, const ReadOptions& options) {
    const long long fileSize = checkedFileSize(path);
    unsigned char head[16] = {};
    size_t headSize = 0;
    {
        File f = openForReading(path);
        headSize = std::fread(head, 1, sizeof head, f.get());
    }
    if (fileSize == 0) throw InputError(path + ": file is empty");
    const RawFormat kind = detectFormat(path, head, headSize);
    RawImage image =
        kind == RawFormat::Headerless ? readHeaderless(path, fileSize, options) : readWithLibRaw(path, fileSize, kind);
    if (kind != RawFormat::Headerless && options.width > 0 &&
        (options.width != image.width || options.height != image.height))
        throw InputError(path + format(": frame is %dx%d, not --size %dx%d", image.width, image.height, options.width,
                                       options.height));
    return image;
}

std::vector<std::string> readingNotes(const RawImage& image) {
    std::vector<std::string> notes;
    if (image.scaled)
        notes.push_back(image.path +
                        format(": %d-bit data (white level %d) scaled to 10 bits: v' = round(v * 1023 / %d)",
                               image.fileBits, image.fileWhite, image.fileWhite));
    if (image.clampedCount > 0)
        notes.push_back(image.path + format(": warning: %ld samples above the %s (%d) clamped to 1023",
                                            image.clampedCount, image.scaled ? "white level" : "10-bit range",
                                            image.scaled ? image.fileWhite : 1023));
    return notes;
}

}  // namespace kepraw

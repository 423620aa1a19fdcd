// Reading and writing raw files, the 10-bit rule, argument parsing, previews and
// the per-frame analysis of a night result, tested on the tool's own modules.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "cli.h"
#include "png_preview.h"
#include "raw_reader.h"
#include "test_support.h"

namespace {

using kepraw::InputError;
using kepraw_test::TempDir;

std::vector<short> randomFrame(int width, int height, int lo, int hi, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> d(lo, hi);
    std::vector<short> f(static_cast<size_t>(width) * height);
    for (short& v : f) v = static_cast<short>(d(rng));
    return f;
}

// The message of the InputError thrown by `f`, or "" when none is thrown.
template <typename F>
std::string inputError(F f) {
    try {
        f();
    } catch (const InputError& e) {
        return e.what();
    }
    return "";
}

TEST(RawReader, DngRoundTripThroughLibRawKeepsEverySampleAndSiteLevel) {
    TempDir dir;
    const int w = 64, h = 48;
    const std::vector<short> samples = randomFrame(w, h, 0, 1023, 1);
    for (int pattern = 0; pattern < 4; ++pattern) {
        kepraw::DngOptions o;
        o.pattern = pattern;
        const int black[4] = {60 + pattern, 61, 62, 63};
        std::copy(black, black + 4, o.black);
        o.asShotNeutral[0] = 0.5f, o.asShotNeutral[1] = 1.0f, o.asShotNeutral[2] = 0.8f;
        const std::string path = dir.file("p" + std::to_string(pattern) + ".dng");
        kepraw_test::writeDngFile(path, samples, w, h, o);

        const kepraw::RawImage im = kepraw::readRawFile(path, {});
        EXPECT_EQ(im.format, kepraw::RawFormat::Dng);
        EXPECT_EQ(im.width, w);
        EXPECT_EQ(im.height, h);
        EXPECT_EQ(im.pattern, pattern);
        EXPECT_TRUE(std::equal(black, black + 4, im.fileBlack)) << pattern;
        EXPECT_TRUE(std::equal(black, black + 4, im.black)) << "10-bit data keeps its levels";
        EXPECT_EQ(im.fileWhite, 1023);
        EXPECT_FALSE(im.scaled);
        EXPECT_EQ(im.clampedCount, 0);
        EXPECT_EQ(im.samples, samples) << "pattern " << pattern;
        EXPECT_NEAR(im.asShotRedGain, 2.0f, 1e-3f);
        EXPECT_NEAR(im.asShotBlueGain, 1.25f, 1e-3f);
    }
}

TEST(RawReader, DeeperDataIsScaledToTenBitsAndOutOfRangeValuesAreCountedNotHidden) {
    EXPECT_EQ(kepraw::scaleTo10Bits(0, 4095), 0);
    EXPECT_EQ(kepraw::scaleTo10Bits(4095, 4095), 1023);
    EXPECT_EQ(kepraw::scaleTo10Bits(256, 4095), 64);   // 63.95
    EXPECT_EQ(kepraw::scaleTo10Bits(2, 4095), 0);      // 0.4996 rounds down
    EXPECT_EQ(kepraw::scaleTo10Bits(3, 4095), 1);      // 0.749 rounds up
    EXPECT_EQ(kepraw::scaleTo10Bits(700, 1023), 700);  // 10-bit data is left alone

    TempDir dir;
    const int w = 64, h = 48;  // LibRaw takes nothing below 22 samples a side
    std::vector<short> deep = randomFrame(w, h, 0, 4095, 2);
    deep[5] = 4000;  // above the DNG's white level of 3900
    kepraw::DngOptions o;
    o.white = 3900;
    o.black[0] = o.black[1] = o.black[2] = o.black[3] = 256;
    kepraw_test::writeDngFile(dir.file("deep.dng"), deep, w, h, o);
    const kepraw::RawImage im = kepraw::readRawFile(dir.file("deep.dng"), {});
    EXPECT_TRUE(im.scaled);
    EXPECT_EQ(im.fileBits, 12);
    EXPECT_EQ(im.black[0], (256 * 1023 + 1950) / 3900);
    long above = 0;
    for (size_t i = 0; i < deep.size(); ++i) {
        const int expected = deep[i] > 3900 ? 1023 : (deep[i] * 1023 + 1950) / 3900;
        above += deep[i] > 3900;
        ASSERT_EQ(im.samples[i], expected) << i;
    }
    EXPECT_EQ(im.clampedCount, above);
    const std::vector<std::string> notes = kepraw::readingNotes(im);
    ASSERT_EQ(notes.size(), 2u);
    EXPECT_NE(notes[0].find("scaled to 10 bits"), std::string::npos);
    EXPECT_NE(notes[1].find("clamped to 1023"), std::string::npos);

    // Headerless: 10-bit by default (values above 1023 clamped), --bits 12 scales.
    std::vector<short> raw = randomFrame(w, h, 0, 1023, 3);
    raw[0] = 1024;
    raw[1] = 4095;
    kepraw_test::writeHeaderless(dir.file("a.raw"), raw);
    kepraw::ReadOptions ro;
    ro.width = w;
    ro.height = h;
    const kepraw::RawImage ten = kepraw::readRawFile(dir.file("a.raw"), ro);
    EXPECT_EQ(ten.clampedCount, 2);
    EXPECT_EQ(ten.samples[0], 1023);
    EXPECT_EQ(ten.samples[2], raw[2]);
    ro.bits = 12;
    const kepraw::RawImage twelve = kepraw::readRawFile(dir.file("a.raw"), ro);
    EXPECT_EQ(twelve.clampedCount, 0);
    EXPECT_EQ(twelve.samples[1], 1023);
    EXPECT_EQ(twelve.samples[0], (1024 * 1023 + 2047) / 4095);
}

TEST(RawReader, FormatIsDecidedBeforeAnyDecoder) {
    TempDir dir;
    // A headerless file of a size LibRaw would take for an old camera's format.
    const int w = 2048, h = 1536;
    kepraw_test::writeHeaderless(dir.file("big.raw"), std::vector<short>(static_cast<size_t>(w) * h, 100));
    kepraw::ReadOptions ro;
    ro.width = w;
    ro.height = h;
    const kepraw::RawImage big = kepraw::readRawFile(dir.file("big.raw"), ro);
    EXPECT_EQ(big.format, kepraw::RawFormat::Headerless);
    EXPECT_EQ(big.samples[12345], 100);

    const unsigned char tiff[4] = {'I', 'I', 42, 0};
    EXPECT_EQ(kepraw::detectFormat("x.raw", tiff, 4), kepraw::RawFormat::CameraRaw);
    EXPECT_EQ(kepraw::detectFormat("x.DNG", tiff, 4), kepraw::RawFormat::Dng);
    const unsigned char zeros[4] = {0, 0, 0, 0};
    EXPECT_EQ(kepraw::detectFormat("x.NEF", zeros, 4), kepraw::RawFormat::CameraRaw);
    EXPECT_EQ(kepraw::detectFormat("dir.dng/x.bin", zeros, 4), kepraw::RawFormat::Headerless);

    // Broken and mismatched files are refused end to end by the BadInput table.
    kepraw_test::writeBytes(dir.file("empty.raw"), "");
    EXPECT_NE(inputError([&] { kepraw::readRawFile(dir.file("empty.raw"), ro); }).find("empty"), std::string::npos);
}

TEST(Cli, ParsersTakeWholeValuesAndNameTheOption) {
    using kepraw::parseArgs;
    const std::vector<kepraw::OptionDef> definitions = {{"-o", true}, {"--gain", true}, {"--flag", false}};
    const kepraw::ParsedArgs a = parseArgs({"a", "--gain=2", "-o", "x", "--flag", "--", "--b"}, definitions);
    EXPECT_EQ(a.positional, (std::vector<std::string>{"a", "--b"}));
    EXPECT_EQ(a.value("--gain"), "2");
    EXPECT_EQ(a.value("-o"), "x");
    EXPECT_TRUE(a.has("--flag"));
    const std::pair<std::vector<std::string>, const char*> badArgs[] = {
        {{"--gian", "2"}, "'--gian': unknown option"},
        {{"--gain", "1", "--gain", "2"}, "more than once"},
        {{"-o"}, "-o: option needs a value"},
        {{"--flag=1"}, "takes no value"}};
    for (const auto& [args, message] : badArgs)
        EXPECT_NE(inputError([&] { parseArgs(args, definitions); }).find(message), std::string::npos) << message;
    EXPECT_EQ(kepraw::parseNumber("--gain", "1.5", 0, 64), 1.5);
    for (const char* bad : {"", "abc", "1.5x", " 1", "nan", "inf", "65"})
        EXPECT_NE(inputError([&] { kepraw::parseNumber("--gain", bad, 0, 64); }).find("--gain: '"), std::string::npos)
            << bad;
    EXPECT_EQ(kepraw::parseSize("--size", "640x480").width, 640);
    EXPECT_EQ(kepraw::parseSize("--size", "640X480").height, 480);
    for (const char* bad : {"640", "640x", "x480", "0x480", "-640x480", "640x480x2", "99999x2"})
        EXPECT_NE(inputError([&] { kepraw::parseSize("--size", bad); }).find("is not a size"), std::string::npos)
            << bad;
    EXPECT_EQ(kepraw::parsePattern("--pattern", "GbRg"), 3);
    EXPECT_NE(inputError([&] { kepraw::parsePattern("--pattern", "rgbg"); }).find("not a Bayer pattern"),
              std::string::npos);
    EXPECT_EQ(kepraw::parseIntList("--black", "1,2,3", {1, 3}, 0, 10), (std::vector<int>{1, 2, 3}));
    EXPECT_NE(inputError([&] { kepraw::parseIntList("--black", "1,2", {1, 3}, 0, 10); }).find("expected 1 or 3"),
              std::string::npos);
    EXPECT_NE(inputError([&] { kepraw::parseIntList("--black", "1,,3", {1, 3}, 0, 10); }).find("not an integer"),
              std::string::npos);
}

TEST(Preview, FlatFieldsComeOutNeutralAndBlackStaysBlack) {
    const int w = 16, h = 12;
    // A flat field with red at half and blue at a quarter of green: gray world
    // balances it to gray; the exposure brings it to white.
    std::vector<short> raw(static_cast<size_t>(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const int c = kep::synth::bayerChannel(2, x, y);
            raw[static_cast<size_t>(y) * w + x] = static_cast<short>(64 + (c == 1 ? 400 : c == 0 ? 200 : 100));
        }
    kepraw::PreviewOptions o;
    o.pattern = 2;
    const kepraw::Preview p = kepraw::renderPreview(raw.data(), w, h, o);
    EXPECT_NEAR(p.redGain, 2.0f, 1e-4f);
    EXPECT_NEAR(p.blueGain, 4.0f, 1e-4f);
    for (uint8_t v : p.rgb) ASSERT_EQ(v, 255);

    o.exposure = 1.0f;
    o.redGain = o.blueGain = 1.0f;
    std::fill(raw.begin(), raw.end(), static_cast<short>(30));  // below black
    const kepraw::Preview dark = kepraw::renderPreview(raw.data(), w, h, o);
    for (uint8_t v : dark.rgb) ASSERT_EQ(v, 0);
}


}  // namespace

namespace {

TEST(InfoCommand, TellsWhatIsReadFromDngAndHeaderlessFiles) {
    TempDir dir;
    kepraw::DngOptions o;
    o.pattern = 2;
    o.white = 4095;
    const int black[4] = {256, 260, 252, 258};
    std::copy(black, black + 4, o.black);
    kepraw_test::writeDngFile(dir.file("a.dng"), randomFrame(64, 48, 300, 3000, 7), 64, 48, o);
    std::vector<short> raw = randomFrame(640, 480, 70, 900, 8);
    raw[0] = 64;
    raw[1] = 900;
    kepraw_test::writeHeaderless(dir.file("b.raw"), raw);

    const kepraw_test::RunResult guess = kepraw_test::runKepraw({"info", "a.dng", "b.raw"}, dir.path());
    ASSERT_EQ(guess.status, 0) << guess.err;
    for (const char* line :
         {"a.dng: DNG (kepraw synthetic)", "size 64x48, pattern GRBG",
          "black levels 256 260 252 258 (top-left, top-right, bottom-left, bottom-right)", "white level 4095 (12-bit)",
          "read as 10-bit: v' = round(v * 1023 / 4095); black levels become 64 65 63 64",
          "b.raw: headerless 16-bit little-endian raw, 614400 bytes = 307200 samples", "fits: 640x480, 480x640"})
        EXPECT_NE(guess.out.find(line), std::string::npos) << line << "\n" << guess.out;

    const kepraw_test::RunResult sized = kepraw_test::runKepraw({"info", "--size", "640x480", "b.raw"}, dir.path());
    ASSERT_EQ(sized.status, 0) << sized.err;
    EXPECT_NE(sized.out.find("size 640x480, pattern not recorded"), std::string::npos) << sized.out;
    EXPECT_NE(sized.out.find("values 64..900"), std::string::npos) << sized.out;
}

}  // namespace

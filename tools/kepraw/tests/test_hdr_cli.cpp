// kepraw hdr on generated brackets: the raw result must equal a direct call of
// the HDR entry (SHORT -> frameA, MID -> frameB, LONG -> frameC) on the same data.

#include <gtest/gtest.h>

#include "commands.h"
#include "raw_reader.h"
#include "test_support.h"

namespace {

using kepraw_test::TempDir;

std::vector<short> callHdr(const kep::synth::HdrBracket& b, float red, float blue, float ratio, int pattern,
                           const int black[4]) {
    std::vector<short> a = b.shortFrame, m = b.midFrame, l = b.longFrame, out(a.size());
    int levels[4] = {black[0], black[1], black[2], black[3]};
    kepraw::callHdrProcess(a.data(), m.data(), l.data(), out.data(), red, blue, b.width, b.height, ratio, pattern,
                           levels);
    return out;
}

kep::synth::HdrBracket smallBracket(int w, int h) {
    const kep::synth::Scene scene(w, h, 21);
    return kep::synth::makeHdrBracket(scene, kep::synth::HdrBracketOptions{});
}

TEST(HdrCommand, HeaderlessAndDngBracketsGiveTheLibrarysResult) {
    const int w = 640, h = 480;
    const kep::synth::HdrBracket b = smallBracket(w, h);
    TempDir in, out;
    kepraw_test::writeHeaderless(in.file("short.raw"), b.shortFrame);
    kepraw_test::writeHeaderless(in.file("mid.raw"), b.midFrame);
    kepraw_test::writeHeaderless(in.file("long.raw"), b.longFrame);
    kepraw::DngOptions o;
    o.pattern = 0;
    const int dngBlack[4] = {64, 63, 65, 66};
    std::copy(dngBlack, dngBlack + 4, o.black);
    kepraw_test::writeDngFile(in.file("short.dng"), b.shortFrame, w, h, o);
    kepraw_test::writeDngFile(in.file("mid.dng"), b.midFrame, w, h, o);
    kepraw_test::writeDngFile(in.file("long.dng"), b.longFrame, w, h, o);
    const auto inputs = kepraw_test::snapshot(in);

    const kepraw_test::RunResult raw =
        kepraw_test::runKepraw({"hdr", in.file("short.raw"), in.file("mid.raw"), in.file("long.raw"), "--size",
                                "640x480", "-o", out.file("hdr.raw"), "--red-gain", "1.5", "--blue-gain", "1.25",
                                "--ratio", "6", "--png", out.file("hdr.png"), "--json", out.file("hdr.json")});
    if (!kepraw::hdrAvailable()) {
        EXPECT_EQ(raw.status, 1);
        EXPECT_NE(raw.err.find("HDR path not built"), std::string::npos) << raw.err;
        EXPECT_EQ(out.list(), std::vector<std::string>{});
        GTEST_SKIP() << "this build of the library has no HDR entry";
    }
    ASSERT_EQ(raw.status, 0) << raw.err;
    const int black64[4] = {64, 64, 64, 64};
    EXPECT_EQ(kepraw_test::readHeaderless(out.file("hdr.raw")), callHdr(b, 1.5f, 1.25f, 6.0f, 0, black64));
    int pw = 0, ph = 0;
    ASSERT_TRUE(kepraw_test::pngSize(out.file("hdr.png"), pw, ph));
    EXPECT_EQ(pw, w);
    const std::string json = kepraw_test::readBytes(out.file("hdr.json"));
    EXPECT_NE(json.find("\"exposureRatio\": 6"), std::string::npos);
    EXPECT_NE(json.find("total use"), std::string::npos) << "the library's timing line goes into the report";

    const kepraw_test::RunResult dng = kepraw_test::runKepraw(
        {"hdr", in.file("short.dng"), in.file("mid.dng"), in.file("long.dng"), "-o", out.file("hdr.dng")});
    ASSERT_EQ(dng.status, 0) << dng.err;
    const std::vector<short> expected = callHdr(b, 1.0f, 1.0f, 4.0f, 0, dngBlack);
    const kepraw::RawImage written = kepraw::readRawFile(out.file("hdr.dng"), {});
    EXPECT_TRUE(std::equal(dngBlack, dngBlack + 4, written.fileBlack));
    for (size_t i = 0; i < expected.size(); ++i)
        ASSERT_EQ(written.samples[i], std::min<short>(1023, std::max<short>(0, expected[i]))) << i;
    EXPECT_EQ(kepraw_test::snapshot(in), inputs);
    EXPECT_EQ(out.list(), (std::vector<std::string>{"hdr.dng", "hdr.json", "hdr.png", "hdr.raw"}));
}

}  // namespace

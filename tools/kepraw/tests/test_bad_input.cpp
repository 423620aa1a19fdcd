// Bad input as a new user would give it: every case gets one line on standard
// error naming the problem and the offending argument, exit status 2, and leaves
// the directory exactly as it was (no output, no temporary, inputs untouched).

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "test_support.h"

namespace {

using kepraw_test::TempDir;

struct Case {
    std::vector<std::string> args;
    std::string message;  // part of the one-line error
};

void writeFrames(const TempDir& dir, const std::string& stem, int count, int w, int h) {
    for (int i = 0; i < count; ++i)
        kepraw_test::writeHeaderless(dir.file(stem + std::to_string(i) + ".raw"),
                                     std::vector<short>(static_cast<size_t>(w) * h, static_cast<short>(100 + i)));
}

std::vector<std::string> night(std::vector<std::string> extra) {
    std::vector<std::string> args = {"night", "f0.raw", "f1.raw", "f2.raw"};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
}

TEST(BadInput, EveryCaseIsOneLineExitTwoAndLeavesNothingBehind) {
    TempDir dir;
    writeFrames(dir, "f", 3, 128, 96);    // good frames
    writeFrames(dir, "n", 3, 130, 96);    // not multiples of 4
    writeFrames(dir, "odd", 3, 129, 96);  // odd width
    kepraw::DngOptions o;
    kepraw_test::writeDngFile(dir.file("tall.dng"), std::vector<short>(128 * 100, 80), 128, 100, o);
    kepraw_test::writeDngFile(dir.file("good.dng"), std::vector<short>(128 * 96, 80), 128, 96, o);
    const std::string good = kepraw_test::readBytes(dir.file("good.dng"));
    kepraw_test::writeBytes(dir.file("cut.dng"), good.substr(0, good.size() - 5000));
    kepraw_test::writeBytes(dir.file("junk.dng"), std::string(4096, 'j'));
    o.cfaRepeatRows = o.cfaRepeatCols = 4;
    kepraw_test::writeDngFile(dir.file("cfa4.dng"), std::vector<short>(128 * 96, 80), 128, 96, o);
    ASSERT_EQ(::symlink("f0.raw", dir.file("link.raw").c_str()), 0);
    ASSERT_EQ(::mkdir(dir.file("sub").c_str(), 0755), 0);
    kepraw_test::writeBytes(dir.file("keep.raw"), "a result from yesterday");
    kepraw_test::writeBytes(dir.file("plain"), "not a directory");
    ASSERT_EQ(::mkfifo(dir.file("pipe").c_str(), 0644), 0);
    std::vector<std::string> nineteen = {"night"};
    for (int i = 0; i < 19; ++i) nineteen.push_back("f0.raw");
    nineteen.insert(nineteen.end(), {"--size", "128x96", "-o", "o.raw"});

    const std::vector<Case> cases = {
        // files
        {{"night", "f0.raw", "f1.raw", "missing.raw", "--size", "128x96", "-o", "o.raw"},
         "missing.raw: file not found"},
        {{"night", "f0.raw", "f1.raw", "sub", "--size", "128x96", "-o", "o.raw"}, "sub: is a directory"},
        {{"night", "f0.raw", "f1.raw", "pipe", "--size", "128x96", "-o", "o.raw"}, "pipe: not a regular file"},
        {{"night", "f0.raw", "f1.raw", "new\nline.raw", "--size", "128x96", "-o", "o.raw"},
         "new?line.raw: file not found"},
        {night({"--size", "128x95", "-o", "o.raw"}), "f0.raw: file size 24576 bytes does not match --size 128x95"},
        {night({"-o", "o.raw"}), "f0.raw: headerless raw file (24576 bytes) needs --size"},
        {{"night", "n0.raw", "n1.raw", "n2.raw", "--size", "130x96", "-o", "o.raw"},
         "n0.raw: frame size 130x96 cannot be merged"},
        {{"night", "odd0.raw", "odd1.raw", "odd2.raw", "--size", "129x96", "-o", "o.raw"},
         "odd0.raw: frame size 129x96"},
        {{"night", "f0.raw", "f1.raw", "--size", "128x96", "-o", "o.raw"},
         "2 frames given: the night path takes 3 to 18"},
        {nineteen, "19 frames given"},
        {night({"tall.dng", "--size", "128x96", "-o", "o.raw"}), "tall.dng: frame is 128x100, not --size 128x96"},
        {{"night", "good.dng", "good.dng", "tall.dng", "-o", "o.raw"},
         "tall.dng: frame is 128x100 but good.dng is 128x96"},
        {night({"cut.dng", "--size", "128x96", "-o", "o.raw"}), "cut.dng: file is truncated"},
        {night({"junk.dng", "--size", "128x96", "-o", "o.raw"}), "junk.dng: cannot decode as DNG/camera raw"},
        {night({"cfa4.dng", "--size", "128x96", "-o", "o.raw"}), "cfa4.dng: CFA pattern repeats every 4x4 sites"},
        // outputs
        {night({"--size", "128x96", "-o", "f1.raw"}), "-o: f1.raw is the input file f1.raw"},
        {night({"--size", "128x96", "-o", "./f2.raw"}), "-o: ./f2.raw is the input file f2.raw"},
        {night({"--size", "128x96", "-o", "link.raw"}), "-o: link.raw is the input file f0.raw"},
        {night({"--size", "128x96", "-o", "o.raw", "--png", "f0.raw"}), "--png: f0.raw is the input file"},
        {night({"--size", "128x96", "-o", "o.raw", "--json", "./o.raw"}), "--json: ./o.raw is also the output of -o"},
        {night({"--size", "128x96", "-o", "nodir/o.raw"}), "-o: cannot create nodir/o.raw: No such file or directory"},
        {night({"--size", "128x96", "-o", "sub"}), "-o: sub is a directory"},
        {night({"--size", "128x96", "-o", "pipe"}), "-o: pipe is not a regular file"},
        {night({"--size", "128x96", "-o", "o.cr2"}), "-o: o.cr2: kepraw cannot write .cr2 files"},
        {night({"--size", "128x96", "-o", "o.png"}), "-o: o.png: the raw result cannot be a .png file"},
        {night({"--size", "128x96"}), "-o: missing output file"},
        {{"night", "f0.raw", "f1.raw", "missing.raw", "--size", "128x96", "-o", "keep.raw"},
         "missing.raw: file not found"},
        // options
        {night({"--size", "128x96", "-o", "o.raw", "--fast"}), "'--fast': unknown option"},
        {night({"--size", "128x96", "-o", "o.raw", "--gain"}), "--gain: option needs a value"},
        {night({"--size", "128x96", "-o", "o.raw", "--gain", "bright"}), "--gain: 'bright' is not a number"},
        {night({"--size", "128x96", "-o", "o.raw", "--gain", "100"}), "--gain: '100' is out of range (0 to 64)"},
        {night({"--size", "128", "-o", "o.raw"}), "--size: '128' is not a size"},
        {night({"--size", "128x96", "-o", "o.raw", "--pattern", "rgbg"}), "--pattern: 'rgbg' is not a Bayer pattern"},
        {night({"--size", "128x96", "-o", "o.raw", "--black", "1,2"}), "--black: '1,2' has 2 values (expected 1 or 3)"},
        {night({"--size", "128x96", "-o", "o.raw", "--black", "1023"}),
         "black level 1023 is not below the white level"},
        {night({"--size", "128x96", "-o", "o.raw", "--min-features", "-1"}), "--min-features: '-1' is out of range"},
        {night({"--size", "128x96", "-o", "o.raw", "--sharpness-ratio", "2"}),
         "--sharpness-ratio: '2' is out of range"},
        {night({"--size", "128x96", "-o", "o.raw", "--bits", "8"}), "--bits: '8' is out of range (10 to 16)"},
        {night({"--size", "128x96", "-o", "o.raw", "--gain", "1", "--gain", "2"}),
         "--gain: option given more than once"},
        {night({"--size", "128x96", "-o", "o.raw", "--merge", "median"}), "--merge: \"median\" is not a merge mode"},
        {night({"--size", "128x96", "-o", "o.raw", "--noise", "2"}), "--noise: \"2\" is not A,B"},
        {night({"--size", "128x96", "-o", "o.raw", "--noise", "-1,4"}), "--noise: '-1' is out of range"},
        {night({"--size", "128x96", "-o", "o.raw", "--noise", "0,0"}), "--noise: a noise model of zero variance"},
        {night({"--size", "128x96", "-o", "o.raw", "--output-bits", "11"}), "--output-bits: 11 is not 10, 12, 14 or 16"},
        {night({"--size", "128x96", "-o", "o.raw", "--workers", "0"}), "--workers: '0' is out of range"},
        {night({"--size", "128x96", "-o", "o.raw", "--weights-png", "w.png"}),
         "--weights-png: the merge weights exist only with --merge robust"},
        // hdr, info, demo, no command
        {{"hdr", "f0.raw", "f1.raw", "--size", "128x96", "-o", "o.raw"},
         "2 frames given: the HDR path takes exactly three"},
        {{"hdr", "odd0.raw", "odd1.raw", "odd2.raw", "--size", "129x96", "-o", "o.raw"},
         "odd0.raw: frame size 129x96 cannot be fused"},
        {{"hdr", "f0.raw", "f1.raw", "f2.raw", "--size", "128x96", "-o", "o.raw", "--ratio", "0"},
         "--ratio: '0' is out of range"},
        {{"hdr", "f0.raw", "f1.raw", "f2.raw", "--size", "128x96", "-o", "o.raw", "--black", "1,2,3"},
         "(expected 1 or 4)"},
        {{"hdr", "f0.raw", "f1.raw", "f2.raw", "--size", "128x96", "-o", "f2.raw"}, "-o: f2.raw is the input file"},
        {{"info", "missing.raw"}, "missing.raw: file not found"},
        {{"info"}, "no file given"},
        {{"demo", "--size", "66x64", "--out", "d"}, "--size: 66x64: sides must be multiples of 4"},
        {{"demo", "f0.raw"}, "f0.raw: demo takes no input files"},
        {{"demo", "--out", "plain"}, "--out: plain exists and is not a directory"},
        {{"merge", "f0.raw"}, "'merge': unknown command"},
    };
    const auto before = kepraw_test::snapshot(dir);
    for (size_t i = 0; i < cases.size(); ++i) {
        const Case& c = cases[i];
        std::string shown;
        for (const std::string& a : c.args) shown += a + " ";
        const kepraw_test::RunResult r = kepraw_test::runKepraw(c.args, dir.path());
        EXPECT_EQ(r.status, 2) << shown << "\n" << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << shown << "\n" << r.err;
        EXPECT_EQ(r.err.compare(0, 6, "kepraw"), 0) << shown;
        EXPECT_TRUE(!r.err.empty() && r.err.find('\n') == r.err.size() - 1) << "one line: " << shown << "\n" << r.err;
        EXPECT_EQ(r.out, "") << shown;
        ASSERT_EQ(kepraw_test::snapshot(dir), before) << "the directory changed: " << shown;
    }
    const kepraw_test::RunResult bare = kepraw_test::runKepraw({}, dir.path());
    EXPECT_EQ(bare.status, 2);
    EXPECT_NE(bare.err.find("usage: kepraw COMMAND"), std::string::npos);
}

TEST(BadInput, OutOfRangeValuesAreClampedWithAWarningNeverSilently) {
    TempDir dir;
    writeFrames(dir, "f", 3, 128, 96);
    std::vector<short> hot(128 * 96, 100);
    hot[7] = 2000;
    hot[8] = -1;  // 65535 as unsigned 16-bit
    kepraw_test::writeHeaderless(dir.file("f2.raw"), hot);
    const kepraw_test::RunResult r =
        kepraw_test::runKepraw({"night", "f0.raw", "f1.raw", "f2.raw", "--size", "128x96", "-o", "o.raw"}, dir.path());
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("kepraw night: f2.raw: warning: 2 samples above the 10-bit range (1023) clamped to 1023"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(kepraw_test::readHeaderless(dir.file("f2.raw")), hot) << "the input itself is never changed";
}

TEST(BadInput, HelpIsAvailableForEveryCommand) {
    for (const char* command : {"night", "hdr", "info", "demo"}) {
        const kepraw_test::RunResult r = kepraw_test::runKepraw({command, "--help"});
        EXPECT_EQ(r.status, 0) << command;
        EXPECT_EQ(r.out.compare(0, 14 + std::string(command).size(), std::string("usage: kepraw ") + command), 0)
            << r.out;
    }
    const kepraw_test::RunResult r = kepraw_test::runKepraw({"--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("10-bit rule"), std::string::npos);
}

}  // namespace

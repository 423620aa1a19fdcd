#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "diagnostics/formatted_timer.h"
#include "diagnostics/raw_file.h"

namespace {

TEST(FormattedTimer, TocWithoutListDoesNothingAndPrintPadsColumns) {
    FormattedTimer::uninit();
    FormattedTimer timer;
    timer.end = 12345;
    timer.toc("a", "stage");
    EXPECT_EQ(timer.end, 12345);  // clock not even read

    FormattedTimer::init();
    timer.tic();
    timer.toc("a", "stage");
    timer.toc("long", "x");
    timer.toc(nullptr, nullptr);
    ASSERT_EQ(FormattedTimer::s_vecInfos->size(), 3u);
    (*FormattedTimer::s_vecInfos)[0].ms = 1.999f;
    testing::internal::CaptureStdout();
    FormattedTimer::print();
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string expectedFirst = "stage|a   | time: |   2.00 ms|\n";
    EXPECT_EQ(out.substr(0, expectedFirst.size()), expectedFirst);
    EXPECT_NE(out.find("\nx    |long| time: |"), std::string::npos);
    EXPECT_NE(out.find("\n     |    | time: |"), std::string::npos);
    EXPECT_EQ((*FormattedTimer::s_vecInfos)[1].label2, "x    ");  // padding persists
    FormattedTimer::uninit();
    EXPECT_EQ(FormattedTimer::s_vecInfos, nullptr);
}

TEST(FormattedTimer, IntervalTruncatesToWholeMicroseconds) {
    FormattedTimer::init();
    FormattedTimer timer;
    timer.tic();
    timer.toc("x", "y");
    const FormattedTimer::Info info = FormattedTimer::s_vecInfos->back();
    const long long micros = (timer.end - timer.start) / 1000;
    EXPECT_EQ(info.ms, static_cast<float>(micros / 1000.0));
    // 1,999,999 ns gives 1.999 ms by the same rule.
    EXPECT_EQ(static_cast<float>((1999999LL / 1000) / 1000.0), 1.999f);
    FormattedTimer::uninit();
}

std::string tempPath(const char* name) { return testing::TempDir() + name; }

TEST(RawFile, WriteCutsToTenBitsLowByteFirstAndReadsBack) {
    const std::string path = tempPath("kep_raw_roundtrip.raw");
    std::vector<short> frame = {0x07FF, 1023, 0, 1024, -1, 513};
    WriteRawFile(path.c_str(), frame.data(), 3, 2);
    std::ifstream in(path, std::ios::binary);
    std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_EQ(bytes.size(), 12u);
    EXPECT_EQ(bytes[0], 0xFF);
    EXPECT_EQ(bytes[1], 0x03);
    EXPECT_EQ(bytes[6], 0x00);  // 1024 becomes 0
    EXPECT_EQ(bytes[7], 0x00);

    std::vector<short> back(6, -9);
    testing::internal::CaptureStdout();
    ReadRawFile(path.c_str(), back.data(), 3, 2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "open OK\nbegin read\n");
    EXPECT_EQ(back, (std::vector<short>{1023, 1023, 0, 0, 1023, 513}));
    std::remove(path.c_str());
}

TEST(RawFile, MissingFilesAndShortFiles) {
    std::vector<short> dst(4, 5);
    testing::internal::CaptureStdout();
    ReadRawFile("/nonexistent/dir/frame.raw", dst.data(), 2, 2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "can not open the raw image");
    EXPECT_EQ(dst, std::vector<short>(4, 5));

    const std::string path = tempPath("kep_raw_short.raw");
    std::vector<short> one = {300};
    WriteRawFile(path.c_str(), one.data(), 1, 1);
    testing::internal::CaptureStdout();
    ReadRawFile(path.c_str(), dst.data(), 2, 2);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(dst, (std::vector<short>{300, 0, 0, 0}));
    std::remove(path.c_str());

    // Unwritable path: nothing happens, quietly.
    WriteRawFile("/nonexistent/dir/out.raw", one.data(), 1, 1);
}

}  // namespace

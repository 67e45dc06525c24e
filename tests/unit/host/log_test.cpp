// Host log: level filter, line layout, log file and captures.
#include "hostapi/log.h"
#include "temp_home.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <fstream>
#include <regex>

namespace {
std::vector<std::string> FileLines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    return lines;
}

// "<pid> <tid-hex> <MM/DD HH:MM:SS.mmm> <jobid> <tag> <message>"
bool IsLine(const std::string& line, const std::string& job, const std::string& tag, const std::string& text) {
    static const std::string head = std::to_string(getpid()) + " [0-9a-f]+ [01][0-9]/[0-3][0-9] [0-9:]{8}\\.[0-9]{3} ";
    return std::regex_match(line, std::regex(head + job + " " + tag + " " + text));
}
}  // namespace

TEST(LogTest, LevelLimitComesFromDebugKey) {
    vstest::TempHome home;
    vshost::LogCapture cap;
    KTLogObject h;
    InitKTlog(&h, "DM_VSEXT\t", "nVSREADER", 99);
    KTlogSetJobID(&h, 4711);
    KTlog(&h, 1, "level %d", 1);
    KTlog(&h, 2, "level %d", 2);
    KTlog(&h, 0, "level %d", 0);
    KTlog(&h, KTLOG_ALWAYS, "always %s", "shown");
    ASSERT_EQ(cap.Lines().size(), 2u);
    EXPECT_TRUE(IsLine(cap.Lines()[0], "4711", "DM_VSEXT\t", "level 1")) << cap.Lines()[0];
    EXPECT_TRUE(IsLine(cap.Lines()[1], "4711", "DM_VSEXT\t", "always shown"));

    cap.Clear();
    vshost::settings::Set("Log", "nVSREADER", "2");
    vshost::settings::Set("Log", "nOTHER", "3");  // another log's key does not count
    KTlog(&h, 2, "level 2 now");
    KTlog(&h, 3, "level 3 still hidden");
    EXPECT_EQ(cap.Lines().size(), 1u);
    EXPECT_TRUE(cap.Contains("level 2 now"));

    vshost::settings::Set("Log", "nVSREADER", "0");
    KTlog(&h, 1, "quiet one");
    KTlog(&h, KTLOG_ALWAYS, "loud one");
    EXPECT_FALSE(cap.Contains("quiet one"));
    EXPECT_TRUE(cap.Contains("loud one"));
}

TEST(LogTest, LinesReachLogFileWhole) {
    vstest::TempHome home;
    ASSERT_EQ(vshost::LogFilePath(), home.sub("Log Files/vsreader.log"));
    vshost::LogCapture cap;
    const std::string big(10000, 'x');
    KTlog(nullptr, 1, "big %s end\n", big.c_str());
    KTlog(nullptr, 2, "null handle limit is one");
    auto lines = FileLines(vshost::LogFilePath());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with(" 0  big " + big + " end")) << lines[0].substr(0, 80);
    EXPECT_EQ(cap.Lines(), lines);

    vshost::CloseHome();  // without a home, captures still get lines
    KTlog(nullptr, 1, "no home");
    EXPECT_TRUE(cap.Contains("no home"));
    EXPECT_EQ(FileLines(home.sub("Log Files/vsreader.log")).size(), 1u);
}

TEST(LogTest, EvDebugAndCaptureLifetime) {
    vstest::TempHome home;
    vshost::LogCapture early;
    EvDebug dbg;
    dbg.Error("CreateReader", "bad type %d", 7);
    dbg.Debug("CreateReader", "made %s", "reader");
    vshost::settings::Set("Log", "nEVDEBUG", "0");
    dbg.Debug("CreateReader", "hidden");
    vshost::LogCapture late;
    dbg.Error("Late", "seen by both");
    ASSERT_EQ(early.Lines().size(), 3u);
    EXPECT_TRUE(IsLine(early.Lines()[0], "0", "EvDebug\t", "CreateReader: bad type 7"));
    EXPECT_TRUE(IsLine(early.Lines()[1], "0", "EvDebug\t", "CreateReader: made reader"));
    EXPECT_EQ(late.Lines().size(), 1u);
    EXPECT_EQ(late.Count("Late: seen by both"), 1u);
}

// A capture that lives through a long job keeps what it was asked for, however much is logged.
TEST(LogTest, ABoundedCaptureKeepsTheFirstMatchingLinesAndTheLatest) {
    vstest::TempHome home;
    vshost::LogCapture cap([](std::string_view l) { return l.find("error") != std::string_view::npos; }, 2);
    KTLogObject h;
    InitKTlog(&h, "T\t", "", 0);
    for (int i = 0; i < 1000; ++i) KTlog(&h, 1, "file %d", i);
    for (int i = 0; i < 3; ++i) KTlog(&h, 1, "error %d", i);
    KTlog(&h, 1, "done");
    ASSERT_EQ(cap.Lines().size(), 2u);
    EXPECT_NE(cap.Lines()[0].find("error 0"), std::string::npos);
    EXPECT_NE(cap.Lines()[1].find("error 1"), std::string::npos);
    EXPECT_NE(cap.Last().find("done"), std::string::npos);
    cap.Clear();
    EXPECT_TRUE(cap.Lines().empty());
    EXPECT_TRUE(cap.Last().empty());
}

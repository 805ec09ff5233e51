#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "Sandbox.h"
#include "TestFiles.h"
#include "ULog.h"

using commontest::CountOf;
using commontest::StderrCapture;
using commontest::TempDir;

// Exported frames for the stack trace checks.
namespace tracemark {

__attribute__((noinline)) int ReportMissing() {
    int result = USysLog::error("where.cpp", 12, "ReportMissing", ENOENT);
    __asm__ __volatile__("" ::: "memory");
    return result;
}

__attribute__((noinline)) void TraceHere(int skip) {
    USysLog::PrintStackTrace(skip);
    __asm__ __volatile__("" ::: "memory");
}

}  // namespace tracemark

namespace {

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// Demangled frames read "module: name [address]"; the others are printed
// whole as "module(symbol+offset) [address]".
bool IsDemangledFrame(const std::string& line) {
    size_t message = line.find("]: ");
    return message != std::string::npos && line.find(": ", message + 3) != std::string::npos;
}

// The first demangled frame of every stack trace, in order.
std::vector<std::string> FirstDemangledFrames(const std::string& text) {
    std::vector<std::string> firsts;
    bool in_trace = false;
    for (const std::string& line : Lines(text)) {
        if (line.find("Stack Trace:") != std::string::npos) {
            in_trace = true;
        } else if (in_trace && IsDemangledFrame(line)) {
            firsts.push_back(line);
            in_trace = false;
        }
    }
    return firsts;
}

}  // namespace

TEST(LogNames, ErrnoTableFollowsTheSystemNames) {
    EXPECT_STREQ(UError::GetName(0), "SUCCESS");
    EXPECT_STREQ(UError::GetName(41), "E41");
    EXPECT_STREQ(UError::GetName(58), "E58");
    EXPECT_STREQ(UError::GetName(132), "ERFKILL");
    EXPECT_STREQ(UError::GetName(133), "UNKNOWN");
    EXPECT_STREQ(UError::GetName(100000), "UNKNOWN");
    EXPECT_STREQ(UError::GetName(-1), "UNKNOWN");
    for (int errnum = 1; errnum < 133; ++errnum) {
        const char* system_name = strerrorname_np(errnum);
        if (system_name != nullptr) {
            EXPECT_STREQ(UError::GetName(errnum), system_name) << errnum;
        }
    }
}

TEST(LogError, ZeroErrnoLogsNothing) {
    StderrCapture capture;
    EXPECT_EQ(USysLog::error("f.cpp", 1, "fn", 0), 0);
    EXPECT_EQ(USysLog::error("f.cpp", 1, "fn", 0, "text %d", 1), 0);
    EXPECT_EQ(UConsoleLog::error("f.cpp", 1, "fn", 0), 0);
    EXPECT_EQ(capture.Text(), "");
}

TEST(LogError, ErrorLineThenTraceFromTheCaller) {
    StderrCapture capture;
    EXPECT_EQ(tracemark::ReportMissing(), ENOENT);
    std::string log = capture.Text();
    std::string expected =
        std::string("where.cpp(12):ReportMissing()\t[ENOENT(2)] ") + strerror(ENOENT) + "\n";
    EXPECT_NE(log.find(expected), std::string::npos) << log;
    std::vector<std::string> firsts = FirstDemangledFrames(log);
    ASSERT_EQ(firsts.size(), 1u) << log;
    // The logger's own two frames are skipped.
    EXPECT_NE(firsts[0].find(": tracemark::ReportMissing() [0x"), std::string::npos) << log;
    EXPECT_EQ(log.find("USysLog::"), std::string::npos) << log;
    EXPECT_NE(log.find("TestBody()"), std::string::npos) << log;
}

TEST(LogError, SkipCountsDemangledFramesOnly) {
    StderrCapture capture;
    tracemark::TraceHere(0);
    tracemark::TraceHere(1);
    std::string log = capture.Text();
    std::vector<std::string> firsts = FirstDemangledFrames(log);
    ASSERT_EQ(firsts.size(), 2u) << log;
    EXPECT_NE(firsts[0].find(": USysLog::PrintStackTrace(int) [0x"), std::string::npos) << log;
    EXPECT_NE(firsts[1].find(": tracemark::TraceHere(int) [0x"), std::string::npos) << log;
    // Frames without a name (main is not mangled) appear whole.
    EXPECT_NE(log.find("(main+0x"), std::string::npos) << log;
}

TEST(LogError, CallerTextIsCutAt255) {
    std::string text(300, 'x');
    StderrCapture capture;
    EXPECT_EQ(USysLog::error("f.cpp", 3, "fn", EPERM, "%s", text.c_str()), EPERM);
    USysLog::error("g.cpp", 4, "gn", "%s", text.c_str());
    std::string log = capture.Text();
    EXPECT_NE(log.find("f.cpp(3):fn()\t[EPERM(1)] " + text.substr(0, 255) + "\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("g.cpp(4):gn()\t[" + text.substr(0, 255) + "]\n"), std::string::npos) << log;
    std::vector<std::string> firsts = FirstDemangledFrames(log);
    ASSERT_EQ(firsts.size(), 2u) << log;
    for (const std::string& first : firsts) {
        EXPECT_NE(first.find("CallerTextIsCutAt255_Test::TestBody()"), std::string::npos) << log;
    }
}

TEST(LogConsole, LinesGoToStandardError) {
    StderrCapture capture;
    UConsoleLog::write("hello %d", 5);
    EXPECT_EQ(UConsoleLog::error("f.cpp", 9, "fn", ENOENT), ENOENT);
    EXPECT_EQ(UConsoleLog::error("f.cpp", 9, "fn", 132, "own text"), 132);
    std::string expected = std::string(program_invocation_short_name) + "[" +
                           std::to_string(getpid()) + "]: hello 5\n" +
                           "f.cpp(9):fn()\t\t[ENOENT(2)] " + strerror(ENOENT) + "\n" +
                           "f.cpp(9):fn()\t\t[ERFKILL(132)] own text\n";
    EXPECT_EQ(capture.Text(), expected);
}

TEST(LogDebug, SwitchFileNamedAfterTheProgramPath) {
    TempDir dir;
    std::string program = dir.File("svc");
    ASSERT_EQ(symlink(COMMON_DEBUG_PROBE, program.c_str()), 0);
    ppltest::Child child;
    ASSERT_TRUE(child.Start({program, "log:absent", "create", "log:cached", "recent", "log:recent",
                             "expire", "log:on", "remove", "log:still", "expire", "log:off"},
                            dir.Path()));
    ASSERT_TRUE(child.Wait(5000));
    std::string log = child.Stderr();
    EXPECT_NE(log.find("probe.cpp(7):Step()\t\tmarker on 42"), std::string::npos) << log;
    EXPECT_NE(log.find("marker still 42"), std::string::npos) << log;
    EXPECT_EQ(CountOf(log, "marker"), 2) << log;
}

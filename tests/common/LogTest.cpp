#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "Sandbox.h"
#include "ULog.h"

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

// The first demangled frame ("module: name [address]") of every stack trace;
// other frames are printed whole as "module(symbol+offset) [address]".
std::vector<std::string> FirstDemangledFrames(const std::string& text) {
    std::vector<std::string> firsts;
    std::istringstream in(text);
    bool in_trace = false;
    for (std::string line; std::getline(in, line);) {
        size_t message = line.find("]: ");
        bool demangled =
            message != std::string::npos && line.find(": ", message + 3) != std::string::npos;
        if (line.find("Stack Trace:") != std::string::npos) {
            in_trace = true;
        } else if (in_trace && demangled) {
            firsts.push_back(line);
            in_trace = false;
        }
    }
    return firsts;
}

}  // namespace

TEST(LogNames, ErrnoTableFollowsTheSystemNames) {
    EXPECT_STREQ(UError::GetName(0), "SUCCESS");
    EXPECT_STREQ(UError::GetName(132), "ERFKILL");
    EXPECT_STREQ(UError::GetName(133), "UNKNOWN");
    EXPECT_STREQ(UError::GetName(-1), "UNKNOWN");
    for (int errnum = 1; errnum < 133; ++errnum) {
        const char* system_name = strerrorname_np(errnum);  // none for 41 and 58
        std::string expected = system_name ? system_name : "E" + std::to_string(errnum);
        EXPECT_EQ(UError::GetName(errnum), expected);
    }
    EXPECT_STREQ(UError::GetName(41), "E41");
}

TEST(LogError, ZeroErrnoLogsNothingAndCallerTextIsCutAt255) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(USysLog::error("f.cpp", 1, "fn", 0), 0);
    EXPECT_EQ(USysLog::error("f.cpp", 1, "fn", 0, "text %d", 1), 0);
    EXPECT_EQ(UConsoleLog::error("f.cpp", 1, "fn", 0), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    std::string text(300, 'x'), cut(255, 'x');
    testing::internal::CaptureStderr();
    EXPECT_EQ(USysLog::error("f.cpp", 3, "fn", EPERM, "%s", text.c_str()), EPERM);
    USysLog::error("g.cpp", 4, "gn", "%s", text.c_str());
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("f.cpp(3):fn()\t[EPERM(1)] " + cut + "\n"), std::string::npos) << log;
    EXPECT_NE(log.find("g.cpp(4):gn()\t[" + cut + "]\n"), std::string::npos) << log;

    // The console twin: the same lines on standard error alone, no stack trace.
    testing::internal::CaptureStderr();
    EXPECT_EQ(UConsoleLog::error("f.cpp", 5, "fn", ENOENT), ENOENT);
    EXPECT_EQ(UConsoleLog::error("f.cpp", 6, "fn", EPERM, "own text"), EPERM);
    EXPECT_EQ(UConsoleLog::error("f.cpp", 7, "fn", 0, "own text"), 0);
    UConsoleLog::write("n=%d", 5);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              std::string("f.cpp(5):fn()\t\t[ENOENT(2)] ") + strerror(ENOENT) +
                  "\nf.cpp(6):fn()\t\t[EPERM(1)] own text\n" + program_invocation_short_name + "[" +
                  std::to_string(getpid()) + "]: n=5\n");
}

TEST(LogError, ErrorLineThenStackTraceSkippingDemangledFramesOnly) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(tracemark::ReportMissing(), ENOENT);
    tracemark::TraceHere(0);
    tracemark::TraceHere(1);
    std::string log = testing::internal::GetCapturedStderr();
    std::string line =
        std::string("where.cpp(12):ReportMissing()\t[ENOENT(2)] ") + strerror(ENOENT);
    EXPECT_NE(log.find(line + "\n"), std::string::npos) << log;
    std::vector<std::string> firsts = FirstDemangledFrames(log);
    ASSERT_EQ(firsts.size(), 3u) << log;
    // error() skips the logger's own two frames.
    EXPECT_NE(firsts[0].find(": tracemark::ReportMissing() [0x"), std::string::npos) << log;
    EXPECT_NE(firsts[1].find(": USysLog::PrintStackTrace(int) [0x"), std::string::npos) << log;
    EXPECT_NE(firsts[2].find(": tracemark::TraceHere(int) [0x"), std::string::npos) << log;
    EXPECT_NE(log.find("(main+0x"), std::string::npos) << log;  // not mangled: printed whole
}

TEST(LogDebug, SwitchFileNamedAfterTheProgramPath) {
    ppltest::TempDir dir;
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
    EXPECT_EQ(ppltest::CountOf(log, "marker"), 2) << log;
}

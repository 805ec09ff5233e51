#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "Sandbox.h"
#include "TestFiles.h"
#include "UFile.h"
#include "USignal.h"

TEST(FileHelpers, WriteReadAndSizeEdgeResults) {
    commontest::TempDir dir;
    std::string inside = dir.File("absent/file"), missing = dir.File("none");
    testing::internal::CaptureStderr();
    EXPECT_TRUE(UFile::WriteFile(inside.c_str(), "", 0, 0644));
    EXPECT_FALSE(UFile::WriteFile(inside.c_str(), "abc", 3, 0644));
    EXPECT_FALSE(UFile::Exist(dir.File("absent").c_str()));
    char buffer[16];
    EXPECT_EQ(UFile::ReadFile(missing.c_str(), buffer, sizeof(buffer)), -1);
    testing::internal::GetCapturedStderr();

    testing::internal::CaptureStderr();
    EXPECT_EQ(UFile::GetFileSize(missing.c_str()), -1);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(commontest::CountOf(log, "\t[ENOENT(2)] GetFileSize('" + missing + "') error.\n"), 1)
        << log;
    EXPECT_EQ(commontest::CountOf(log, "error."), 1) << log;

    std::string path = dir.File("ten");
    ASSERT_TRUE(UFile::WriteFile(path.c_str(), "0123456789", 10, 0600));
    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(UFile::ReadFile(path.c_str(), buffer, 4), 4);
    EXPECT_EQ(std::string(buffer, 5), "0123#");
    EXPECT_EQ(UFile::GetFileSize(path.c_str()), 10);
    std::string shorter = "xy";
    ASSERT_TRUE(UFile::WriteFile(path.c_str(), shorter));
    EXPECT_EQ(ppltest::ReadWholeFile(path), "xy") << "rewriting truncates";
}

TEST(Signals, WaitTakesAPendingBlockedSignalOrTimesOut) {
    ASSERT_TRUE(UProcessSignal::Block(SIGTERM));
    ASSERT_TRUE(UProcessSignal::Send(getpid(), SIGTERM));
    EXPECT_EQ(USignal::WaitSignal(0, 100), SIGTERM);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(USignal::WaitSignal(0, 100), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(90));
}

TEST(Signals, NamesByNumber) {
    EXPECT_STREQ(USignal::GetSignalString(0), "ZERO");
    for (int signal = 1; signal < 32; ++signal) {  // the C library calls 29 POLL
        std::string name = signal == SIGIO ? "SIGIO" : std::string("SIG") + sigabbrev_np(signal);
        EXPECT_EQ(USignal::GetSignalString(signal), name);
    }
    EXPECT_STREQ(USignal::GetSignalString(32), "RT_SIGNAL");
    EXPECT_STREQ(USignal::GetSignalString(40), "RT_SIGNAL");
}

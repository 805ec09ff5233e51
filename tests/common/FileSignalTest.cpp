#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "TestFiles.h"
#include "UFile.h"
#include "USignal.h"

using commontest::CountOf;
using commontest::FileText;
using commontest::StderrCapture;
using commontest::TempDir;

TEST(FileHelpers, WriteAndReadEdgeResults) {
    TempDir dir;
    std::string missing_dir = dir.File("absent");
    std::string inside = missing_dir + "/file";
    StderrCapture quiet;
    EXPECT_TRUE(UFile::WriteFile(inside.c_str(), "", 0, 0644));
    EXPECT_FALSE(UFile::WriteFile(inside.c_str(), "abc", 3, 0644));
    EXPECT_FALSE(UFile::Exist(missing_dir.c_str()));

    char buffer[16];
    EXPECT_EQ(UFile::ReadFile(dir.File("none").c_str(), buffer, sizeof(buffer)), -1);
    quiet.Text();

    std::string path = dir.File("ten");
    ASSERT_TRUE(UFile::WriteFile(path.c_str(), "0123456789", 10, 0600));
    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(UFile::ReadFile(path.c_str(), buffer, 4), 4);
    EXPECT_EQ(std::string(buffer, 5), "0123#");
    EXPECT_EQ(UFile::ReadFile(path.c_str()), "0123456789");
    EXPECT_EQ(UFile::GetFileSize(path.c_str()), 10);

    // Rewriting truncates.
    std::string shorter = "xy";
    ASSERT_TRUE(UFile::WriteFile(path.c_str(), shorter));
    EXPECT_EQ(FileText(path), "xy");
}

TEST(FileHelpers, MissingSizeLogsOneLineWithThePath) {
    TempDir dir;
    std::string path = dir.File("nothing.ini");
    StderrCapture capture;
    EXPECT_EQ(UFile::GetFileSize(path.c_str()), -1);
    std::string log = capture.Text();
    EXPECT_EQ(CountOf(log, "\t[ENOENT(2)] GetFileSize('" + path + "') error.\n"), 1) << log;
    EXPECT_EQ(CountOf(log, "error."), 1) << log;
}

TEST(FileHelpers, PathsAndSpace) {
    TempDir dir;
    std::string deep = dir.File("a/b/c");
    EXPECT_TRUE(UFile::CreateAbsolutePath(deep.c_str(), 0755));
    EXPECT_TRUE(UFile::IsDir(deep.c_str()));
    EXPECT_TRUE(UFile::CreateAbsolutePath(deep.c_str(), 0755));

    std::string path = dir.File("reserved");
    int fd = UFile::Create(path.c_str(), 0);
    ASSERT_GE(fd, 0);
    EXPECT_FALSE(UFile::ReserveSpace4(fd, 0, 0));
    EXPECT_TRUE(UFile::ReserveSpace(fd, 0, 4096));
    EXPECT_EQ(UFile::GetFileSize(fd), 4096);
    EXPECT_TRUE(UFile::Close(fd));
}

TEST(Signals, WaitTakesPendingBlockedSignal) {
    ASSERT_TRUE(UProcessSignal::Block(SIGTERM));
    ASSERT_TRUE(UProcessSignal::Send(getpid(), SIGTERM));
    EXPECT_TRUE(USignal::HasSignals());
    EXPECT_EQ(USignal::WaitSignal(0, 100), SIGTERM);
    EXPECT_FALSE(USignal::HasSignals());

    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(USignal::WaitSignal(0, 100), 0);
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(90));
}

TEST(Signals, QueuedValueAndSubsetWaits) {
    ASSERT_TRUE(UThreadSignal::Block(SIGUSR1));
    ASSERT_TRUE(UThreadSignal::Block(SIGUSR2));
    sigset_t usr1;
    ASSERT_TRUE(USignal::EmptySet(usr1) && USignal::AddSet(usr1, SIGUSR1));
    ASSERT_TRUE(USignal::SendToSelf(SIGUSR2));
    ASSERT_TRUE(UProcessSignal::SendEx(getpid(), SIGUSR1, 77));
    siginfo_t info;
    EXPECT_EQ(USignal::WaitTimeoutEx(usr1, &info, 0, 1500), SIGUSR1);
    EXPECT_EQ(info.si_value.sival_int, 77);
    EXPECT_EQ(USignal::GetSignalEx(usr1, &info), 0);
    EXPECT_EQ(USignal::WaitSingle(SIGUSR2), SIGUSR2);
}

TEST(Signals, NamesByNumber) {
    EXPECT_STREQ(USignal::GetSignalString(0), "ZERO");
    // The C library abbreviates 29 by its other name, POLL.
    EXPECT_STREQ(USignal::GetSignalString(SIGIO), "SIGIO");
    for (int signal = 1; signal < 32; ++signal) {
        if (signal == SIGIO)
            continue;
        EXPECT_EQ(std::string(USignal::GetSignalString(signal)),
                  std::string("SIG") + sigabbrev_np(signal))
            << signal;
    }
    EXPECT_STREQ(USignal::GetSignalString(32), "RT_SIGNAL");
    EXPECT_STREQ(USignal::GetSignalString(40), "RT_SIGNAL");
    EXPECT_TRUE(USignal::IsNonBlockSignal(SIGKILL));
    EXPECT_TRUE(USignal::IsNonBlockSignal(SIGSTOP));
    EXPECT_FALSE(USignal::IsNonBlockSignal(SIGTERM));
}

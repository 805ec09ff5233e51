// Signal sets, actions, masks and synchronous waits: blocking, polling, timed
// waits and a signal that arrives while the wait runs.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <string>
#include <thread>

#include "Sandbox.h"
#include "USignal.h"

namespace {

std::atomic<int> g_caught{0}, g_value{0};

void Catch(int signal) {
    g_caught = signal;
}

void CatchWithValue(int signal, siginfo_t* info, void*) {
    g_caught = signal;
    g_value = info->si_value.sival_int;
}

// The calling thread's mask is restored at the end of each test.
class Signals : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &saved_), 0); }
    void TearDown() override { pthread_sigmask(SIG_SETMASK, &saved_, nullptr); }

    sigset_t saved_;
};

sigset_t SetOf(int a, int b) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, a);
    sigaddset(&set, b);
    return set;
}

}  // namespace

TEST(SignalSets, NamesMembersNumbersAndRefusals) {
    for (int signal = 1; signal < 32; ++signal) {  // the C library calls 29 POLL
        std::string name = signal == SIGIO ? "SIGIO" : std::string("SIG") + sigabbrev_np(signal);
        EXPECT_EQ(USignal::GetSignalString(signal), name);
    }
    EXPECT_STREQ(USignal::GetSignalString(40), "RT_SIGNAL");
    sigset_t set;
    ASSERT_TRUE(USignal::FillSet(set));
    EXPECT_TRUE(USignal::DelSet(set, SIGTERM));
    EXPECT_FALSE(USignal::InSet(set, SIGTERM));
    EXPECT_EQ(USignal::GetMaxUserSigNo(), SIGRTMAX);
    for (int signal : {0, SIGKILL, SIGSTOP, SIGTERM, SIGCONT})
        EXPECT_EQ(USignal::IsNonBlockSignal(signal),
                  signal == 0 || signal == SIGKILL || signal == SIGSTOP)
            << signal;

    testing::internal::CaptureStderr();
    EXPECT_FALSE(USignal::AddSet(set, 0));
    EXPECT_FALSE(USignal::DelSet(set, 999));
    EXPECT_FALSE(USignal::InSet(set, 999));
    EXPECT_FALSE(USignal::RegisterHandler(SIGKILL, Catch));
    struct sigaction action;
    EXPECT_FALSE(USignal::QueryHandler(999, action));
    std::string log = testing::internal::GetCapturedStderr();
    for (const char* operation : {"AddSet", "DelSet", "RegisterHandler", "QueryHandler"})
        EXPECT_NE(log.find(std::string(":") + operation + "()\t[EINVAL(22)]"), std::string::npos)
            << operation << " in:\n"
            << log;
}

TEST(SignalActions, InstalledQueriedIgnoredAndReset) {
    struct sigaction action;
    ASSERT_TRUE(USignal::RegisterHandler(SIGUSR1, Catch));
    ASSERT_TRUE(USignal::QueryHandler(SIGUSR1, action));
    EXPECT_EQ(action.sa_handler, Catch);
    g_caught = 0;
    ASSERT_TRUE(USignal::SendToSelf(SIGUSR1));
    EXPECT_EQ(g_caught, SIGUSR1);

    ASSERT_TRUE(USignal::RegisterHandlerEx(SIGUSR2, CatchWithValue));
    ASSERT_TRUE(UProcessSignal::SendEx(getpid(), SIGUSR2, 42));
    EXPECT_TRUE(ppltest::WaitFor(2000, [] { return g_caught == SIGUSR2; }));
    EXPECT_EQ(g_value, 42) << "the value travels with the signal";

    g_caught = 0;
    ASSERT_TRUE(USignal::IgnoreSignal(SIGUSR1));
    ASSERT_TRUE(USignal::SendToSelf(SIGUSR1));
    EXPECT_EQ(g_caught, 0);
    for (int signal : {SIGUSR1, SIGUSR2}) {
        ASSERT_TRUE(USignal::UnregisterHandler(signal));
        ASSERT_TRUE(USignal::QueryHandler(signal, action));
        EXPECT_EQ(action.sa_handler, SIG_DFL);
    }

    // Every signal that can be caught, then each action as it was.
    struct sigaction before[32];
    for (int signal = 1; signal < 32; ++signal)
        USignal::QueryHandler(signal, before[signal]);
    EXPECT_TRUE(USignal::RegisterAll(Catch));
    for (int signal : {SIGHUP, SIGTERM, SIGSYS}) {
        ASSERT_TRUE(USignal::QueryHandler(signal, action));
        EXPECT_EQ(action.sa_handler, Catch) << signal;
    }
    for (int signal = 1; signal < 32; ++signal) {
        if (!USignal::IsNonBlockSignal(signal))
            sigaction(signal, &before[signal], nullptr);
    }

    EXPECT_EXIT(USignal::DefaultSignalHandler(SIGUSR1), testing::ExitedWithCode(1),
                "Received Signal \\(SIGUSR1\\)");
}

// The same mask operations of the process (Mask = UProcessSignal) or of the
// calling thread (UThreadSignal).
template <typename Mask>
void ExpectMaskOperations() {
    sigset_t mask, none, pair = SetOf(SIGUSR1, SIGUSR2);
    sigemptyset(&none);
    ASSERT_TRUE(Mask::SetSignalMask(none));
    ASSERT_TRUE(Mask::Block(SIGUSR1) && Mask::GetSignalMask(mask));
    EXPECT_TRUE(sigismember(&mask, SIGUSR1));
    ASSERT_TRUE(Mask::Unblock(SIGUSR1) && Mask::BlockMultiple(pair) && Mask::GetSignalMask(mask));
    EXPECT_TRUE(sigismember(&mask, SIGUSR1) && sigismember(&mask, SIGUSR2));
    ASSERT_TRUE(Mask::UnblockMultiple(pair) && Mask::GetSignalMask(mask));
    EXPECT_TRUE(sigisemptyset(&mask));
    ASSERT_TRUE(Mask::BlockAll() && Mask::GetSignalMask(mask));
    EXPECT_TRUE(sigismember(&mask, SIGTERM) && !sigismember(&mask, SIGKILL));
    EXPECT_FALSE(Mask::Block(999));
}

TEST_F(Signals, MasksOfTheProcessAndOfOneThread) {
    ExpectMaskOperations<UProcessSignal>();
    ExpectMaskOperations<UThreadSignal>();
}

TEST_F(Signals, WaitsTakePendingSignalsBlockOrTimeOut) {
    sigset_t pair = SetOf(SIGUSR1, SIGUSR2);
    ASSERT_TRUE(UProcessSignal::BlockMultiple(pair));
    siginfo_t info;
    EXPECT_FALSE(USignal::HasSignals());
    EXPECT_EQ(USignal::GetSignalEx(pair, &info), 0) << "polling finds nothing";
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(USignal::WaitSignal(0, 100), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(90));

    ASSERT_TRUE(UProcessSignal::Send(getpid(), SIGUSR1));
    EXPECT_TRUE(USignal::HasSignals());
    EXPECT_EQ(USignal::WaitSignal(0, 100), SIGUSR1);
    ASSERT_TRUE(USignal::SendToSelf(SIGUSR2));
    EXPECT_EQ(USignal::WaitSingle(SIGUSR2), SIGUSR2);
    ASSERT_TRUE(UProcessSignal::SendEx(getpid(), SIGUSR1, 7));
    EXPECT_EQ(USignal::WaitEx(pair, &info), SIGUSR1);
    EXPECT_EQ(info.si_value.sival_int, 7);
    ASSERT_TRUE(USignal::SendToSelf(SIGUSR2));
    EXPECT_EQ(USignal::GetSignalEx(pair, nullptr), SIGUSR2);

    // Signals sent to this thread while it (most likely) waits already.
    pthread_t waiter = pthread_self();
    std::atomic<bool> first_taken{false};
    std::thread sender([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        UThreadSignal::Send(waiter, SIGUSR2);
        ppltest::WaitFor(5000, [&] { return first_taken.load(); });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        UThreadSignal::SendEx(waiter, SIGUSR1, 9);
    });
    EXPECT_EQ(USignal::WaitSignal(), SIGUSR2);
    first_taken = true;
    EXPECT_EQ(USignal::WaitTimeoutEx(pair, &info, 5, 0), SIGUSR1);
    EXPECT_EQ(info.si_value.sival_int, 9);
    sender.join();
    ASSERT_TRUE(UThreadSignal::Send(waiter, SIGUSR1));
    EXPECT_EQ(USignal::WaitMultiple(pair), SIGUSR1);

    testing::internal::CaptureStderr();
    EXPECT_EQ(USignal::WaitSignal(0, -1), -1) << "a negative time-out";
    EXPECT_EQ(USignal::WaitSingle(999), -1);
    EXPECT_FALSE(UProcessSignal::Send(INT_MAX, SIGUSR1));
    EXPECT_FALSE(UProcessSignal::SendEx(INT_MAX, SIGUSR1, 0));
    EXPECT_FALSE(UThreadSignal::Send(waiter, 999));
    EXPECT_FALSE(UThreadSignal::SendEx(waiter, 999, 0));
    std::string log = testing::internal::GetCapturedStderr();
    for (const char* reported :
         {":WaitTimeoutEx()\t[EINVAL(22)]", ":AddSet()\t[EINVAL(22)]", ":Send()\t[ESRCH(3)]",
          ":SendEx()\t[ESRCH(3)]", ":Send()\t[EINVAL(22)]", ":SendEx()\t[EINVAL(22)]"})
        EXPECT_NE(log.find(reported), std::string::npos) << reported << " in:\n" << log;
}

// The real binary starts, runs its loop and ends cleanly on either signal.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <unistd.h>

#include <csignal>

#include "SandboxGTest.h"
#include "ServiceHarness.h"

namespace ppltest {
namespace {

class Lifecycle : public ::testing::TestWithParam<int> {};

TEST_P(Lifecycle, EndsWithStatusZeroWithinAPass) {
    PPL_ENTER_SANDBOX_OR_SKIP();
    ServiceHarness h;
    ASSERT_TRUE(h.StartService());
    // The command socket appears once the loop is about to run.
    ASSERT_TRUE(WaitFor(5000, [] { return access("/tmp/SI_PPLCOUNTER", F_OK) == 0; }));
    ASSERT_TRUE(WaitFor(5000, [] { return access(ServiceHarness::kStatusIni, F_OK) == 0; }));
    int status = h.StopService(GetParam(), 1000);
    ASSERT_NE(status, -1) << "service did not end within a second";
    ASSERT_TRUE(WIFEXITED(status)) << h.Stderr();
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_NE(h.Stderr().find("PPLCounter::Run(), receive interrupt.\n"), std::string::npos)
        << h.Stderr();
    // The owned queue (601) is removed and the socket file unlinked.
    EXPECT_EQ(access("/tmp/SI_PPLCOUNTER", F_OK), -1);
}

INSTANTIATE_TEST_SUITE_P(Signals, Lifecycle, ::testing::Values(SIGTERM, SIGINT),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return info.param == SIGTERM ? "SIGTERM" : "SIGINT";
                         });

}  // namespace
}  // namespace ppltest

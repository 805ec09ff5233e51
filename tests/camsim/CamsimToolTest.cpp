#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "Sandbox.h"
#include "ipc_va.h"

namespace {

std::string Tool() {
    return ppltest::BuiltFile("camsim");
}

TEST(CamsimTool, HelpExplainsTheOptionsAndUsageErrorsExitWith2) {
    ppltest::Child help, bad;
    ASSERT_TRUE(help.Start({Tool(), "--help"}, testing::TempDir()));
    ASSERT_TRUE(bad.Start({Tool(), "--rate", "5"}, testing::TempDir()));  // no camera
    ASSERT_TRUE(help.Wait(5000) && bad.Wait(5000));
    EXPECT_EQ(0, WEXITSTATUS(help.ExitStatus()));
    EXPECT_EQ(2, WEXITSTATUS(bad.ExitStatus()));
    for (const char* option : {"--lapi", "--rate", "--seed", "--seconds", "--verbose"})
        EXPECT_NE(std::string::npos, help.Stdout().find(option)) << option;
}

// The event channel subscribes to the tool's camera and gets the walking
// model's events until the tool is terminated.
TEST(CamsimTool, StreamsEventsToASubscriberUntilTerminated) {
    ppltest::Child tool;
    ASSERT_TRUE(
        tool.Start({Tool(), "--lapi", "0", "--rate", "3000", "--seed", "7"}, testing::TempDir()));
    int port = 0;
    ASSERT_TRUE(ppltest::WaitFor(5000, [&] {
        std::string out = tool.Stdout();
        size_t at = out.find(" listening");
        if (at != std::string::npos)
            port = std::stoi(out.substr(out.rfind(':', at) + 1));
        return port > 0;
    }));
    int fd = ipcva_connect("127.0.0.1", static_cast<unsigned short>(port), 3000);
    ASSERT_GE(fd, 0);
    std::string msg;
    EXPECT_TRUE(ppltest::WaitFor(3000, [&] { return ipcva_recv_msg(fd, msg, {0, 200000}) > 0; }));
    EXPECT_EQ(0u, msg.find("{\"ObjectIn\":"));
    close(fd);
    EXPECT_TRUE(tool.Signal(SIGTERM));
    ASSERT_TRUE(tool.Wait(5000));
    EXPECT_EQ(0, WEXITSTATUS(tool.ExitStatus()));
    EXPECT_NE(std::string::npos, tool.Stdout().find("event to 1 subscriber(s)"));
}

}  // namespace

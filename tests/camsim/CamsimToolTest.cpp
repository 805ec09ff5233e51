#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "Sandbox.h"
#include "ipc_va.h"

namespace {

std::string Tool() {
    return ppltest::BuiltFile("camsim");
}

// Runs the tool to its end; its exit status.
int RunTool(const std::vector<std::string>& args, ppltest::Child& tool) {
    std::vector<std::string> argv{Tool()};
    argv.insert(argv.end(), args.begin(), args.end());
    if (!tool.Start(argv, testing::TempDir()) || !tool.Wait(10000))
        return -1;
    return WIFEXITED(tool.ExitStatus()) ? WEXITSTATUS(tool.ExitStatus()) : -1;
}

TEST(CamsimTool, HelpExplainsTheOptionsAndUsageErrorsExitWith2) {
    ppltest::Child help;
    EXPECT_EQ(RunTool({"--help"}, help), 0);
    for (const char* option : {"--lapi", "--rate", "--seed", "--seconds", "--verbose"})
        EXPECT_NE(std::string::npos, help.Stdout().find(option)) << option;
    const std::vector<std::vector<std::string>> usage_errors = {
        {"--rate", "5"},  // no camera
        {"--lapi"},
        {"--lapi", "70000"},
        {"--lapi", "0", "--seconds", "-1"},
        {"--lapi", "0", "--seed", "x"},
        {"--lapi", "0", "--subscribe", "sometimes"}};
    for (const auto& args : usage_errors) {
        ppltest::Child bad;
        EXPECT_EQ(RunTool(args, bad), 2) << args.back();
        EXPECT_EQ(bad.Stderr().rfind("camsim: ", 0), 0u) << bad.Stderr();
    }
    ppltest::Child unbound;
    EXPECT_EQ(RunTool({"--lapi", "0", "--bind", "999.0.0.1"}, unbound), 1);
    EXPECT_EQ(unbound.Stderr().rfind("camsim: cannot listen on 999.0.0.1:0: ", 0), 0u)
        << unbound.Stderr();
}

// Subscribes to the running tool's camera; the first event body it sends.
std::string FirstEvent(ppltest::Child& tool) {
    int port = 0;
    std::string msg;
    ppltest::WaitFor(5000, [&] {
        std::string out = tool.Stdout();
        size_t at = out.find(" listening");
        if (at != std::string::npos)
            port = std::stoi(out.substr(out.rfind(':', at) + 1));
        return port > 0;
    });
    int fd = port > 0 ? ipcva_connect("127.0.0.1", static_cast<unsigned short>(port), 3000) : -1;
    if (fd >= 0)
        ppltest::WaitFor(3000, [&] { return ipcva_recv_msg(fd, msg, {0, 200000}) > 0; });
    close(fd);
    return msg;
}

// The event channel subscribes to the tool's camera and gets the walking
// model's events until the tool is terminated.
TEST(CamsimTool, StreamsEventsToASubscriberUntilTerminated) {
    ppltest::Child tool;
    ASSERT_TRUE(
        tool.Start({Tool(), "--lapi", "0", "--rate", "3000", "--seed", "7"}, testing::TempDir()));
    EXPECT_EQ(0u, FirstEvent(tool).find("{\"ObjectIn\":"));
    EXPECT_TRUE(tool.Signal(SIGTERM));
    ASSERT_TRUE(tool.Wait(5000));
    EXPECT_EQ(0, WEXITSTATUS(tool.ExitStatus()));
    EXPECT_NE(std::string::npos, tool.Stdout().find("event to 1 subscriber(s)"));
}

}  // namespace

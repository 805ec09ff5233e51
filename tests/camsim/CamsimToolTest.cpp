#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "Sandbox.h"

namespace {

std::string Tool() {
    return ppltest::BuiltFile("camsim");
}

TEST(CamsimTool, HelpExplainsTheOptions) {
    ppltest::Child child;
    ASSERT_TRUE(child.Start({Tool(), "--help"}, testing::TempDir()));
    ASSERT_TRUE(child.Wait(5000));
    EXPECT_EQ(0, WEXITSTATUS(child.ExitStatus()));
    for (const char* option : {"--lapi", "--rate", "--seed", "--seconds", "--verbose"}) {
        EXPECT_NE(std::string::npos, child.Stdout().find(option)) << option;
    }
    ppltest::Child bad;
    ASSERT_TRUE(bad.Start({Tool(), "--rate", "5"}, testing::TempDir()));  // no camera
    ASSERT_TRUE(bad.Wait(5000));
    EXPECT_EQ(2, WEXITSTATUS(bad.ExitStatus()));
}

// A subscriber gets the answer and then one event per person walking past.
TEST(CamsimTool, StreamsEventsToASubscriberUntilTerminated) {
    ppltest::Child child;
    ASSERT_TRUE(
        child.Start({Tool(), "--lapi", "0", "--rate", "3000", "--seed", "7"}, testing::TempDir()));
    int port = 0;
    ASSERT_TRUE(ppltest::WaitFor(5000, [&] {
        std::string out = child.Stdout();
        size_t at = out.find("listening");
        if (at == std::string::npos)
            return false;
        port = std::stoi(out.substr(out.rfind(':', at) + 1));
        return true;
    }));
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)));
    std::string request =
        "POST /LAPI/V1.0/System/Event/Subscription HTTP/1.1\r\nContent-Length: 2\r\n\r\n{}";
    ASSERT_EQ(static_cast<ssize_t>(request.size()), send(fd, request.data(), request.size(), 0));
    std::string got;
    timeval tv = {3, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    char buf[4096];
    while (got.find("\"TotalOut\"", got.find("Event/Notification")) == std::string::npos) {
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n <= 0)
            break;
        got.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    EXPECT_EQ(0u, got.find("HTTP/1.1 200 OK\r\n"));
    EXPECT_NE(std::string::npos, got.find("Content-Length: "));
    EXPECT_NE(std::string::npos, got.find("{\"ObjectIn\":"));
    EXPECT_TRUE(child.Signal(SIGTERM));
    ASSERT_TRUE(child.Wait(5000));
    EXPECT_EQ(0, WEXITSTATUS(child.ExitStatus()));
    EXPECT_NE(std::string::npos, child.Stdout().find("event to 1 subscriber(s)"));
}

}  // namespace

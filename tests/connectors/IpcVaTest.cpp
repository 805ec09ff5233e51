#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "CameraSim.h"
#include "LoopbackPeers.h"
#include "Sandbox.h"
#include "ipc_va.h"

namespace {

using camsim::Camera;
using camsim::Subscribe;
using ppltest::Stopwatch;

const timeval kWait = {0, 200000};

class Channel : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(cam_.Start()); }
    void TearDown() override {
        if (fd_ >= 0)
            close(fd_);
    }
    int Connect(int recv_timeout_s = IPCVA_SOCKET_TIMEOUT_S) {
        IPCVA_WAITS waits;
        waits.recv_timeout_s = recv_timeout_s;
        fd_ = ipcva_connect("127.0.0.1", static_cast<unsigned short>(cam_.Port()), 3000, waits);
        return fd_;
    }
    int Option(int level, int name) {
        int value = -1;
        socklen_t len = sizeof(value);
        getsockopt(fd_, level, name, &value, &len);
        return value;
    }
    long TimeOption(int name) {
        timeval tv = {0, 0};
        socklen_t len = sizeof(tv);
        getsockopt(fd_, SOL_SOCKET, name, &tv, &len);
        return tv.tv_sec * 1000 + tv.tv_usec / 1000;
    }
    int Recv(std::string& msg) { return ipcva_recv_msg(fd_, msg, kWait); }

    Camera cam_;
    int fd_ = -1;
};

TEST_F(Channel, SubscribesWithExactRequestAndSocketOptions) {
    ASSERT_GE(Connect(), 0);
    ASSERT_TRUE(cam_.WaitForRequests(1, 2000));
    EXPECT_EQ(
        "POST /LAPI/V1.0/System/Event/Subscription HTTP/1.1\r\n"
        "Content-Type: application/json\r\nUser-Agent: Tarn-DummyAgent/1.00.0\r\n"
        "Accept: */*\r\nCache-Control: no-cache\r\nHost: 127.0.0.1\r\nContent-Length: 30\r\n"
        "Connection: keep-alive\r\n\r\n{\"Duration\":3600,\"Type\":65535}",
        cam_.Requests()[0].raw);
    EXPECT_EQ(0, fcntl(fd_, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(1, Option(SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(10, Option(IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_EQ(3, Option(IPPROTO_TCP, TCP_KEEPCNT));
    EXPECT_EQ(2, Option(IPPROTO_TCP, TCP_KEEPINTVL));
    EXPECT_EQ(10000, TimeOption(SO_RCVTIMEO));
    EXPECT_EQ(10000, TimeOption(SO_SNDTIMEO));
}

TEST_F(Channel, ReceivesEventBodiesOneAtATime) {
    ASSERT_GE(Connect(), 0);
    ASSERT_TRUE(cam_.WaitForSubscribers(1, 2000));
    std::string msg;
    EXPECT_EQ(0, Recv(msg));  // nothing yet
    cam_.SetTotals(12, 6);
    cam_.Walk(0, 1);
    cam_.SendRaw(Camera::EventMessage("{\"a\":1}") +
                 "POST /e HTTP/1.1\r\nContent-Length: 0\r\n\r\n");
    std::string body = std::string(1023, 'z');
    cam_.SendBody(body);
    ASSERT_EQ(54, Recv(msg));
    EXPECT_EQ("{\"ObjectIn\":0,\"ObjectOut\":1,\"TotalIn\":12,\"TotalOut\":7}", msg);
    EXPECT_EQ(7, Recv(msg));
    EXPECT_EQ("{\"a\":1}", msg);
    msg = "stale";
    EXPECT_EQ(0, Recv(msg));  // an empty body counts as nothing
    EXPECT_EQ("", msg);
    EXPECT_EQ(1023, Recv(msg));
    EXPECT_EQ(body, msg);
    EXPECT_EQ(-1, ipcva_recv_msg(-1, msg, kWait));
}

// Each malformed or cut message fails the read; nothing is written past
// the buffers (the sanitizer build checks that).
TEST_F(Channel, BadEventMessagesFail) {
    const std::vector<std::string> bad = {
        "POST /e HTTP/1.1\r\nX: 1\r\n\r\n",                   // no Content-Length
        "POST /e HTTP/1.1\r\ncontent-length: 2\r\n\r\n{}",    // wrong case
        "POST /e HTTP/1.1\r\nContent-Length: -4\r\n\r\n",     // negative
        "POST /e HTTP/1.1\r\nContent-Length: 1024\r\n\r\n",   // too long for the buffer
        "POST /e HTTP/1.1\r\nX: " + std::string(17000, 'h'),  // head too long
        "POST /e HTTP/1.1 extra\r\n\r\n",                     // four words
        std::string("\x00\xff\x01 \x02 \x03\r\n\r\n", 12),    // binary garbage
    };
    for (const std::string& bytes : bad) {
        if (fd_ >= 0)
            close(fd_);
        ASSERT_TRUE(ppltest::WaitFor(2000, [&] { return cam_.Subscribers() == 0; }));
        ASSERT_GE(Connect(), 0);
        ASSERT_TRUE(cam_.WaitForSubscribers(1, 2000));
        cam_.SendRaw(bytes);
        std::string msg;
        int result = 0;
        for (int tries = 0; tries < 20 && result == 0; ++tries)
            result = Recv(msg);
        EXPECT_LT(result, 0) << testing::PrintToString(bytes.substr(0, 60));
    }
}

TEST_F(Channel, BodyThatNeverComesFailsAfterTheReceiveTimeOut) {
    ASSERT_GE(Connect(1), 0);
    ASSERT_TRUE(cam_.WaitForSubscribers(1, 2000));
    cam_.SendRaw("POST /e HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc");
    Stopwatch watch;
    std::string msg;
    EXPECT_EQ(-1, Recv(msg));
    EXPECT_GE(watch.Ms(), 900);
    EXPECT_LT(watch.Ms(), 3000);
}

TEST_F(Channel, CameraClosingFailsTheRead) {
    ASSERT_GE(Connect(), 0);
    ASSERT_TRUE(cam_.WaitForSubscribers(1, 2000));
    cam_.SendRaw("POST /e HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc");
    cam_.DropConnections();
    std::string msg;
    EXPECT_EQ(-1, Recv(msg));
}

// Every answer but a 200 with a complete body fails, with the socket closed.
TEST_F(Channel, SubscriptionAnswersThatFail) {
    for (Subscribe how :
         {Subscribe::Unauthorized, Subscribe::OkWithoutBody, Subscribe::OkZeroLength,
          Subscribe::OkShortBody, Subscribe::OkHugeBody, Subscribe::LongHeaderLine,
          Subscribe::CloseMidHead, Subscribe::Garbage, Subscribe::CloseAtOnce, Subscribe::Silent}) {
        cam_.SetSubscribe(how);
        int accepted = cam_.AcceptedConnections();
        EXPECT_EQ(-1, Connect(1)) << static_cast<int>(how);
        EXPECT_EQ(accepted + 1, cam_.AcceptedConnections());
        EXPECT_TRUE(ppltest::WaitFor(2000, [&] { return cam_.OpenConnections() == 0; }))
            << static_cast<int>(how);
    }
}

TEST_F(Channel, ContentLengthIsReadWithOrWithoutBlank) {
    const std::vector<std::string> answers = {
        "HTTP/1.1 200 OK\r\nContent-Length:2\r\n\r\n{}",
        "HTTP/1.1 200 OK\r\nContent-Length: 4\r\nContent-Length: 2\r\n\r\n{}",  // last wins
    };
    cam_.AddRoute("POST", "/LAPI/V1.0/System/Event/Subscription",
                  [answers](const camsim::Request& req, camsim::Exchange& ex) {
                      ex.Send(answers[(req.connection - 1) % answers.size()]);
                  });
    EXPECT_GE(Connect(), 0);
    close(fd_);
    EXPECT_GE(Connect(), 0);
}

TEST(ChannelConnect, RefusedConnectFailsWithThePendingError) {
    Camera cam;
    ASSERT_TRUE(cam.Start());
    cam.SetRefusing(true);
    EXPECT_EQ(-1, ipcva_connect("127.0.0.1", static_cast<unsigned short>(cam.Port()), 3000));
    EXPECT_EQ(ECONNREFUSED, errno);
}

TEST(ChannelConnect, PeerThatDoesNotAnswerTimesOut) {
    ppltest::SilentListener silent;
    ASSERT_TRUE(silent.Ready());
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in peer = ppltest::SilentListener::Loopback(silent.Port());
    Stopwatch watch;
    EXPECT_EQ(0, socketConnect(fd, reinterpret_cast<sockaddr*>(&peer), sizeof(peer), 300));
    EXPECT_GE(watch.Ms(), 250);
    EXPECT_LT(watch.Ms(), 2000);
    close(fd);

    Stopwatch whole;
    EXPECT_EQ(-1, ipcva_connect("127.0.0.1", static_cast<unsigned short>(silent.Port()), 1000));
    EXPECT_GE(whole.Ms(), 900);
    EXPECT_LT(whole.Ms(), 3000);
}

TEST(ChannelConnect, WakeDescriptorAbandonsAPendingConnect) {
    ppltest::SilentListener silent;
    ASSERT_TRUE(silent.Ready());
    IPCVA_WAITS waits;
    waits.wake_fd = eventfd(1, EFD_CLOEXEC);
    Stopwatch watch;
    EXPECT_EQ(-1,
              ipcva_connect("127.0.0.1", static_cast<unsigned short>(silent.Port()), 3000, waits));
    EXPECT_EQ(ECANCELED, errno);
    EXPECT_LT(watch.Ms(), 1000);
    close(waits.wake_fd);
}

}  // namespace

// The event channel and the LAPI counter against the camera simulator.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "CameraSim.h"
#include "Sandbox.h"
#include "UBrand_PPL_Counter.h"
#include "ipc_va.h"

namespace {

using camsim::Camera;
using camsim::Subscribe;
using ppltest::WaitFor;

// Milliseconds the call took.
long MsTaken(const std::function<void()>& call) {
    auto start = std::chrono::steady_clock::now();
    call();
    auto taken = std::chrono::steady_clock::now() - start;
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(taken).count());
}

// Never accepts and has a full queue: a further connect can only time out.
class SilentListener {
public:
    SilentListener() {
        sockaddr_in sa = {};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(sa);
        sockaddr* addr = reinterpret_cast<sockaddr*>(&sa);
        if (bind(fd_, addr, len) != 0 || listen(fd_, 0) != 0 || getsockname(fd_, addr, &len) != 0)
            return;
        port_ = ntohs(sa.sin_port);
        while (!full_ && fillers_.size() < 16) {
            fillers_.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
            connect(fillers_.back(), addr, len);
            pollfd p = {fillers_.back(), POLLOUT, 0};
            full_ = poll(&p, 1, 200) == 0;
        }
    }
    virtual ~SilentListener() {
        for (int c : fillers_)
            close(c);
        close(fd_);
    }
    bool Ready() const { return full_; }
    unsigned short Port() const { return port_; }

private:
    int fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    unsigned short port_ = 0;
    bool full_ = false;
    std::vector<int> fillers_;
};

class Channel : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(cam_.Start()); }
    void TearDown() override { CloseFd(); }
    void CloseFd() { close(std::exchange(fd_, -1)); }
    int Connect(int recv_timeout_s = IPCVA_SOCKET_TIMEOUT_S) {
        IPCVA_WAITS waits;
        waits.recv_timeout_s = recv_timeout_s;
        fd_ = ipcva_connect("127.0.0.1", static_cast<unsigned short>(cam_.Port()), 3000, waits);
        return fd_;
    }
    // A new subscribed connection, once the camera holds no earlier one.
    void Resubscribe(int recv_timeout_s = IPCVA_SOCKET_TIMEOUT_S) {
        CloseFd();
        ASSERT_TRUE(WaitFor(2000, [&] { return cam_.Subscribers() == 0; }));
        ASSERT_GE(Connect(recv_timeout_s), 0);
        ASSERT_TRUE(cam_.WaitForSubscribers(1, 2000));
    }
    int Recv(std::string& msg) { return ipcva_recv_msg(fd_, msg, {0, 200000}); }

    Camera cam_;
    int fd_ = -1;
};

// The answer's Content-Length needs no blank after the colon; the last wins.
TEST_F(Channel, SubscribesWithTheExactRequest) {
    cam_.AddRoute("POST", "/LAPI/V1.0/System/Event/Subscription",
                  [](const camsim::Request&, camsim::Exchange& ex) {
                      ex.Send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\nContent-Length:2\r\n\r\n{}");
                  });
    ASSERT_GE(Connect(1), 0);
    ASSERT_TRUE(cam_.WaitForRequests(1, 2000));
    EXPECT_EQ(
        "POST /LAPI/V1.0/System/Event/Subscription HTTP/1.1\r\n"
        "Content-Type: application/json\r\nUser-Agent: Tarn-DummyAgent/1.00.0\r\n"
        "Accept: */*\r\nCache-Control: no-cache\r\nHost: 127.0.0.1\r\nContent-Length: 30\r\n"
        "Connection: keep-alive\r\n\r\n{\"Duration\":3600,\"Type\":65535}",
        cam_.Requests()[0].raw);
}

// Each on a fresh connection; no failure may write past the buffers (ASan).
TEST_F(Channel, EventMessages) {
    const std::string longest(1023, 'z');
    const std::string head = "POST /e HTTP/1.1\r\n";
    const std::vector<std::pair<std::string, int>> messages = {
        {Camera::EventMessage("{\"a\":1}"), 7},
        {Camera::EventMessage(longest), 1023},
        {head + "Content-Length: 0\r\n\r\n", 0},
        {head + "X: 1\r\n\r\n", -1},                              // no Content-Length
        {head + "content-length: 2\r\n\r\n{}", -1},               // wrong case
        {head + "Content-Length: -4\r\n\r\n", -1},                // negative
        {Camera::EventMessage(longest + "z"), -1},                // too long for the buffer
        {head + "X: " + std::string(17000, 'h'), -1},             // head too long
        {"POST /e HTTP/1.1 extra\r\n\r\n", -1},                   // four words
        {std::string("\x00\xff\x01 \x02 \x03\r\n\r\n", 12), -1},  // binary garbage
    };
    for (const auto& message : messages) {
        Resubscribe();
        cam_.SendRaw(message.first);
        std::string msg = "stale";
        EXPECT_EQ(message.second, std::max(-1, Recv(msg)))
            << testing::PrintToString(message.first.substr(0, 60));
        if (message.second >= 0) {
            EXPECT_EQ(message.first.substr(message.first.size() - message.second), msg);
        }
    }
    std::string msg;
    EXPECT_EQ(-1, ipcva_recv_msg(-1, msg, {0, 0}));
}

// Failure after the receive time-out, or at once when the camera closes.
TEST_F(Channel, BodyCutShortFails) {
    const std::string cut = "POST /e HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc";
    std::string msg;
    Resubscribe(1);
    cam_.SendRaw(cut);
    long ms = MsTaken([&] { EXPECT_EQ(-1, Recv(msg)); });
    EXPECT_GE(ms, 900);
    EXPECT_LT(ms, 3000);
    Resubscribe(5);
    cam_.SendRaw(cut);
    cam_.DropConnections();
    EXPECT_LT(MsTaken([&] { EXPECT_EQ(-1, Recv(msg)); }), 2000);
}

// Every answer but a 200 with a whole body fails and closes the socket.
TEST_F(Channel, SubscriptionAnswersThatFail) {
    for (Subscribe how :
         {Subscribe::Unauthorized, Subscribe::OkWithoutBody, Subscribe::OkZeroLength,
          Subscribe::OkShortBody, Subscribe::OkHugeBody, Subscribe::LongHeaderLine,
          Subscribe::CloseMidHead, Subscribe::Garbage, Subscribe::CloseAtOnce, Subscribe::Silent}) {
        SCOPED_TRACE(static_cast<int>(how));
        cam_.SetSubscribe(how);
        int accepted = cam_.AcceptedConnections();
        EXPECT_EQ(-1, Connect(1));
        EXPECT_EQ(accepted + 1, cam_.AcceptedConnections());
        EXPECT_TRUE(WaitFor(2000, [&] { return cam_.OpenConnections() == 0; }));
    }
    cam_.SetRefusing(true);
    EXPECT_EQ(-1, Connect());
    EXPECT_EQ(ECONNREFUSED, errno);
}

TEST(ChannelConnect, PeerThatDoesNotAnswerTimesOut) {
    SilentListener silent;
    ASSERT_TRUE(silent.Ready());
    long ms = MsTaken([&] {
        EXPECT_EQ(-1, ipcva_connect("127.0.0.1", silent.Port(), 1000));
        EXPECT_EQ(ETIMEDOUT, errno);
    });
    EXPECT_GE(ms, 900);
    EXPECT_LT(ms, 3000);
}

using Seen = std::vector<std::pair<int, int>>;

// Records the camera totals seen by each callback.
struct RecordingCB : Abstract_PPL_CB {
    void count_result(Abstract_PPL_Counter* c) override {
        std::lock_guard<std::mutex> guard(lock);
        seen.emplace_back(c->get_ppl_total_cam_in(), c->get_ppl_total_cam_out());
    }
    bool WaitForTotals(int in, int out) {
        return WaitFor(3000, [&] {
            std::lock_guard<std::mutex> guard(lock);
            return !seen.empty() && seen.back() == std::make_pair(in, out);
        });
    }

    std::mutex lock;
    Seen seen;  // read unlocked only while no worker runs
};

class LapiCounter : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(cam_.Start());
        counter_.set_ppl_count_callback(&cb_);
    }
    void TearDown() override { counter_.stop(); }
    void Aim(int port, bool refusing = false, Subscribe answer = Subscribe::Ok) {
        cam_.SetRefusing(refusing);
        cam_.SetSubscribe(answer);
        counter_.set_server_addr("127.0.0.1");
        counter_.set_server_port(port);
    }
    // Only then does an event sent now reach the counter.
    bool OneFreshSubscriber() {
        return WaitFor(3000, [&] {
            return cam_.Subscribers() == 1 && cam_.OpenConnections() == 1 && counter_.is_connect();
        });
    }
    void StartConnected() {
        Aim(cam_.Port());
        counter_.start();
        ASSERT_TRUE(OneFreshSubscriber());
    }
    std::string Parse(const std::string& json) {
        testing::internal::CaptureStderr();
        counter_.CountingResult(json);
        return testing::internal::GetCapturedStderr();
    }

    Camera cam_;
    RecordingCB cb_;
    UBrand_PPL_Counter counter_{3};
};

TEST_F(LapiCounter, EventParsingBySubstring) {
    EXPECT_EQ("[Dual Cam, idx: 3] Set in: 1, out: 2, total in: 12, total out: 7\n",
              Parse("{\"ObjectIn\":1,\"ObjectOut\":2,\"TotalIn\":12,\"TotalOut\":7}"));
    counter_.set_dir(PPL_DIR_OUT);
    EXPECT_EQ("[Out Cam, idx: 3] Set in: 0, out: 0, total in: 4, total out: 9\n",
              Parse("{\"TotalIn\":4,\"TotalOut\":9}"));
    EXPECT_EQ(-5, counter_.get_ppl_total_cam_stayin());
    counter_.set_dir(static_cast<PPL_DIR>(5));
    // TotalOut without a "}" after it, and a blank before a colon, give 0;
    // a blank after the colon is skipped by the number reader.
    EXPECT_EQ("[Unknown Cam, idx: 3] Set in: 5, out: 0, total in: 0, total out: 0\n",
              Parse("{\"ObjectIn\": 5,\"ObjectOut\" :6,\"TotalIn\":x1,\"TotalOut\":3,"));
    Parse("nothing here");
    Parse("{\"TotalIn\":3,\"TotalOut\":1}");
    counter_.reset_ppl_total_counts();
    // Fired on every event, changed or not, and on a reset.
    EXPECT_EQ((Seen{{12, 7}, {4, 9}, {0, 0}, {0, 0}, {3, 1}, {0, 0}}), cb_.seen);
}

// No attempt without a port; a second start() or stop() changes nothing.
TEST_F(LapiCounter, StartCountStopAndStartAgain) {
    counter_.stop();
    counter_.set_server_addr("127.0.0.1");
    counter_.start();
    usleep(400000);  // the worker looks for a port twice meanwhile
    EXPECT_EQ(0, cam_.AcceptedConnections());
    cam_.SetTotals(10, 4);
    StartConnected();
    EXPECT_TRUE(counter_.is_running());
    cam_.Walk(1, 0);
    EXPECT_TRUE(cb_.WaitForTotals(11, 4));
    cam_.Walk(0, 2);
    EXPECT_TRUE(cb_.WaitForTotals(11, 6));
    EXPECT_EQ(5, counter_.get_ppl_total_cam_stayin());
    counter_.stop();
    counter_.stop();
    EXPECT_FALSE(counter_.is_running() || counter_.is_connect());
    EXPECT_EQ("", counter_.get_server_addr());
    EXPECT_EQ(0, counter_.get_server_port());
    EXPECT_EQ(11, counter_.get_ppl_total_cam_in());
    StartConnected();
    EXPECT_EQ(2, cam_.AcceptedConnections());
}

// reconnect() with nothing open does nothing, on an idle connection it wakes
// the worker; dropped connections are made and subscribed again at once.
TEST_F(LapiCounter, ConnectionIsMadeAgainAtOnce) {
    counter_.start();
    counter_.reconnect();
    StartConnected();
    usleep(400000);  // time for a second connection that must not come
    EXPECT_EQ(1, cam_.AcceptedConnections());
    counter_.reconnect();
    ASSERT_TRUE(cam_.WaitForRequests(2, 3000));
    ASSERT_TRUE(OneFreshSubscriber());
    cam_.Restart();  // totals back at zero
    EXPECT_LT(MsTaken([&] { EXPECT_TRUE(cam_.WaitForRequests(3, 3000)); }), 1500);
    ASSERT_TRUE(OneFreshSubscriber());
    cam_.Walk(2, 1);
    EXPECT_TRUE(cb_.WaitForTotals(2, 1));
    cam_.SendRaw("POST /e HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(cam_.WaitForRequests(4, 3000));
    for (const camsim::Request& r : cam_.Requests())
        EXPECT_EQ("/LAPI/V1.0/System/Event/Subscription", r.path);
}

TEST_F(LapiCounter, FailedConnectWaitsTwoSeconds) {
    Aim(cam_.Port(), true);
    long ms = MsTaken([&] {
        counter_.start();
        usleep(300000);  // the first attempt meets the closed port
        cam_.SetRefusing(false);
        EXPECT_TRUE(cam_.WaitForSubscribers(1, 4000));
    });
    EXPECT_GE(ms, 1700);
    EXPECT_LT(ms, 3500);
}

// stop() returns promptly whatever the worker is waiting for. Where the
// camera shows that the state was reached the test waits for that; the
// other states give no sign, and get a moment to be entered.
TEST_F(LapiCounter, StopIsPromptFromEveryState) {
    SilentListener silent;
    ASSERT_TRUE(silent.Ready());
    const auto a_moment = [] {
        usleep(300000);
        return true;
    };
    struct State {
        const char* name;
        std::function<void()> enter;
        std::function<bool()> reached;
    };
    const std::vector<State> states = {
        {"waiting for a target", [] {}, a_moment},
        {"connected and idle", [&] { StartConnected(); }, [&] { return counter_.is_connect(); }},
        {"connect pending", [&] { Aim(silent.Port()); }, a_moment},
        {"pause after a refusal", [&] { Aim(cam_.Port(), true); }, a_moment},
        {"subscription unanswered", [&] { Aim(cam_.Port(), false, Subscribe::Silent); },
         [&] { return cam_.WaitForRequests(1, 3000); }},
        {"body awaited",
         [&] {
             StartConnected();
             cam_.SendRaw("POST /e HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc");
         },
         a_moment},
    };
    for (const State& state : states) {
        cam_.ClearRequests();
        state.enter();
        counter_.start();
        ASSERT_TRUE(state.reached()) << state.name;
        EXPECT_LT(MsTaken([&] { counter_.stop(); }), 1000) << state.name;
        EXPECT_FALSE(counter_.is_connect()) << state.name;
    }
}

}  // namespace

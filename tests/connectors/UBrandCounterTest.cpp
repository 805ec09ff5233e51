#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "CameraSim.h"
#include "LoopbackPeers.h"
#include "Sandbox.h"
#include "UBrand_PPL_Counter.h"

namespace {

using camsim::Camera;
using camsim::Subscribe;
using ppltest::Stopwatch;
using ppltest::WaitFor;

// Records the camera totals seen by each callback.
class RecordingCB : public Abstract_PPL_CB {
public:
    ~RecordingCB() override = default;
    void count_result(Abstract_PPL_Counter* c) override {
        std::lock_guard<std::mutex> guard(lock_);
        seen_.emplace_back(c->get_ppl_total_cam_in(), c->get_ppl_total_cam_out());
    }
    std::vector<std::pair<int, int>> Seen() {
        std::lock_guard<std::mutex> guard(lock_);
        return seen_;
    }
    bool WaitForTotals(int in, int out) {
        return WaitFor(3000, [&] {
            auto seen = Seen();
            return !seen.empty() && seen.back() == std::make_pair(in, out);
        });
    }

private:
    std::mutex lock_;
    std::vector<std::pair<int, int>> seen_;
};

class LapiCounter : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(cam_.Start());
        counter_.set_ppl_count_callback(&cb_);
    }
    void TearDown() override { counter_.stop(); }
    void Aim(int port) {
        counter_.set_server_addr("127.0.0.1");
        counter_.set_server_port(port);
    }
    // True once the counter's one connection is subscribed and no earlier
    // connection lingers, so that an event sent now reaches it.
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
    EXPECT_EQ(0, counter_.get_ppl_total_cam_in());
    Parse("nothing here");
    Parse("nothing here");
    std::vector<std::pair<int, int>> expected = {{12, 7}, {4, 9}, {0, 0}, {0, 0}, {0, 0}};
    EXPECT_EQ(expected, cb_.Seen());  // fired on every event, changed or not
}

TEST_F(LapiCounter, ResetTotalsNotifies) {
    Parse("{\"ObjectIn\":1,\"ObjectOut\":0,\"TotalIn\":3,\"TotalOut\":1}");
    counter_.reset_ppl_total_counts();
    EXPECT_EQ(0, counter_.get_ppl_total_cam_in());
    EXPECT_EQ(0, counter_.get_ppl_total_cam_out());
    EXPECT_EQ(std::make_pair(0, 0), cb_.Seen().back());
}

TEST_F(LapiCounter, EventsReachTheCallback) {
    cam_.SetTotals(10, 4);
    StartConnected();
    EXPECT_TRUE(counter_.is_running());
    cam_.Walk(1, 0);
    EXPECT_TRUE(cb_.WaitForTotals(11, 4));
    cam_.Walk(0, 2);
    EXPECT_TRUE(cb_.WaitForTotals(11, 6));
    EXPECT_EQ(5, counter_.get_ppl_total_cam_stayin());
    counter_.stop();
    EXPECT_FALSE(counter_.is_running());
    EXPECT_FALSE(counter_.is_connect());
    EXPECT_EQ("", counter_.get_server_addr());
    EXPECT_EQ(0, counter_.get_server_port());
    EXPECT_EQ(11, counter_.get_ppl_total_cam_in());  // counts survive
}

TEST_F(LapiCounter, LostConnectionIsMadeAgainAtOnce) {
    StartConnected();
    for (int round = 2; round <= 3; ++round) {
        Stopwatch watch;
        cam_.Restart();  // drops the connection, totals back at zero
        ASSERT_TRUE(cam_.WaitForRequests(round, 3000));
        EXPECT_LT(watch.Ms(), 1500);
        ASSERT_TRUE(OneFreshSubscriber());
        cam_.Walk(round, 1);
        EXPECT_TRUE(cb_.WaitForTotals(round, 1));
    }
    cam_.SendRaw("POST /e HTTP/1.1\r\n\r\n");  // no Content-Length: reconnect
    EXPECT_TRUE(cam_.WaitForRequests(4, 3000));
    for (const camsim::Request& r : cam_.Requests()) {
        EXPECT_EQ("/LAPI/V1.0/System/Event/Subscription", r.path);
    }
}

TEST_F(LapiCounter, ReconnectDropsAnOpenConnectionOnly) {
    counter_.start();
    counter_.reconnect();  // nothing open: cleared by the next connection
    Aim(cam_.Port());
    ASSERT_TRUE(cam_.WaitForSubscribers(1, 3000));
    usleep(500000);
    EXPECT_EQ(1, cam_.AcceptedConnections());
    counter_.reconnect();
    EXPECT_TRUE(cam_.WaitForRequests(2, 3000));
    EXPECT_TRUE(WaitFor(2000, [&] { return counter_.is_connect(); }));
}

TEST_F(LapiCounter, FailedConnectWaitsTwoSeconds) {
    cam_.SetRefusing(true);
    Aim(cam_.Port());
    Stopwatch watch;
    counter_.start();
    usleep(300000);
    cam_.SetRefusing(false);
    ASSERT_TRUE(cam_.WaitForSubscribers(1, 4000));
    EXPECT_GE(watch.Ms(), 1700);
    EXPECT_LT(watch.Ms(), 3500);
}

TEST_F(LapiCounter, NoAttemptWithoutAddressAndPort) {
    counter_.set_server_addr("127.0.0.1");
    counter_.start();
    usleep(500000);
    counter_.set_server_addr("");
    counter_.set_server_port(cam_.Port());
    usleep(500000);
    EXPECT_EQ(0, cam_.AcceptedConnections());
    EXPECT_FALSE(counter_.is_connect());
}

TEST_F(LapiCounter, StartAndStopTwiceAreHarmless) {
    counter_.stop();
    StartConnected();
    counter_.start();
    EXPECT_TRUE(counter_.is_running());
    counter_.stop();
    counter_.stop();
    EXPECT_FALSE(counter_.is_running());
    StartConnected();  // a new start needs the target again
    EXPECT_EQ(2, cam_.AcceptedConnections());
}

// stop() returns promptly whatever the worker is waiting for.
TEST_F(LapiCounter, StopIsPromptFromEveryState) {
    ppltest::SilentListener silent;
    ASSERT_TRUE(silent.Ready());
    struct Case {
        const char* name;
        std::function<void()> arrange;
    };
    std::vector<Case> cases = {
        {"waiting for a target", [] {}},
        {"connected and idle", [&] { StartConnected(); }},
        {"connect pending", [&] { Aim(silent.Port()); }},
        {"pause after a refusal",
         [&] {
             cam_.SetRefusing(true);
             Aim(cam_.Port());
         }},
        {"subscription unanswered",
         [&] {
             cam_.SetSubscribe(Subscribe::Silent);
             Aim(cam_.Port());
         }},
        {"body awaited",
         [&] {
             StartConnected();
             cam_.SendRaw("POST /e HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc");
         }},
    };
    for (const Case& c : cases) {
        cam_.SetRefusing(false);
        cam_.SetSubscribe(Subscribe::Ok);
        c.arrange();
        counter_.start();
        usleep(400000);
        Stopwatch watch;
        counter_.stop();
        EXPECT_LT(watch.Ms(), 1000) << c.name;
        EXPECT_FALSE(counter_.is_connect()) << c.name;
    }
}

}  // namespace

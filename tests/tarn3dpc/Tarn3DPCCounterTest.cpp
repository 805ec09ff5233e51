#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CameraSim.h"
#include "Sandbox.h"
#include "TarnEndpoints.h"
#include "Tarn_3DPC_Counter.h"

namespace {

using Clock = std::chrono::steady_clock;
using Totals = std::pair<int, int>;
using ppltest::WaitFor;

// The totals seen by each callback, which runs on the worker thread.
struct Recorder : Abstract_PPL_CB {
    void count_result(Abstract_PPL_Counter* c) override {
        std::lock_guard<std::mutex> guard(lock);
        seen.emplace_back(c->get_ppl_total_cam_in(), c->get_ppl_total_cam_out());
    }
    std::vector<Totals> Seen() {
        std::lock_guard<std::mutex> guard(lock);
        return seen;
    }
    std::mutex lock;
    std::vector<Totals> seen;
};

// Standard error goes to a private file for the test, readable at any time.
class Tarn3DPC : public ::testing::Test {
protected:
    void SetUp() override {
        log_fd = memfd_create("tarn3dpc-stderr", 0);
        saved_fd = dup(2);
        dup2(log_fd, 2);
        ASSERT_TRUE(cam.Start());
        counter.set_ppl_count_callback(&cb);
    }
    void TearDown() override {
        counter.stop();
        dup2(saved_fd, 2);
        close(saved_fd);
        close(log_fd);
    }
    int Count(const std::string& what) {
        return ppltest::CountOf(ppltest::ReadWholeFile("/proc/self/fd/" + std::to_string(log_fd)),
                                what);
    }
    // Camera data and the counting request type.
    void Configure(Tarn_3DPC_Counter& c, camsim::Camera& camera, unsigned interval,
                   const std::string& password = "s3cret") {
        c.SetDeviceInfo("127.0.0.1", std::to_string(camera.Port()), "admin", password, interval);
        c.SetAPIType(E_PC_API_COUNTING);
    }
    int Reconnects(camsim::Camera& camera, int type) {
        return Count("SendPPLRequest(): Reconnect, IP: 127.0.0.1, Port: " +
                     std::to_string(camera.Port()) + ", Type: " + std::to_string(type) + "\n");
    }

    int log_fd = -1, saved_fd = -1;
    camsim::Camera cam;
    camsim::TarnEndpoints ep{cam, "admin", "s3cret"};
    Recorder cb;
    Tarn_3DPC_Counter counter{0};
};

const char kSame[] = "CountingResult(): Counting result is the same\n\n";

}  // namespace

TEST_F(Tarn3DPC, PollsOncePerIntervalAndReportsOnlyChanges) {
    Configure(counter, cam, 1);
    counter.set_dir(PPL_DIR_OUT);
    auto start = Clock::now();
    counter.start();
    // The first answer, 0 and 0, equals the initial totals: no callback.
    ASSERT_TRUE(WaitFor(3000, [&] { return Count(kSame) == 1; }));
    EXPECT_EQ(cb.Seen().size(), 0u);
    EXPECT_TRUE(counter.is_connect());
    cam.SetTotals(2, 5);
    ASSERT_TRUE(WaitFor(3000, [&] { return cb.Seen().size() == 1; }));
    EXPECT_EQ(cb.Seen()[0], Totals(2, 5));
    EXPECT_EQ(counter.get_ppl_total_cam_stayin(), -3);
    EXPECT_EQ(Count("[Out Cam, idx: 0] Set total in: 2, total out: 5\n\n"), 1);
    ASSERT_TRUE(WaitFor(3000, [&] { return Count(kSame) == 2; }));
    EXPECT_EQ(cb.Seen().size(), 1u);
    EXPECT_EQ(ep.TotalsRequests(), 3);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(1900)) << "one request a second";
    EXPECT_EQ(Reconnects(cam, 1), 1);  // the device info went over once
}

TEST_F(Tarn3DPC, SettingsRequestGoesOutOnceThenCountingResumes) {
    Configure(counter, cam, 3600);
    cam.SetTotals(7, 1);
    counter.start();
    ASSERT_TRUE(WaitFor(3000, [&] { return cb.Seen().size() == 1; }));
    counter.SetAPIType(E_PC_API_SETTINGS);
    // One type 2 request, then about a second later a counting one handing the info again.
    ASSERT_TRUE(WaitFor(3000, [&] { return ep.ResetRequests() == 1; }));
    ASSERT_TRUE(WaitFor(3000, [&] { return cb.Seen().size() == 2; }));
    EXPECT_EQ(cb.Seen()[1], Totals(0, 0));
    EXPECT_EQ(Reconnects(cam, 2), 1);
    EXPECT_EQ(Reconnects(cam, 1), 2);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(ep.ResetRequests(), 1);
    EXPECT_EQ(ep.TotalsRequests(), 2);
}

TEST_F(Tarn3DPC, NoTypeOrNoAccountNeverReachesTheCamera) {
    Configure(counter, cam, 0);
    counter.SetAPIType(E_PC_API_NONE);
    Tarn_3DPC_Counter no_password(1);
    Configure(no_password, cam, 0, "");
    for (Tarn_3DPC_Counter* c : {&counter, &no_password}) {
        c->start();
        std::this_thread::sleep_for(std::chrono::milliseconds(1600));
        c->stop();
    }
    int failures = 0;
    for (const char* why :
         {"SendPPLRequest(): API is NONE\n", "SendPPLRequest(): Account is incomplete\n"}) {
        int n = Count(why);
        EXPECT_GE(n, 1) << why;
        EXPECT_LE(n, 3) << why;  // retried about once a second, not every poll
        failures += n;
    }
    EXPECT_EQ(Count("WriteThreadLiveRecog(): Send request error, ret = -1\n"), failures);
    EXPECT_FALSE(no_password.is_connect());
    EXPECT_EQ(cam.AcceptedConnections(), 0);
}

TEST_F(Tarn3DPC, FailingCameraDisconnectsKeepsTotalsAndRecovers) {
    Configure(counter, cam, 0);
    cam.SetTotals(5, 2);
    counter.start();
    ASSERT_TRUE(WaitFor(3000, [&] { return cb.Seen().size() == 1 && counter.is_connect(); }));
    ep.SetCountingStatus(500);
    cam.SetTotals(9, 9);
    ASSERT_TRUE(WaitFor(3000, [&] { return !counter.is_connect(); }));
    EXPECT_EQ(Totals(counter.get_ppl_total_cam_in(), counter.get_ppl_total_cam_out()),
              Totals(5, 2));
    EXPECT_GE(Count("Send request error, ret = -500, err = 71, Protocol error\n"), 1);
    ep.SetCountingStatus(0);
    ASSERT_TRUE(WaitFor(3000, [&] { return cb.Seen().size() == 2 && counter.is_connect(); }));
    EXPECT_EQ(cb.Seen()[1], Totals(9, 9));
}

TEST_F(Tarn3DPC, StopJoinsPromptlyDuringThePauseAndForgetsTheCamera) {
    Configure(counter, cam, 3600);
    ep.SetCountingStatus(500);
    counter.start();
    counter.start();
    // Stopping during the pause after a failed request.
    ASSERT_TRUE(WaitFor(3000, [&] { return Count("WriteThreadLiveRecog()") == 1; }));
    auto start = Clock::now();
    counter.stop();
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(800));
    EXPECT_FALSE(counter.is_running());
    std::string ip = "x", port = "x", user = "x", password = "x";
    counter.GetDeviceInfo(ip, port);
    counter.GetDeviceAccount(user, password);
    EXPECT_EQ(ip + port + user + password, "");
}

TEST_F(Tarn3DPC, TwoCountersNeverOverlapTheirRequests) {
    camsim::Camera cam2;
    ASSERT_TRUE(cam2.Start());
    camsim::TarnEndpoints ep2(cam2, "admin", "s3cret");
    auto probe = std::make_shared<camsim::OverlapProbe>();
    for (camsim::TarnEndpoints* e : {&ep, &ep2}) {
        e->SetOverlapProbe(probe);
        e->SetAnswerDelay(60);
    }
    Tarn_3DPC_Counter other(1);
    Configure(counter, cam, 0);
    Configure(other, cam2, 0);
    counter.start();
    other.start();
    bool both =
        WaitFor(5000, [&] { return ep.TotalsRequests() >= 5 && ep2.TotalsRequests() >= 5; });
    other.stop();
    counter.stop();
    EXPECT_TRUE(both);
    EXPECT_EQ(probe->MaxInFlight(), 1);
}

TEST_F(Tarn3DPC, DeviceInfoSettersKeepEmptyValuesAndCutLongTexts) {
    std::string ip, port, user, password;
    auto all = [&] {
        counter.GetDeviceInfo(ip, port);
        counter.GetDeviceAccount(user, password);
        return user + "/" + password + "/" + ip + "/" + port;
    };
    counter.SetDeviceInfo("127.0.0.3", "80", "admin", "pw", 5);
    counter.SetDeviceAccount("", "pw2");
    EXPECT_EQ(all(), "admin/pw2/127.0.0.3/80");
    counter.SetDeviceAccount("root", "");
    counter.SetDeviceIP("");
    counter.SetDeviceHttpPort("");
    EXPECT_EQ(all(), "root/pw2/127.0.0.3/80");
    counter.SetDeviceIP(std::string(40, '1'));
    counter.SetDeviceHttpPort("123456789");
    counter.SetDeviceAccount(std::string(100, 'u'), std::string(64, 'p'));
    EXPECT_EQ(all(), std::string(63, 'u') + "/" + std::string(63, 'p') + "/" +
                         std::string(31, '1') + "/1234567");
    counter.reset_ppl_total_counts();
    EXPECT_EQ(cb.Seen(), std::vector<Totals>{Totals(0, 0)});
}

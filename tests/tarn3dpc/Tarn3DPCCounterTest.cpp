#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
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
using ppltest::WaitFor;

// Sends this process's standard error to a private file for the duration.
class StderrCapture {
public:
    StderrCapture() {
        char path[] = "/tmp/tarn3dpc-stderr-XXXXXX";
        fd_ = mkstemp(path);
        unlink(path);
        fflush(stderr);
        saved_ = dup(2);
        dup2(fd_, 2);
    }
    ~StderrCapture() {
        fflush(stderr);
        dup2(saved_, 2);
        close(saved_);
        close(fd_);
    }
    std::string Text() {
        std::string text;
        char buf[4096];
        ssize_t n;
        for (off_t at = 0; (n = pread(fd_, buf, sizeof(buf), at)) > 0; at += n)
            text.append(buf, n);
        return text;
    }
    int Count(const std::string& what) {
        std::string text = Text();
        int n = 0;
        for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
            ++n;
        return n;
    }

private:
    int fd_ = -1;
    int saved_ = -1;
};

class Recorder : public Abstract_PPL_CB {
public:
    void count_result(Abstract_PPL_Counter* c) override {
        std::lock_guard<std::mutex> guard(lock_);
        seen_.emplace_back(c->get_ppl_total_cam_in(), c->get_ppl_total_cam_out());
    }
    std::vector<std::pair<int, int>> Seen() {
        std::lock_guard<std::mutex> guard(lock_);
        return seen_;
    }
    size_t Count() { return Seen().size(); }

private:
    std::mutex lock_;
    std::vector<std::pair<int, int>> seen_;
};

long MsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class Tarn3DPC : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(cam.Start());
        counter.set_ppl_count_callback(&cb);
    }
    void TearDown() override { counter.stop(); }

    void Configure(Tarn_3DPC_Counter& c, camsim::Camera& camera, unsigned interval,
                   const std::string& password = "s3cret") {
        c.SetDeviceInfo("127.0.0.1", std::to_string(camera.Port()), "admin", password, interval);
    }
    std::string ReconnectLine(camsim::Camera& camera, int type) {
        return "SendPPLRequest(): Reconnect, IP: 127.0.0.1, Port: " +
               std::to_string(camera.Port()) + ", Type: " + std::to_string(type) + "\n";
    }

    StderrCapture log;
    camsim::Camera cam;
    camsim::TarnEndpoints ep{cam, "admin", "s3cret"};
    Recorder cb;
    Tarn_3DPC_Counter counter{0};
};

}  // namespace

TEST_F(Tarn3DPC, PollsOncePerIntervalAndReportsOnlyChanges) {
    Configure(counter, cam, 1);
    counter.SetAPIType(E_PC_API_COUNTING);
    counter.set_dir(PPL_DIR_OUT);
    auto start = Clock::now();
    counter.start();
    // The first answer, 0 and 0, equals the initial totals: no callback.
    ASSERT_TRUE(WaitFor(3000, [&] { return log.Count("Counting result is the same\n\n") >= 1; }));
    EXPECT_EQ(cb.Count(), 0u);
    EXPECT_TRUE(counter.is_connect());
    EXPECT_EQ(log.Count(ReconnectLine(cam, 1)), 1);

    cam.SetTotals(2, 5);
    ASSERT_TRUE(WaitFor(3000, [&] { return cb.Count() == 1; }));
    EXPECT_EQ(cb.Seen()[0], std::make_pair(2, 5));
    EXPECT_EQ(counter.get_ppl_total_cam_stayin(), -3);
    EXPECT_EQ(log.Count("[Out Cam, idx: 0] Set total in: 2, total out: 5\n\n"), 1);

    int same_before = log.Count("CountingResult(): Counting result is the same\n\n");
    ASSERT_TRUE(WaitFor(3000, [&] {
        return log.Count("CountingResult(): Counting result is the same\n\n") > same_before;
    }));
    EXPECT_EQ(cb.Count(), 1u);
    long elapsed = MsSince(start);
    int requests = ep.TotalsRequests();
    EXPECT_GE(requests, 3);
    EXPECT_LE(requests, elapsed / 1000 + 2) << "in " << elapsed << " ms";
    EXPECT_EQ(log.Count("Reconnect"), 1);  // the device info went over once
}

TEST_F(Tarn3DPC, SettingsRequestGoesOutOnceThenCountingResumes) {
    Configure(counter, cam, 3600);
    counter.SetAPIType(E_PC_API_COUNTING);
    cam.SetTotals(7, 1);
    counter.start();
    ASSERT_TRUE(WaitFor(3000, [&] { return cb.Count() == 1; }));

    counter.SetAPIType(E_PC_API_SETTINGS);
    ASSERT_TRUE(WaitFor(3000, [&] { return ep.ResetRequests() == 1; }));
    // One second later the counting request follows, handing the info again.
    ASSERT_TRUE(WaitFor(3000, [&] { return ep.TotalsRequests() == 2; }));
    ASSERT_TRUE(WaitFor(3000, [&] { return cb.Count() == 2; }));
    EXPECT_EQ(cb.Seen()[1], std::make_pair(0, 0));
    std::string text = log.Text();
    size_t type2 = text.find(ReconnectLine(cam, 2));
    ASSERT_NE(type2, std::string::npos);
    EXPECT_NE(text.find(ReconnectLine(cam, 1), type2), std::string::npos);

    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(ep.ResetRequests(), 1);
    EXPECT_EQ(ep.TotalsRequests(), 2);
    EXPECT_TRUE(counter.is_connect());
}

TEST_F(Tarn3DPC, NoTypeOrNoAccountNeverReachesTheCamera) {
    Configure(counter, cam, 0);  // no API type yet
    counter.start();
    std::this_thread::sleep_for(std::chrono::milliseconds(1600));
    counter.stop();
    int none = log.Count("SendPPLRequest(): API is NONE\n");
    EXPECT_GE(none, 1);
    EXPECT_LE(none, 3);  // retried about once a second, not every poll
    EXPECT_EQ(log.Count("WriteThreadLiveRecog(): Send request error, ret = -1\n"), none);

    Tarn_3DPC_Counter no_password(1);
    Configure(no_password, cam, 0, "");
    no_password.SetAPIType(E_PC_API_COUNTING);
    no_password.start();
    std::this_thread::sleep_for(std::chrono::milliseconds(1600));
    no_password.stop();
    int incomplete = log.Count("SendPPLRequest(): Account is incomplete\n");
    EXPECT_GE(incomplete, 1);
    EXPECT_LE(incomplete, 3);
    EXPECT_FALSE(no_password.is_connect());
    EXPECT_EQ(cam.AcceptedConnections(), 0);
}

TEST_F(Tarn3DPC, FailingCameraDisconnectsAndKeepsTotals) {
    Configure(counter, cam, 0);
    counter.SetAPIType(E_PC_API_COUNTING);
    cam.SetTotals(5, 2);
    counter.start();
    ASSERT_TRUE(WaitFor(3000, [&] { return cb.Count() == 1 && counter.is_connect(); }));

    ep.SetCountingStatus(500);
    cam.SetTotals(9, 9);
    ASSERT_TRUE(WaitFor(3000, [&] { return !counter.is_connect(); }));
    EXPECT_EQ(counter.get_ppl_total_cam_in(), 5);
    EXPECT_EQ(counter.get_ppl_total_cam_out(), 2);
    EXPECT_GE(log.Count("SendPPLRequest(): Send request error, ret = -500, err = 71, "
                        "Protocol error\n"),
              1);
    EXPECT_GE(log.Count("WriteThreadLiveRecog(): Send request error, ret = -500\n"), 1);

    ep.SetCountingStatus(0);
    ep.SetAccount("admin", "changed");
    ASSERT_TRUE(
        WaitFor(3000, [&] { return log.Count("ret = -401, err = 13, Permission denied\n") >= 1; }));
    EXPECT_FALSE(counter.is_connect());
    EXPECT_EQ(cb.Count(), 1u);

    // Back in service: the device info is handed over again and counting resumes.
    int reconnects = log.Count(ReconnectLine(cam, 1));
    ep.SetAccount("admin", "s3cret");
    ASSERT_TRUE(WaitFor(3000, [&] { return cb.Count() == 2 && counter.is_connect(); }));
    EXPECT_EQ(cb.Seen()[1], std::make_pair(9, 9));
    EXPECT_GT(log.Count(ReconnectLine(cam, 1)), reconnects);
}

TEST_F(Tarn3DPC, StopJoinsPromptlyAndForgetsTheCamera) {
    Configure(counter, cam, 3600);
    counter.SetAPIType(E_PC_API_COUNTING);
    ep.SetCountingStatus(500);
    counter.start();
    counter.start();
    EXPECT_TRUE(counter.is_running());
    // Stopping during the pause after a failed request.
    ASSERT_TRUE(WaitFor(3000, [&] { return log.Count("WriteThreadLiveRecog()") == 1; }));
    auto start = Clock::now();
    counter.stop();
    EXPECT_LT(MsSince(start), 800);
    EXPECT_FALSE(counter.is_running());
    std::string ip = "x", port = "x", user = "x", password = "x";
    counter.GetDeviceInfo(ip, port);
    counter.GetDeviceAccount(user, password);
    EXPECT_EQ(ip + port + user + password, "");
    counter.stop();

    // Stopping while waiting for the next interval.
    ep.SetCountingStatus(0);
    Configure(counter, cam, 3600);
    counter.SetAPIType(E_PC_API_COUNTING);
    counter.start();
    ASSERT_TRUE(WaitFor(3000, [&] { return counter.is_connect(); }));
    start = Clock::now();
    counter.stop();
    EXPECT_LT(MsSince(start), 800);
}

TEST_F(Tarn3DPC, TwoCountersNeverOverlapTheirRequests) {
    camsim::Camera cam2;
    ASSERT_TRUE(cam2.Start());
    camsim::TarnEndpoints ep2(cam2, "admin", "s3cret");
    auto probe = std::make_shared<camsim::OverlapProbe>();
    ep.SetOverlapProbe(probe);
    ep2.SetOverlapProbe(probe);
    ep.SetAnswerDelay(60);
    ep2.SetAnswerDelay(60);

    Tarn_3DPC_Counter other(1);
    Configure(counter, cam, 0);
    Configure(other, cam2, 0);
    counter.SetAPIType(E_PC_API_COUNTING);
    other.SetAPIType(E_PC_API_COUNTING);
    counter.start();
    other.start();
    bool both =
        WaitFor(5000, [&] { return ep.TotalsRequests() >= 5 && ep2.TotalsRequests() >= 5; });
    other.stop();
    counter.stop();
    cam2.Stop();
    ASSERT_TRUE(both);
    EXPECT_EQ(probe->MaxInFlight(), 1);
}

TEST_F(Tarn3DPC, ReconnectSendsToTheNewAddressAtOnce) {
    camsim::Camera cam2;
    ASSERT_TRUE(cam2.Start());
    camsim::TarnEndpoints ep2(cam2, "admin", "s3cret");
    Configure(counter, cam, 3600);
    counter.SetAPIType(E_PC_API_COUNTING);
    counter.start();
    ASSERT_TRUE(WaitFor(3000, [&] { return ep.TotalsRequests() == 1; }));
    counter.SetDeviceHttpPort(std::to_string(cam2.Port()));
    counter.reconnect();
    EXPECT_TRUE(WaitFor(1000, [&] { return ep2.TotalsRequests() == 1; }));
    EXPECT_EQ(log.Count(ReconnectLine(cam2, 1)), 1);
    counter.stop();
    cam2.Stop();
}

TEST_F(Tarn3DPC, DeviceInfoSettersKeepEmptyAndCutLongTexts) {
    std::string ip, port, user, password;
    counter.SetDeviceInfo("10.1.2.3", "80", "admin", "pw", 5);
    counter.SetDeviceAccount("", "pw2");
    counter.GetDeviceAccount(user, password);
    EXPECT_EQ(user + "/" + password, "admin/pw2");
    counter.SetDeviceAccount("root", "");
    counter.SetDeviceIP("");
    counter.SetDeviceHttpPort("");
    counter.GetDeviceAccount(user, password);
    counter.GetDeviceInfo(ip, port);
    EXPECT_EQ(user + "/" + password + "/" + ip + "/" + port, "root/pw2/10.1.2.3/80");

    counter.SetDeviceIP(std::string(40, '1'));
    counter.SetDeviceHttpPort("123456789");
    counter.SetDeviceAccount(std::string(100, 'u'), std::string(64, 'p'));
    counter.GetDeviceInfo(ip, port);
    counter.GetDeviceAccount(user, password);
    EXPECT_EQ(ip, std::string(31, '1'));
    EXPECT_EQ(port, "1234567");
    EXPECT_EQ(user, std::string(63, 'u'));
    EXPECT_EQ(password, std::string(63, 'p'));

    // The full setter writes over the old texts without clearing the fields.
    EXPECT_EQ(counter.SetDeviceInfo("1.2.3.4", "8", "a", "b", 1), 0);
    counter.GetDeviceInfo(ip, port);
    counter.GetDeviceAccount(user, password);
    EXPECT_EQ(user + "/" + password + "/" + ip + "/" + port, "a/b/1.2.3.4/8");

    counter.reset_ppl_total_counts();
    ASSERT_EQ(cb.Count(), 1u);
    EXPECT_EQ(cb.Seen()[0], std::make_pair(0, 0));
}

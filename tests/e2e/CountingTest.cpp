// The service end to end: simulated cameras, the test as the neighbouring
// module, the real binary in private namespaces.
#include <gtest/gtest.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <memory>

#include "CameraSim.h"
#include "LapiRig.h"
#include "SandboxGTest.h"
#include "TarnEndpoints.h"

namespace ppltest {
namespace {

// Group 0 with LAPI in camera 0 and out camera 1, both simulated.
class LapiService : public LapiRigTest {
protected:
    // Starts the service and waits for both subscriptions and the start-up events.
    void StartCounting() {
        ASSERT_TRUE(h_->StartService());
        ASSERT_TRUE(in_cam_->WaitForSubscribers(1, 5000)) << h_->Stderr();
        ASSERT_TRUE(out_cam_->WaitForSubscribers(1, 5000));
        ASSERT_TRUE(h_->WaitEvent("event=ppl_count&in0=0&out0=0&stayin0=0"));
        ASSERT_TRUE(h_->WaitStatus("PPL.Out0.Status", "connect"));
        ASSERT_TRUE(h_->WaitStatus("PPL.In0.Status", "connect"));
    }
};

TEST_F(LapiService, StartupSendsOneEnableAndOneCountEventAndPushesNoSettings) {
    StartCounting();
    EXPECT_EQ(h_->CountEvent("event=ppl_enable&enable=1"), 1);
    EXPECT_EQ(h_->CountEvent("event=ppl_count&in0=0&out0=0&stayin0=0"), 1);
    EXPECT_EQ(h_->Seen().size(), 2u);
    EXPECT_TRUE(in_ctl_->SettingsReceived().empty());
    EXPECT_TRUE(out_ctl_->SettingsReceived().empty());
    auto status = h_->Status();
    EXPECT_EQ(status["PPL.Enable"], "1");
    EXPECT_EQ(status["PPL.In0.Count"], "0");
    EXPECT_EQ(status["PPL.StayIn0.Over"], "5");
    EXPECT_EQ(status["PPL.StayIn0.Under"], "1");
    EXPECT_EQ(status["PPL.StayIn0.Status"], "Under");
    EXPECT_EQ(status.size(), 9u);
    EXPECT_EQ(h_->Command("action=ppl_get_service_status"),
              "reply=success&in0=connect&out0=connect");
    EXPECT_EQ(h_->StopService(SIGTERM), 0);
}

TEST_F(LapiService, ConfigChangeReloadsRepeatsEventsPushesAndReconnectsOnlyTheMovedCamera) {
    StartCounting();
    in_cam_->Walk(2, 0);
    ASSERT_TRUE(h_->WaitEvent("event=ppl_count&in0=2&out0=0&stayin0=2"));
    camsim::Camera moved;
    ASSERT_TRUE(moved.Start());
    camsim::TarnEndpoints moved_ctl(moved, "admin", "secret");
    config_["SERV_PPL_CAM_1_HTTP"] = std::to_string(moved.Port());
    config_["SERV_PPL_SETTINGS_0_SENSITIVITY"] = "4";
    h_->WriteConfig(config_);
    int in_connections = in_cam_->AcceptedConnections();
    h_->ForgetEvents();

    EXPECT_EQ(h_->Command("action=ppl_config_change"), "reply=success");
    EXPECT_TRUE(h_->WaitEvent("event=ppl_enable&enable=1"));
    EXPECT_TRUE(h_->WaitEvent("event=ppl_count&in0=2&out0=0&stayin0=2"));
    EXPECT_TRUE(moved.WaitForSubscribers(1, 5000));
    EXPECT_TRUE(WaitFor(3000, [&] { return out_cam_->Subscribers() == 0; }));
    const std::string text =
        "action=ppl_setdata&Reset=0&TimeReset=1&Type=time&Hour=23&Min=5&Sec=0&Sensitivity=4"
        "&ReportTime=60";
    // The push runs on the service's loop while the moved camera's counter
    // reconnects on its own thread: wait for both.
    EXPECT_TRUE(WaitFor(3000, [&] { return moved_ctl.SettingsReceived().size() == 1; }));
    EXPECT_EQ(in_ctl_->SettingsReceived(), std::vector<std::string>{text});
    EXPECT_EQ(moved_ctl.SettingsReceived(), std::vector<std::string>{text});
    // The in camera keeps its one connection; settings go on fresh ones.
    EXPECT_EQ(in_cam_->Subscribers(), 1);
    EXPECT_EQ(in_cam_->AcceptedConnections(), in_connections + 1);

    // A reload of an unchanged file pushes nothing and reconnects nothing.
    EXPECT_EQ(h_->Command("action=ppl_config_change"), "reply=success");
    EXPECT_TRUE(h_->WaitEvent("event=ppl_enable&enable=1"));
    EXPECT_TRUE(WaitFor(1000, [&] {
        return h_->Stdout().find("PPL settings are the same.") != std::string::npos;
    }));
    EXPECT_EQ(in_ctl_->SettingsReceived().size(), 1u);
    EXPECT_EQ(in_cam_->AcceptedConnections(), in_connections + 1);

    // With clearing on, every reload pushes and clears, the same settings too.
    config_["SERV_PPL_SETTINGS_0_CLEAR_COUNT"] = "1";
    h_->WriteConfig(config_);
    for (size_t pushed : {2u, 3u}) {
        EXPECT_EQ(h_->Command("action=ppl_config_change"), "reply=success");
        EXPECT_TRUE(WaitFor(3000, [&] { return in_ctl_->SettingsReceived().size() == pushed; }));
        EXPECT_EQ(in_ctl_->SettingsReceived().back().rfind("action=ppl_setdata&Reset=1&", 0), 0u);
    }

    // A new address alone moves the camera too.
    camsim::Camera readdressed(in_cam_->Port(), "127.0.0.2");
    ASSERT_TRUE(readdressed.Start());
    config_["SERV_PPL_CAM_0_IP"] = "127.0.0.2";
    h_->WriteConfig(config_);
    EXPECT_EQ(h_->Command("action=ppl_config_change"), "reply=success");
    EXPECT_TRUE(readdressed.WaitForSubscribers(1, 5000));
    EXPECT_TRUE(WaitFor(3000, [&] { return in_cam_->Subscribers() == 0; }));
    EXPECT_EQ(h_->StopService(SIGTERM), 0);
    moved.Stop();
    readdressed.Stop();
}

// For a running counter an add_camera event with the same address and port
// changes nothing, one with a new port moves it there (removing and adding a
// camera is among the module fault tests).
TEST_F(LapiService, AddCameraMovesARunningCounterOnlyToANewPlace) {
    StartCounting();
    const int connections = out_cam_->AcceptedConnections();
    const std::string taken = "Event::Run(), receive event => event=add_camera&ch=1\n";
    ASSERT_TRUE(h_->SendModuleEvent("event=add_camera&ch=1"));
    ASSERT_TRUE(WaitFor(3000, [&] { return h_->Stderr().find(taken) != std::string::npos; }));
    camsim::Camera moved;
    ASSERT_TRUE(moved.Start());
    config_["SERV_PPL_CAM_1_HTTP"] = std::to_string(moved.Port());
    h_->WriteConfig(config_);
    ASSERT_TRUE(h_->SendModuleEvent("event=add_camera&ch=1"));
    EXPECT_TRUE(moved.WaitForSubscribers(1, 5000));
    EXPECT_TRUE(WaitFor(3000, [&] { return out_cam_->Subscribers() == 0; }));
    EXPECT_EQ(out_cam_->AcceptedConnections(), connections) << "unchanged: not reconnected";
    EXPECT_EQ(h_->StopService(SIGTERM), 0);
    moved.Stop();
}

// The 3DPC camera kind: camera 0 polled through the open client library.
TEST(ThreeDpcService, StartupCountingClearAndReload) {
    PPL_ENTER_SANDBOX_OR_SKIP();
    camsim::Camera cam;
    ASSERT_TRUE(cam.Start());
    camsim::TarnEndpoints ctl(cam, "admin", "secret");
    ServiceHarness h;
    // The standard file as a 3DPC camera 0 on both sides, polled every 50 ms.
    std::map<std::string, std::string> config = StandardConfig(cam.Port(), 0);
    config["SERV_PPL_TYPE"] = "3DPCV2";
    config["SERV_PPL_OUT_0_CAM"] = "0";
    config["SERV_PPL_STAYIN_0_OVER"] = "100";
    config["SERV_PPL_STAYIN_0_UNDER"] = "-1";
    config["SERV_PPL_SETTINGS_0_REPORT_INTERVAL"] = "0";
    h.WriteConfig(config);
    ASSERT_TRUE(h.StartService());
    EXPECT_TRUE(h.WaitEvent("event=ppl_enable&enable=1"));
    EXPECT_TRUE(h.WaitEvent("event=ppl_count&in0=0&out0=0&stayin0=0"));
    EXPECT_TRUE(h.WaitStatus("PPL.In0.Status", "connect", 5000)) << h.Stderr();
    EXPECT_EQ(h.Status()["PPL.Out0.Status"], "connect") << "one dual camera";
    cam.SetTotals(4, 1);
    EXPECT_TRUE(h.WaitEvent("event=ppl_count&in0=4&out0=1&stayin0=3", 5000)) << h.Stderr();
    EXPECT_TRUE(h.WaitStatus("PPL.StayIn0.Count", "3"));
    EXPECT_EQ(h.Command("action=ppl_get_service_status"), "reply=success&in0=connect&out0=connect");

    // A clear: the counts are zero at once (the event is out before the
    // reply), and the camera is told to reset its totals.
    EXPECT_EQ(h.Command("action=ppl_clear_counts&group=0"), "reply=success");
    EXPECT_EQ(h.NextEvent(0), "event=ppl_count&in0=0&out0=0&stayin0=0");
    EXPECT_TRUE(WaitFor(5000, [&] { return ctl.ResetRequests() == 1; }));
    EXPECT_EQ(cam.GetTotals().in + cam.GetTotals().out, 0);

    // A reload with clearing on clears again; one that names camera 0 as
    // the in side alone leaves the out side unconnected.
    cam.SetTotals(6, 2);
    ASSERT_TRUE(h.WaitEvent("event=ppl_count&in0=6&out0=2&stayin0=4", 5000));
    config["SERV_PPL_SETTINGS_0_CLEAR_COUNT"] = "1";
    h.WriteConfig(config);
    EXPECT_EQ(h.Command("action=ppl_config_change"), "reply=success");
    EXPECT_TRUE(h.WaitEvent("event=ppl_count&in0=0&out0=0&stayin0=0"));
    EXPECT_TRUE(WaitFor(5000, [&] { return ctl.ResetRequests() == 2; }));
    config.erase("SERV_PPL_OUT_0_CAM");
    config["SERV_PPL_SETTINGS_0_CLEAR_COUNT"] = "0";
    h.WriteConfig(config);
    EXPECT_EQ(h.Command("action=ppl_config_change"), "reply=success");
    EXPECT_TRUE(WaitFor(5000, [&] {
        return h.Command("action=ppl_get_service_status") ==
               "reply=success&in0=connect&out0=disconnect";
    }));
    EXPECT_EQ(h.Command("action=ppl_clear_counts&group=0"), "reply=error") << "no out camera";
    EXPECT_EQ(h.StopService(SIGTERM), 0);
    cam.Stop();
}

// A second start, with any arguments, must leave the running service exactly
// as it was: its socket, its queue, its cameras and its exit.
TEST_F(LapiService, SecondInstanceExitsAtOnceAndTheFirstKeepsServing) {
    StartCounting();
    struct stat socket_before;
    ASSERT_EQ(stat("/tmp/SI_PPLCOUNTER", &socket_before), 0);
    int queue_before = msgget(601, 0);
    ASSERT_GE(queue_before, 0);
    Child second;
    ASSERT_TRUE(second.Start({BuiltFile("pplcounter"), "--help"}, "/tmp"));
    ASSERT_TRUE(second.Wait(3000)) << "the second instance did not end by itself";
    ASSERT_TRUE(WIFEXITED(second.ExitStatus()));
    EXPECT_EQ(WEXITSTATUS(second.ExitStatus()), 1);
    EXPECT_EQ(second.Stderr(),
              "pplcounter: another pplcounter is already running (/run/PPLCounter.lock is "
              "locked)\n");
    EXPECT_EQ(second.Stdout(), "");

    struct stat socket_after;
    ASSERT_EQ(stat("/tmp/SI_PPLCOUNTER", &socket_after), 0);
    EXPECT_EQ(socket_after.st_ino, socket_before.st_ino) << "the socket was taken over";
    EXPECT_EQ(msgget(601, 0), queue_before) << "queue 601 was replaced";
    EXPECT_EQ(in_cam_->Subscribers(), 1) << "the cameras were subscribed to again";
    EXPECT_EQ(h_->Command("action=ppl_get_service_status"),
              "reply=success&in0=connect&out0=connect");
    h_->ForgetEvents();
    in_cam_->Walk(1, 0);
    EXPECT_TRUE(h_->WaitEvent("event=ppl_count&in0=1&out0=0&stayin0=1"));
    EXPECT_EQ(h_->StopService(SIGTERM), 0);
}

// pplctl as an operator runs it, over the real socket: a clear sends each
// camera the clear request, empties its totals and the group's counts
// follow; a reset switches the cameras' counting off at once and on again
// within the restart check. What pplctl cannot send is refused.
TEST_F(LapiService, ClearAndResetActOnTheCamerasAndTheCountsFollow) {
    StartCounting();
    EXPECT_EQ(h_->Command("action=ppl_no_such"), "reply=error");
    EXPECT_EQ(h_->Command("action=ppl_clear_counts&group=1"), "reply=error");
    auto pplctl = [](const std::string& command) {
        Child ctl;
        if (!ctl.Start({BuiltFile("pplctl"), command}, "/tmp") || !ctl.Wait(10000))
            return std::string("pplctl did not run");
        return ctl.Stdout() + ctl.Stderr();
    };
    in_cam_->Walk(4, 0);
    out_cam_->Walk(0, 1);
    ASSERT_TRUE(h_->WaitEvent("event=ppl_count&in0=4&out0=1&stayin0=3"));
    EXPECT_EQ(pplctl("clear"), "counts cleared: the cameras took the clear request\n");
    const std::vector<std::string> cleared = {
        "action=ppl_setdata&Reset=1&TimeReset=1&Type=time&Hour=23&Min=5&Sec=0&Sensitivity=3"
        "&ReportTime=60"};
    EXPECT_EQ(in_ctl_->SettingsReceived(), cleared);
    EXPECT_EQ(out_ctl_->SettingsReceived(), cleared);
    EXPECT_EQ(in_cam_->GetTotals().in, 0);
    EXPECT_EQ(out_cam_->GetTotals().out, 0);
    EXPECT_TRUE(h_->WaitEvent("event=ppl_count&in0=0&out0=0&stayin0=0"));

    EXPECT_EQ(pplctl("reset"), "reset requested; the cameras get the enable request within 5 s\n");
    EXPECT_EQ(in_ctl_->SettingsReceived().back(), "action=ppl_setdata&Enable=0");
    EXPECT_EQ(out_ctl_->SettingsReceived().back(), "action=ppl_setdata&Enable=0");
    EXPECT_FALSE(in_cam_->CountingEnabled());
    EXPECT_FALSE(out_cam_->CountingEnabled());
    EXPECT_EQ(in_cam_->Walk(1, 0), 0) << "a camera switched off counts nobody";
    EXPECT_TRUE(WaitFor(7000, [&] { return in_cam_->CountingEnabled(); }));
    EXPECT_TRUE(WaitFor(1000, [&] { return out_cam_->CountingEnabled(); }));
    EXPECT_EQ(in_ctl_->SettingsReceived().back(), "action=ppl_setdata&Enable=1");
    EXPECT_EQ(out_ctl_->SettingsReceived().back(), "action=ppl_setdata&Enable=1");
    h_->ForgetEvents();
    in_cam_->Walk(2, 0);
    EXPECT_TRUE(h_->WaitEvent("event=ppl_count&in0=2&out0=0&stayin0=2"));

    // One camera on both sides takes one request per push and per clear.
    config_["SERV_PPL_OUT_0_CAM"] = "0";
    h_->WriteConfig(config_);
    size_t taken = in_ctl_->SettingsReceived().size();
    EXPECT_EQ(h_->Command("action=ppl_config_change"), "reply=success");
    EXPECT_TRUE(WaitFor(3000, [&] { return in_ctl_->SettingsReceived().size() == taken + 1; }));
    EXPECT_EQ(h_->Command("action=ppl_clear_counts&group=0"), "reply=success");
    EXPECT_EQ(in_ctl_->SettingsReceived().size(), taken + 2);
    EXPECT_EQ(h_->StopService(SIGTERM), 0);
}

}  // namespace
}  // namespace ppltest

// Cameras counting fast while the configuration is reloaded, cameras are
// moved, removed and added, settings are pushed and commands run, all at
// once: the service's threads meet everywhere. Under ThreadSanitizer this is
// the scenario that must stay silent.
#include <csignal>
#include <string>

#include "FaultFixture.h"

namespace ppltest {
namespace {

TEST_F(FaultTest, CamerasCountWhileReloadsCommandsAndModuleEventsRun) {
    camsim::Camera spare;
    ASSERT_TRUE(spare.Start());
    camsim::TarnEndpoints spare_ctl(spare, "admin", "secret");
    StartCounting();
    in_cam_->StartWalking(3000, 1);
    out_cam_->StartWalking(3000, 2);
    spare.StartWalking(3000, 3);

    const std::string out_port = config_["SERV_PPL_CAM_1_HTTP"];
    for (int round = 0; round < 24; ++round) {
        switch (round % 6) {
            case 0:  // settings change: pushed to both cameras
                config_["SERV_PPL_SETTINGS_0_SENSITIVITY"] = std::to_string(1 + round % 5);
                h_->WriteConfig(config_);
                EXPECT_EQ(h_->Command("action=ppl_config_change"), "reply=success");
                break;
            case 1:  // the out camera moves and comes back: reconnections
                config_["SERV_PPL_CAM_1_HTTP"] =
                    round % 12 == 1 ? std::to_string(spare.Port()) : out_port;
                h_->WriteConfig(config_);
                EXPECT_EQ(h_->Command("action=ppl_config_change"), "reply=success");
                break;
            case 2:
                EXPECT_EQ(h_->Command("action=ppl_clear_counts&group=0"), "reply=success");
                break;
            case 3:
                EXPECT_EQ(h_->Command("action=ppl_reset_service&group=0"),
                          "reply=success&wait_5_seconds");
                break;
            case 4:
                h_->SendModuleEvent("event=del_camera&ch=0");
                EXPECT_EQ(h_->Command("action=ppl_get_service_status").rfind("reply=success", 0),
                          0u);
                h_->SendModuleEvent("event=add_camera&ch=0");
                break;
            default:
                in_cam_->DropConnections();
                EXPECT_EQ(h_->Command("action=ppl_get_service_status").rfind("reply=success", 0),
                          0u);
                break;
        }
        h_->ForgetEvents();
        while (!h_->NextEvent(0).empty()) {
        }
        ASSERT_NO_FATAL_FAILURE(AssertRunning("round " + std::to_string(round)));
    }
    ASSERT_NO_FATAL_FAILURE(ExpectAlive("the storm"));

    in_cam_->StopWalking();
    out_cam_->StopWalking();
    spare.StopWalking();
    config_["SERV_PPL_CAM_1_HTTP"] = out_port;
    h_->WriteConfig(config_);
    EXPECT_EQ(h_->Command("action=ppl_config_change"), "reply=success");
    ASSERT_TRUE(in_cam_->WaitForSubscribers(1, 10000));
    ASSERT_TRUE(out_cam_->WaitForSubscribers(1, 10000));
    EXPECT_TRUE(CountsRecover()) << ExpectedCountEvent();
    EXPECT_TRUE(StatusRecovers());
    ExpectCleanStop();
    spare.Stop();
}

}  // namespace
}  // namespace ppltest

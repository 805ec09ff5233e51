// Reading the service and camera keys of the system configuration.
#include <unistd.h>

#include "ServiceTestSupport.h"

namespace ppltest {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

TEST_F(ServiceTest, GroupCountIsCappedAtOne) {
    auto cfg = BaseLapiConfig();
    cfg["SERV_PPL_NUM"] = "3";
    std::string out = Load(cfg);
    EXPECT_THAT(out, HasSubstr("PPL Grp Num: 3\nMax PPL Group Num is 1\nPPL Service Enable: 1\n"));
    EXPECT_EQ(svc_->group_num, 1u);
}

TEST_F(ServiceTest, DisabledServiceStopsEveryCounterAndReadsNothingElse) {
    auto cfg = BaseLapiConfig();
    Load(cfg);
    EXPECT_TRUE(svc_->lapi_counters[0]->is_running());
    cfg["SERV_PPL_ENABLE"] = "0";
    cfg["SERV_PPL_TYPE"] = "3DPCV2";
    std::string out = Load(cfg);
    EXPECT_THAT(out, Not(HasSubstr("PPL In Cam")));
    EXPECT_EQ(svc_->use_3dpc, 0u) << "the camera kind is not read when disabled";
    for (auto* c : svc_->lapi_counters)
        EXPECT_FALSE(c->is_running());
    EXPECT_FALSE(svc_->counter_3dpc->is_running());
}

TEST_F(ServiceTest, MissingFileIsCreatedEmptyAndReadsAsServiceOff) {
    std::string out = ReadConfig();
    EXPECT_EQ(out, "PPL Grp Num: 0\nPPL Service Enable: 0\n");
    EXPECT_EQ(access(where_.system_ini.c_str(), F_OK), 0);
    EXPECT_EQ(ReadWholeFile(where_.system_ini), "");
}

TEST_F(ServiceTest, SeparateInAndOutCamerasGetInAndOutDirections) {
    std::string out = Load(BaseLapiConfig());
    EXPECT_THAT(out, HasSubstr("PPL In Cam: 0\npair in: 0, pair out: -1\n"
                               "PPL Out Cam: 1\npair in: 0, pair out: 1\n"
                               "PPL Alarm Over: 10\nPPL Alarm Under: 2\n"
                               "PPL Reset Time Enable: 1\nPPL Reset Time: 23:5:0\n"
                               "PPL Report Interval: 60\nPPL Sensitivity: 3\n"
                               "PPL Clear Counts: 0\nPPL settings are different.\n"));
    EXPECT_EQ(svc_->lapi_counters[0]->get_dir(), PPL_DIR_IN);
    EXPECT_EQ(svc_->lapi_counters[1]->get_dir(), PPL_DIR_OUT);
    EXPECT_EQ(svc_->lapi_cam_mask, 0x3u);
    EXPECT_TRUE(svc_->lapi_counters[0]->is_running());
    EXPECT_TRUE(svc_->lapi_counters[1]->is_running());
    EXPECT_FALSE(svc_->lapi_counters[2]->is_running());
    EXPECT_EQ(svc_->stayin_limits[0], std::make_pair(10, 2));
}

TEST_F(ServiceTest, SharedInAndOutCameraEndsDualAndIsAddedOnce) {
    auto cfg = BaseLapiConfig();
    cfg["SERV_PPL_IN_0_CAM"] = "2";
    cfg["SERV_PPL_OUT_0_CAM"] = "2";
    Load(cfg);
    EXPECT_EQ(svc_->lapi_counters[2]->get_dir(), PPL_DIR_DUAL);
    EXPECT_EQ(svc_->groups[0]->num(), 1);
    EXPECT_EQ(svc_->lapi_cam_mask, 0x4u);
    EXPECT_TRUE(svc_->lapi_counters[2]->is_running());
    for (int n : {0, 1, 3})
        EXPECT_FALSE(svc_->lapi_counters[n]->is_running()) << n;
}

TEST_F(ServiceTest, LapiWithNoGroupsStopsEveryCounter) {
    auto cfg = BaseLapiConfig();
    Load(cfg);
    cfg["SERV_PPL_NUM"] = "0";
    std::string out = Load(cfg);
    EXPECT_THAT(out, Not(HasSubstr("PPL In Cam")));
    for (auto* c : svc_->lapi_counters)
        EXPECT_FALSE(c->is_running());
}

TEST_F(ServiceTest, ThreeDpcReadsGroupZeroEvenWithoutGroupsAndRunsOnlyForCameraZero) {
    auto cfg = BaseLapiConfig();
    cfg["SERV_PPL_NUM"] = "0";
    cfg["SERV_PPL_TYPE"] = "3DPCV2";
    cfg["SERV_PPL_IN_0_CAM"] = "1";
    cfg["SERV_PPL_OUT_0_CAM"] = "1";
    std::string out = Load(cfg);
    EXPECT_THAT(out, HasSubstr("PPL In Cam: 1\n"));
    EXPECT_EQ(svc_->group_num, 1u);
    EXPECT_EQ(svc_->use_3dpc, 1u);
    EXPECT_FALSE(svc_->counter_3dpc->is_running()) << "bit 0 of the mask is clear";

    cfg["SERV_PPL_IN_0_CAM"] = "0";
    Load(cfg);
    EXPECT_TRUE(svc_->counter_3dpc->is_running());
    char reply[256] = {0};
    EXPECT_FALSE(svc_->ParseCmd("action=ppl_clear_counts&group=0", reply)) << "never connected";
    EXPECT_EQ(svc_->counter_3dpc->get_dir(), PPL_DIR_OUT) << "one counter, in 0 then out 1";

    cfg.erase("SERV_PPL_TYPE");
    Load(cfg);
    EXPECT_EQ(svc_->use_3dpc, 1u) << "a missing type keeps the previous kind";
    cfg["SERV_PPL_ENABLE"] = "0";
    Load(cfg);
    EXPECT_FALSE(svc_->counter_3dpc->is_running()) << "counting off stops the 3DPC counter too";
}

TEST_F(ServiceTest, IncompleteSettingsKeepTheGroupsEarlierSettings) {
    auto cfg = BaseLapiConfig();
    Load(cfg);
    cfg["SERV_PPL_SETTINGS_0_REPORT_INTERVAL"] = "99";
    cfg.erase("SERV_PPL_SETTINGS_0_SENSITIVITY");
    std::string out = Load(cfg);
    EXPECT_THAT(out, HasSubstr("PPL Report Interval: 99\n"
                               "PPL config is incomplete: SERV_PPL_SETTINGS_0_SENSITIVITY\n"));
    EXPECT_THAT(out, Not(HasSubstr("PPL settings are")));
    _PPL_CAM_SETTINGS s;
    svc_->groups[0]->get_ppl_settings(s);
    EXPECT_EQ(s.ReportInterval, 60);
    EXPECT_EQ(s.Sensitivity, 3);
    EXPECT_EQ(svc_->lapi_cam_mask, 0x3u) << "counters and pair of the group still apply";
}

TEST_F(ServiceTest, SameAndDifferentSettingsAcrossReads) {
    auto cfg = BaseLapiConfig();
    EXPECT_THAT(Load(cfg), HasSubstr("PPL settings are different."));
    EXPECT_THAT(ReadConfig(), HasSubstr("PPL settings are the same."));
    cfg["SERV_PPL_OUT_0_CAM"] = "2";
    EXPECT_THAT(Load(cfg), HasSubstr("PPL settings are different."));
}

TEST_F(ServiceTest, LongResetTimeIsCutToItsField) {
    auto cfg = BaseLapiConfig();
    cfg["SERV_PPL_SETTINGS_0_RESET_TIME"] = "01234567890123456789";
    Load(cfg);
    _PPL_CAM_SETTINGS s;
    svc_->groups[0]->get_ppl_settings(s);
    EXPECT_EQ(std::string(s.ResetTime), "012345678901234");
}

TEST_F(ServiceTest, CameraInfoNeedsAllFourKeysAndCutsTexts) {
    auto cfg = BaseLapiConfig();
    cfg["SERV_PPL_CAM_1_IP"] = "127.0.0.1";
    cfg["SERV_PPL_CAM_1_HTTP"] = "1234567890";
    cfg["SERV_PPL_CAM_1_USERNAME"] = "admin";
    WriteConfig(cfg);
    CamInfo info;
    memset(&info, 0, sizeof(info));
    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(svc_->GetCamInfo(1, info));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "PPL Cam config is incomplete\n");
    EXPECT_STREQ(info.HttpPort, "1234567");
    EXPECT_STREQ(info.UserName, "admin");

    cfg["SERV_PPL_CAM_1_PASSWORD"] = "pw";
    WriteConfig(cfg);
    EXPECT_TRUE(svc_->GetCamInfo(1, info));
    std::string address = "kept";
    int port = 42;
    EXPECT_TRUE(svc_->GetCamInfo(3, address, port));
    EXPECT_EQ(address, "kept");
    EXPECT_EQ(port, 42);
    EXPECT_TRUE(svc_->GetCamInfo(1, address, port));
    EXPECT_EQ(address, "127.0.0.1");
    EXPECT_EQ(port, 1234567890);
}

}  // namespace
}  // namespace ppltest

// The count callback, alarms, outgoing events, commands and module events.
#include <ostream>

#include "SAttr.h"
#include "ServiceTestSupport.h"

namespace ppltest {
namespace {

using ::testing::ElementsAre;

class CountCallback : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        if (IsSkipped())
            return;
        svc_->groups[0]->add_ppl_counter(&fake_);
        svc_->stayin_limits[0] = std::make_pair(10, 2);
    }
    void TearDown() override {
        if (svc_)
            svc_->groups[0]->clear();
        ServiceTest::TearDown();
    }
    std::vector<std::string> Report(int stayin) {
        fake_.total_in = stayin;
        fake_.total_out = 0;
        svc_->count_result(&fake_);
        return DrainEvents();
    }
    FakeCounter fake_;
};

TEST_F(CountCallback, AlarmsLatchAgainstEachOtherNotAgainstTheLimits) {
    EXPECT_THAT(Report(9), ElementsAre("event=ppl_count&in0=9&out0=0&stayin0=9"));
    EXPECT_THAT(Report(10), ElementsAre("event=ppl_stayin_over&group=0&limit=10",
                                        "event=ppl_count&in0=10&out0=0&stayin0=10"));
    EXPECT_THAT(Report(11), ElementsAre("event=ppl_count&in0=11&out0=0&stayin0=11"));
    EXPECT_THAT(Report(5), ElementsAre("event=ppl_count&in0=5&out0=0&stayin0=5"));
    EXPECT_TRUE(svc_->stayin_over_latched) << "falling between the limits clears nothing";
    EXPECT_THAT(Report(2), ElementsAre("event=ppl_stayin_under&group=0&limit=2",
                                       "event=ppl_count&in0=2&out0=0&stayin0=2"));
    EXPECT_THAT(Report(1), ElementsAre("event=ppl_count&in0=1&out0=0&stayin0=1"));
    EXPECT_THAT(Report(10), ElementsAre("event=ppl_stayin_over&group=0&limit=10",
                                        "event=ppl_count&in0=10&out0=0&stayin0=10"));
    EXPECT_THAT(Report(2), ElementsAre("event=ppl_stayin_under&group=0&limit=2",
                                       "event=ppl_count&in0=2&out0=0&stayin0=2"))
        << "each over alarm makes the next under alarm due again";
}

TEST_F(CountCallback, OverWinsWhenBothLimitsAreMetAndDefaultsAlarmAtOnce) {
    svc_->stayin_limits[0] = std::make_pair(0, 0);
    EXPECT_THAT(Report(0), ElementsAre("event=ppl_stayin_over&group=0&limit=0",
                                       "event=ppl_count&in0=0&out0=0&stayin0=0"));
}

TEST_F(CountCallback, CountEventUsesCameraTotalsAndACounterOutsideTheGroupIsSilent) {
    fake_.total_in = 7;
    fake_.total_out = 3;
    svc_->count_result(&fake_);
    EXPECT_THAT(DrainEvents(), ElementsAre("event=ppl_count&in0=7&out0=3&stayin0=4"));
    FakeCounter stranger;
    svc_->count_result(&stranger);
    EXPECT_TRUE(DrainEvents().empty());
}

TEST_F(ServiceTest, EventBuildersKeepStayin0WhateverTheGroup) {
    EXPECT_EQ(svc_->Create_Count_Result_Event_Msg(3, 1, 2, -1),
              "event=ppl_count&in3=1&out3=2&stayin0=-1");
    svc_->enable = 1;
    EXPECT_EQ(svc_->Create_PPL_Enable_Event_Msg(), "event=ppl_enable&enable=1");
}

struct CommandCase {
    const char* name;
    const char* text;
    bool result;
    const char* reply;
};

// Printed by its text, so the listed test names stay the same from build to build.
void PrintTo(const CommandCase& c, std::ostream* os) {
    *os << c.text;
}

class Commands : public ServiceTest, public ::testing::WithParamInterface<CommandCase> {};

TEST_P(Commands, ResultAndReplyText) {
    Load(BaseLapiConfig());  // camera keys missing: requests fail
    ::testing::internal::CaptureStdout();
    char reply[256] = {0};
    bool ok = svc_->ParseCmd(GetParam().text, reply);
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(ok, GetParam().result) << out;
    EXPECT_STREQ(reply, GetParam().reply);
    EXPECT_NE(out.find(std::string("ParseCmd(): ") + GetParam().text + "\n"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Vocabulary, Commands,
    ::testing::Values(
        CommandCase{"ConfigChange", "action=ppl_config_change", true, ""},
        CommandCase{"ResetWithoutGroup", "action=ppl_reset_service", false, ""},
        CommandCase{"ResetGroupOne", "action=ppl_reset_service&group=1", false, ""},
        CommandCase{"ResetGroupZero", "action=ppl_reset_service&group=0", true, "&wait_5_seconds"},
        CommandCase{"ClearWithoutCameraKeys", "action=ppl_clear_counts&group=0", false, ""},
        CommandCase{"StatusNothingConnected", "action=ppl_get_service_status", true,
                    "&in0=disconnect&out0=disconnect"},
        CommandCase{"ActionIsCaseSensitive", "action=PPL_CONFIG_CHANGE", false, ""},
        CommandCase{"NoAction", "group=0", false, ""}),
    [](const ::testing::TestParamInfo<CommandCase>& info) { return info.param.name; });

TEST_F(ServiceTest, ResetSetsTheRestartBitAndConfigChangeTheReloadFlag) {
    Load(BaseLapiConfig());
    ::testing::internal::CaptureStdout();
    svc_->reload_config = false;
    char reply[256] = {0};
    EXPECT_TRUE(svc_->ParseCmd("action=ppl_reset_service&group=0", reply));
    EXPECT_EQ(svc_->restart_group_mask, 1u);
    EXPECT_TRUE(svc_->ParseCmd("action=ppl_config_change", reply));
    EXPECT_TRUE(svc_->reload_config);
    EXPECT_FALSE(svc_->ParseCmd(nullptr, reply));
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("PPL Cam config is incomplete\nFailed to set camera 0 PPL settings.\n"),
              std::string::npos)
        << out;
}

TEST_F(ServiceTest, ClearAndResetWithAnIncompletePairContactNoCamera) {
    auto cfg = BaseLapiConfig();
    cfg.erase("SERV_PPL_IN_0_CAM");
    Load(cfg);
    ::testing::internal::CaptureStdout();
    char reply[256] = {0};
    EXPECT_FALSE(svc_->ParseCmd("action=ppl_clear_counts&group=0", reply));
    EXPECT_TRUE(svc_->ParseCmd("action=ppl_reset_service&group=0", reply));
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.find("PPL Cam config is incomplete"), std::string::npos) << out;
    EXPECT_NE(out.find("Camera group is incomplete\n"), std::string::npos) << out;
}

TEST_F(ServiceTest, RestartBitOfAGroupBeyondTheCountIsClearedWithoutARequest) {
    svc_->restart_group_mask = 0x3;
    svc_->group_num = 0;
    ::testing::internal::CaptureStdout();
    svc_->Check_PPL_Cam_Restart_Service();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(svc_->restart_group_mask, 0u);
}

TEST_F(ServiceTest, ModuleEventsActOnlyOnConfiguredLapiChannels) {
    auto cfg = BaseLapiConfig();
    cfg["SERV_PPL_CAM_1_IP"] = "127.0.0.1";
    cfg["SERV_PPL_CAM_1_HTTP"] = "9";
    Load(cfg);
    ::testing::internal::CaptureStdout();
    svc_->ReadCamIni();
    ::testing::internal::GetCapturedStdout();
    EXPECT_FALSE(svc_->ParseEvt(nullptr));
    EXPECT_FALSE(svc_->ParseEvt("ch=1"));
    EXPECT_TRUE(svc_->ParseEvt("event=something_else&ch=1"));

    EXPECT_TRUE(svc_->ParseEvt("event=del_camera&ch=2"));  // not configured
    EXPECT_TRUE(svc_->ParseEvt("event=del_camera&ch=1"));
    EXPECT_FALSE(svc_->lapi_counters[1]->is_running());
    EXPECT_EQ(svc_->lapi_counters[1]->get_server_addr(), "");

    EXPECT_TRUE(svc_->ParseEvt("event=add_camera&ch=1"));
    EXPECT_TRUE(svc_->lapi_counters[1]->is_running()) << "a stopped counter is started";
    EXPECT_EQ(svc_->lapi_counters[1]->get_server_addr(), "127.0.0.1");
    EXPECT_EQ(svc_->lapi_counters[1]->get_server_port(), 9);
    EXPECT_TRUE(svc_->ParseEvt("event=add_camera&ch=33"));  // bit 1, but no counter 33
}

TEST_F(ServiceTest, StatusFileKeysLimitsOnlyOnReloadAndStates) {
    Load(BaseLapiConfig());
    svc_->reload_config = true;
    svc_->UpdateStatus();
    EXPECT_EQ(ReadWholeFile(where_.status_ini),
              "PPL.Enable = 1\nPPL.In0.Count = 0\nPPL.In0.Status = disconnect\n"
              "PPL.Out0.Count = 0\nPPL.Out0.Status = disconnect\nPPL.StayIn0.Count = 0\n"
              "PPL.StayIn0.Over = 10\nPPL.StayIn0.Status = Under\nPPL.StayIn0.Under = 2");

    WriteWholeFile(where_.status_ini, "PPL.StayIn0.Over=77\nOther.Key=kept\n");
    svc_->reload_config = false;
    svc_->stayin_over_latched = true;
    svc_->UpdateStatus();
    auto status = ReadStatus();
    EXPECT_EQ(status["PPL.StayIn0.Over"], "77");
    EXPECT_EQ(status.count("PPL.StayIn0.Under"), 0u);
    EXPECT_EQ(status["Other.Key"], "kept");
    EXPECT_EQ(status["PPL.StayIn0.Status"], "Over");
}

TEST_F(ServiceTest, StatusWithoutGroupsRewritesTheFileUnchanged) {
    WriteWholeFile(where_.status_ini, "B=2\r\nA = 1\n");
    svc_->UpdateStatus();
    EXPECT_EQ(ReadWholeFile(where_.status_ini), "A = 1\nB = 2");
}

TEST_F(ServiceTest, RecordFileKeepsOtherKeysAndWritesFiveKeysOfTheGroup) {
    WriteWholeFile(where_.record_ini, "PPL.Record.In1.Count=4\n");
    FakeCounter in;
    in.set_dir(PPL_DIR_IN);
    in.set_ppl_in(5);
    in.total_in = 20;
    svc_->groups[0]->add_ppl_counter(&in);
    svc_->UpdateRecordIni(0);
    svc_->groups[0]->clear();
    EXPECT_EQ(ReadWholeFile(where_.record_ini),
              "PPL.Record.Cam.In0.Count = 20\nPPL.Record.Cam.Out0.Count = 0\n"
              "PPL.Record.In0.Count = 5\nPPL.Record.In1.Count = 4\n"
              "PPL.Record.Out0.Count = 0\nPPL.Record.StayIn0.Count = 5");
}

}  // namespace
}  // namespace ppltest

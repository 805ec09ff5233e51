#include "ServiceTestSupport.h"
#include "SandboxGTest.h"

#include "SAttr.h"

namespace ppltest {

void ServiceTest::SetUp() {
    PPL_ENTER_IPC_NAMESPACE_OR_SKIP();
    tmp_.reset(new TempDir("pplsvc-"));
    dir_ = tmp_->Path();
    where_.system_ini = dir_ + "/System.ini";
    where_.status_ini = dir_ + "/PPLCounter.ini";
    where_.record_ini = dir_ + "/PPLRecord.ini";
    where_.command_path = dir_ + "/SI_PPLCOUNTER";
    module_queue_.reset(new NEventMQ(where_.event_out_key, true));
    svc_.reset(new TestableService(where_));
    ASSERT_TRUE(svc_->Init());
}

void ServiceTest::TearDown() {
    if (svc_)
        svc_->Deinit();
    // Deinit stops only the counters of the configured kind.
    if (svc_) {
        svc_->counter_3dpc->stop();
        for (auto* c : svc_->lapi_counters)
            c->stop();
    }
    svc_.reset();
    module_queue_.reset();
    tmp_.reset();
}

void ServiceTest::WriteConfig(const std::map<std::string, std::string>& keys) {
    WriteWholeFile(where_.system_ini, ConfigText(keys));
}

std::string ServiceTest::ReadConfig() {
    ::testing::internal::CaptureStdout();
    EXPECT_TRUE(svc_->ReadIni());
    return ::testing::internal::GetCapturedStdout();
}

std::string ServiceTest::Load(const std::map<std::string, std::string>& keys) {
    WriteConfig(keys);
    return ReadConfig();
}

std::map<std::string, std::string> ServiceTest::ReadStatus() {
    SAttr status('=', "\r\n", "\n", nullptr);
    status.LoadFile(where_.status_ini.c_str());
    return status.GetRawData();
}

std::vector<std::string> ServiceTest::DrainEvents() {
    std::vector<std::string> events;
    char buffer[512];
    while (module_queue_->Wait(0, 0) > 0 && module_queue_->Recv(buffer, sizeof(buffer)) > 0) {
        events.push_back(buffer);
    }
    return events;
}

// The standard configuration without camera keys (requests to the cameras
// fail) and with limits 10 and 2.
std::map<std::string, std::string> BaseLapiConfig() {
    std::map<std::string, std::string> config = StandardConfig(0, 0);
    for (auto it = config.begin(); it != config.end();)
        it = it->first.compare(0, 13, "SERV_PPL_CAM_") == 0 ? config.erase(it) : std::next(it);
    config["SERV_PPL_STAYIN_0_OVER"] = "10";
    config["SERV_PPL_STAYIN_0_UNDER"] = "2";
    return config;
}

}  // namespace ppltest

#ifndef PPL_TEST_SERVICE_SUPPORT_H
#define PPL_TEST_SERVICE_SUPPORT_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "NModuleInterface.h"
#include "PPLCounter.h"
#include "Sandbox.h"
#include "Tarn_3DPC_Counter.h"
#include "UBrand_PPL_Counter.h"

namespace ppltest {

// Opens the service's members to the tests.
class TestableService : public PPLCounter {
public:
    using PPLCounter::counter_3dpc;
    using PPLCounter::enable;
    using PPLCounter::group_num;
    using PPLCounter::groups;
    using PPLCounter::initialized;
    using PPLCounter::lapi_cam_mask;
    using PPLCounter::lapi_counters;
    using PPLCounter::PPLCounter;
    using PPLCounter::reload_config;
    using PPLCounter::restart_group_mask;
    using PPLCounter::stayin_limits;
    using PPLCounter::stayin_over_latched;
    using PPLCounter::stayin_under_latched;
    using PPLCounter::use_3dpc;
};

// A counter whose camera totals the test sets.
class FakeCounter : public Abstract_PPL_Counter {
public:
    int total_in = 0;
    int total_out = 0;
    int get_ppl_total_cam_in() override { return total_in; }
    int get_ppl_total_cam_out() override { return total_out; }
    int get_ppl_total_cam_stayin() override { return total_in - total_out; }
};

// A service pointed at a private directory and queue keys inside a private
// IPC namespace; the test owns queue 259 (the module's) to read events.
class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    void WriteConfig(const std::map<std::string, std::string>& keys);
    // Has the service read its configuration; returns what it printed.
    std::string ReadConfig();
    // WriteConfig, then ReadConfig.
    std::string Load(const std::map<std::string, std::string>& keys);
    std::map<std::string, std::string> ReadStatus();
    // Events waiting on the module's queue, oldest first.
    std::vector<std::string> DrainEvents();

    std::unique_ptr<TempDir> tmp_;
    std::string dir_;
    PPLCounterPlaces where_;
    std::unique_ptr<NEventMQ> module_queue_;
    std::unique_ptr<TestableService> svc_;
};

std::map<std::string, std::string> BaseLapiConfig();

}  // namespace ppltest

#endif

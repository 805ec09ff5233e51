#ifndef PPL_TEST_LAPI_RIG_H
#define PPL_TEST_LAPI_RIG_H

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "CameraSim.h"
#include "ServiceHarness.h"
#include "TarnEndpoints.h"

namespace ppltest {

// A sandbox with the standard configuration written: both cameras simulated
// (account admin/secret, settings recorded) and the harness ready to start
// the service.
class LapiRigTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    std::unique_ptr<camsim::Camera> in_cam_, out_cam_;
    std::unique_ptr<camsim::TarnEndpoints> in_ctl_, out_ctl_;
    std::unique_ptr<ServiceHarness> h_;
    std::map<std::string, std::string> config_;
};

}  // namespace ppltest

#endif

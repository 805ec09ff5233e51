#include "LapiRig.h"

#include "SandboxGTest.h"

namespace ppltest {

void LapiRigTest::SetUp() {
    PPL_ENTER_SANDBOX_OR_SKIP();
    in_cam_.reset(new camsim::Camera());
    out_cam_.reset(new camsim::Camera());
    ASSERT_TRUE(in_cam_->Start());
    ASSERT_TRUE(out_cam_->Start());
    in_ctl_.reset(new camsim::TarnEndpoints(*in_cam_, "admin", "secret"));
    out_ctl_.reset(new camsim::TarnEndpoints(*out_cam_, "admin", "secret"));
    h_.reset(new ServiceHarness());
    config_ = StandardConfig(in_cam_->Port(), out_cam_->Port());
    h_->WriteConfig(config_);
}

void LapiRigTest::TearDown() {
    h_.reset();
    if (in_cam_)
        in_cam_->Stop();
    if (out_cam_)
        out_cam_->Stop();
}

}  // namespace ppltest

// pplctl doctor against the real service and both cameras in a private
// sandbox: every check passes, then each fault in turn fails exactly the
// check that names it (checks that need what failed are not run).
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <set>
#include <sstream>

#include "LapiRig.h"

namespace ppltest {
namespace {

struct DoctorRun {
    int status = -1;
    std::string out;
    std::set<std::string> failed, not_checked, passed;
};

DoctorRun Doctor() {
    DoctorRun run;
    Child ctl;
    if (!ctl.Start({BuiltFile("pplctl"), "doctor"}, "/tmp") || !ctl.Wait(30000))
        return run;
    run.status = WIFEXITED(ctl.ExitStatus()) ? WEXITSTATUS(ctl.ExitStatus()) : -1;
    run.out = ctl.Stdout() + ctl.Stderr();
    std::istringstream lines(ctl.Stdout());
    std::string line;
    while (std::getline(lines, line)) {
        size_t colon = line.find(": ");
        if (line.size() < 5 || colon == std::string::npos || line.compare(0, 7, "doctor:") == 0)
            continue;
        std::string tag = line.substr(0, 4), name = line.substr(5, colon - 5);
        (tag == "ok  " ? run.passed : tag == "FAIL" ? run.failed : run.not_checked).insert(name);
    }
    return run;
}

const std::set<std::string> kChecks = {"pplcounter running",
                                       "command socket",
                                       "status file",
                                       "queue 601",
                                       "queue 259",
                                       "configuration",
                                       "camera 0 (in) reachable",
                                       "camera 0 (in) connected",
                                       "camera 1 (out) reachable",
                                       "camera 1 (out) connected"};

using DoctorTest = LapiRigTest;

TEST_F(DoctorTest, AllPassThenEachFaultFailsExactlyItsCheck) {
    ASSERT_TRUE(h_->StartService());
    ASSERT_TRUE(h_->WaitStatus("PPL.In0.Status", "connect", 8000)) << h_->Stderr();
    ASSERT_TRUE(h_->WaitStatus("PPL.Out0.Status", "connect", 8000)) << h_->Stderr();
    DoctorRun healthy = Doctor();
    EXPECT_EQ(healthy.status, 0) << healthy.out;
    EXPECT_EQ(healthy.passed, kChecks) << healthy.out;
    EXPECT_NE(healthy.out.find("doctor: all 10 checks passed\n"), std::string::npos);

    const struct {
        const char* fault;
        std::function<void()> make, undo;
        std::string fails;
        std::set<std::string> not_checked;
    } faults[] = {
        {"configuration with a problem",
         [&] {
             WriteWholeFile(ServiceHarness::kSystemIni,
                            ConfigText(config_) + "SERV_PPL_CAM_0_PASWORD=secret\r\n");
         },
         [&] { h_->WriteConfig(config_); },
         "configuration",
         {}},
        {"queue 259 missing",
         [] { msgctl(msgget(259, 0), IPC_RMID, nullptr); },
         [] { msgget(259, IPC_CREAT | 0777); },
         "queue 259",
         {}},
        {"camera not listening",
         [&] { out_cam_->SetRefusing(true); },
         [&] { out_cam_->SetRefusing(false); },
         "camera 1 (out) reachable",
         {"camera 1 (out) connected"}},
        {"socket path replaced by a directory",
         [] {
             unlink("/tmp/SI_PPLCOUNTER");
             mkdir("/tmp/SI_PPLCOUNTER", 0700);
         },
         [] {},
         "command socket",
         {}},
        {"service stopped",
         [&] { EXPECT_EQ(h_->StopService(SIGTERM), 0); },
         [] {},
         "pplcounter running",
         {"command socket", "status file", "queue 601", "camera 0 (in) connected",
          "camera 1 (out) connected"}},
    };
    for (const auto& f : faults) {
        f.make();
        DoctorRun run = Doctor();
        EXPECT_EQ(run.status, 1) << f.fault << "\n" << run.out;
        EXPECT_EQ(run.failed, std::set<std::string>{f.fails}) << f.fault << "\n" << run.out;
        EXPECT_EQ(run.not_checked, f.not_checked) << f.fault << "\n" << run.out;
        EXPECT_EQ(run.passed.size() + run.failed.size() + run.not_checked.size(), kChecks.size())
            << f.fault << "\n"
            << run.out;
        f.undo();
    }
}

}  // namespace
}  // namespace ppltest

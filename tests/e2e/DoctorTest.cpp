// pplctl doctor against the real service and both cameras in a private
// sandbox: every check passes, then each fault in turn fails exactly the
// checks that name it (checks that need what failed are not run).
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
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

DoctorRun Doctor(const std::vector<std::string>& args = {"doctor"}) {
    DoctorRun run;
    Child ctl;
    std::vector<std::string> argv = {BuiltFile("pplctl")};
    argv.insert(argv.end(), args.begin(), args.end());
    if (!ctl.Start(argv, "/tmp") || !ctl.Wait(30000))
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

// How long ago the status file was written, in ms (-1 when it cannot be read).
long StatusAgeMs() {
    struct stat st;
    timespec now;
    if (stat(ServiceHarness::kStatusIni, &st) != 0 || clock_gettime(CLOCK_REALTIME, &now) != 0)
        return -1;
    return (now.tv_sec - st.st_mtim.tv_sec) * 1000L + (now.tv_nsec - st.st_mtim.tv_nsec) / 1000000L;
}

using DoctorTest = LapiRigTest;

TEST_F(DoctorTest, AllPassThenEachFaultFailsExactlyItsChecks) {
    ASSERT_TRUE(h_->StartService());
    ASSERT_TRUE(h_->WaitStatus("PPL.In0.Status", "connect", 8000)) << h_->Stderr();
    ASSERT_TRUE(h_->WaitStatus("PPL.Out0.Status", "connect", 8000)) << h_->Stderr();
    // As the start-up scripts narrow it.
    auto narrow_queue = [] {
        DoctorRun narrowed = Doctor({"queue-access", "0770", "0"});
        ASSERT_EQ(narrowed.status, 0) << narrowed.out;
        EXPECT_EQ(narrowed.out, "queue 601 narrowed: mode 0770, group 0\n");
    };
    ASSERT_NO_FATAL_FAILURE(narrow_queue());
    DoctorRun healthy = Doctor();
    EXPECT_EQ(healthy.status, 0) << healthy.out;
    EXPECT_EQ(healthy.passed, kChecks) << healthy.out;
    EXPECT_NE(healthy.out.find("doctor: all 10 checks passed\n"), std::string::npos);

    const std::set<std::string> kCamerasConnected = {"camera 0 (in) connected",
                                                     "camera 1 (out) connected"};
    auto fresh_status = [&] {
        return WaitFor(5000, [] { return StatusAgeMs() >= 0 && StatusAgeMs() < 1500; });
    };
    const struct {
        const char* fault;
        std::function<void()> make, undo;
        std::set<std::string> fails, not_checked;
    } faults[] = {
        {"configuration with a problem",
         [&] {
             WriteWholeFile(ServiceHarness::kSystemIni,
                            ConfigText(config_) + "SERV_PPL_CAM_0_PASWORD=secret\r\n");
         },
         [&] { h_->WriteConfig(config_); },
         {"configuration"},
         {}},
        {"queue 259 missing",
         [] { msgctl(msgget(259, 0), IPC_RMID, nullptr); },
         [] { msgget(259, IPC_CREAT | 0777); },
         {"queue 259"},
         {}},
        {"camera not listening",
         [&] { out_cam_->SetRefusing(true); },
         [&] { out_cam_->SetRefusing(false); },
         {"camera 1 (out) reachable"},
         {"camera 1 (out) connected"}},
        {"camera refusing the service's account",
         [&] {
             out_cam_->SetSubscribe(camsim::Subscribe::Unauthorized);
             out_cam_->DropConnections();
             ASSERT_TRUE(h_->WaitStatus("PPL.Out0.Status", "disconnect", 8000));
         },
         [&] {
             out_cam_->SetSubscribe(camsim::Subscribe::Ok);
             ASSERT_TRUE(h_->WaitStatus("PPL.Out0.Status", "connect", 8000));
         },
         {"camera 1 (out) connected"},
         {}},
        {"queue 601 open to every user",
         [] {
             EXPECT_EQ(Doctor({"queue-access", "0777", "0"}).status, 0);
         },
         narrow_queue,
         {"queue 601"},
         {}},
        {"service hung",
         [&] {
             h_->Service().Signal(SIGSTOP);
             ASSERT_TRUE(WaitFor(6000, [] { return StatusAgeMs() > 3100; }));
         },
         [&] {
             h_->Service().Signal(SIGCONT);
             ASSERT_TRUE(fresh_status());
         },
         {"command socket", "status file"},
         kCamerasConnected},
        {"socket path replaced by a directory",
         [] {
             unlink("/tmp/SI_PPLCOUNTER");
             mkdir("/tmp/SI_PPLCOUNTER", 0700);
         },
         [] {},
         {"command socket"},
         {}},
        {"service stopped",
         [&] { EXPECT_EQ(h_->StopService(SIGTERM), 0); },
         [] {},
         {"pplcounter running"},
         {"command socket", "status file", "queue 601", "camera 0 (in) connected",
          "camera 1 (out) connected"}},
    };
    for (const auto& f : faults) {
        SCOPED_TRACE(f.fault);
        ASSERT_NO_FATAL_FAILURE(f.make());
        DoctorRun run = Doctor();
        EXPECT_EQ(run.status, 1) << run.out;
        EXPECT_EQ(run.failed, f.fails) << run.out;
        EXPECT_EQ(run.not_checked, f.not_checked) << run.out;
        EXPECT_EQ(run.passed.size() + run.failed.size() + run.not_checked.size(), kChecks.size())
            << run.out;
        ASSERT_NO_FATAL_FAILURE(f.undo());
    }
}

}  // namespace
}  // namespace ppltest

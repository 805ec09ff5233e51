// pplctl run as a person runs it, checking exit status and every line printed:
// check-config on a table of files, one per kind of problem; its own messages
// without a service; usage errors; watch into a pipe.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "ConfigCheck.h"
#include "NModuleInterface.h"
#include "PPLCounter.h"
#include "PPLSettingsRequest.h"
#include "SandboxGTest.h"
#include "Tarn_3DPC_Counter.h"
#include "UBrand_PPL_Counter.h"
#include "UTextParam.h"

namespace {

const std::map<std::string, std::string> kClean = ppltest::StandardConfig(8001, 8002);

// One fresh directory per test program, so runs side by side never meet.
const std::string& Scratch() {
    static const ppltest::TempDir dir("pplctl-test-");
    static const std::string path = dir.Path() + "/";
    return path;
}

struct Outcome {
    int status;
    std::string out;
};

Outcome Pplctl(const std::string& args) {
    std::string command = std::string(PPLCTL) + " " + args + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    Outcome run{-1, ""};
    char buffer[4096];
    size_t n;
    while (pipe != nullptr && (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0)
        run.out.append(buffer, n);
    int raw = pipe != nullptr ? pclose(pipe) : -1;
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return run;
}

Outcome CheckConfig(const std::string& path) {
    return Pplctl("check-config '" + path + "'");
}

std::string WriteConfig(const std::map<std::string, std::string>& changes,
                        const std::string& extra = "", const std::string& before = "") {
    std::map<std::string, std::string> keys = kClean;
    for (const auto& c : changes) {
        if (c.second == "<missing>")
            keys.erase(c.first);
        else
            keys[c.first] = c.second;
    }
    std::string path = Scratch() + "check-config.ini";
    std::ofstream(path, std::ios::trunc | std::ios::binary)
        << before << ppltest::ConfigText(keys) << extra;
    return path;
}

TEST(CheckConfig, CleanFileSaysWhatTheServiceDoesAndExitsZero) {
    Outcome run = CheckConfig(WriteConfig({}));
    EXPECT_EQ(run.status, 0) << run.out;
    for (const char* line :
         {"  Counting is on (SERV_PPL_ENABLE=1).\n",
          "  Group 0: in camera 0 (in, 127.0.0.1:8001), out camera 1 (out, 127.0.0.1:8002).\n",
          "  Stay-in alarms: over when 5 or more are inside, under when 1 or fewer.\n",
          "  Settings: daily reset at 23:05:00 (on), report interval 60, sensitivity 3, clear "
          "counts off.\n",
          "  Settings for camera 0 and camera 1, pushed to the cameras when they change on a "
          "reload, never at start: action=ppl_setdata&Reset=0&TimeReset=1&Type=time&Hour=23"
          "&Min=5&Sec=0&Sensitivity=3&ReportTime=60\n",
          "No problems found.\n"})
        EXPECT_NE(run.out.find(line), std::string::npos) << line << "\nin:\n" << run.out;
}

// One file per mistake: the keys changed from the clean file, text before
// and after the keys, and check-config's line for it and for every other
// problem it causes.
struct ProblemFile {
    std::map<std::string, std::string> changes;
    std::vector<std::string> lines;
    std::string before = "", after = "";
};
const ProblemFile kProblemFiles[] = {
    {{{"SERV_PPL_ENABLE", "<missing>"}},
     {"SERV_PPL_ENABLE is missing: counting is off and every camera is stopped."}},
    {{{"SERV_PPL_ENABLE", "yes"}, {"SERV_PPL_STAYIN_0_OVER", "8x"}},
     {"SERV_PPL_ENABLE=yes: not a number; the service reads it as 0: counting is off and "
      "every camera is stopped.",
      "SERV_PPL_STAYIN_0_OVER=8x: not a number; the service reads it as 8."}},
    {{{"SERV_PPL_TYPE", "3DPC"}},
     {"SERV_PPL_TYPE=3DPC: only \"3DPCV2\" selects the 3DPC counter; the service uses LAPI "
      "cameras, channels 0 to 3."}},
    {{{"SERV_PPL_TYPE", "3DPCV2"}},
     {"SERV_PPL_CAM_1_IP=127.0.0.1: the service never reads camera 1's keys; the 3DPC "
      "counter uses camera 0's only."}},
    {{{"SERV_PPL_SETTINGS_0_RESET_TIME", "3.30"}},
     {"SERV_PPL_SETTINGS_0_RESET_TIME=3.30: not hours:minutes:seconds within 23:59:59; the "
      "cameras will be sent Hour=3&Min=0&Sec=0."}},
    {{},
     {"the file begins with a UTF-8 byte-order mark: the service reads it as part of the "
      "first key, \"\\xEF\\xBB\\xBFSERV_PPL_CAM_0_HTTP\", so it does not see "
      "SERV_PPL_CAM_0_HTTP; save the file without the mark.",
      "SERV_PPL_CAM_0_HTTP is missing: camera 0 has no port."},
     "\xEF\xBB\xBF",
     ""},
    {{{"SERV_PPL_TYPE", std::string("LA\0PI", 5)}},
     {"the file holds NUL bytes (the first in line 20): the service reads nothing after the "
      "first one, so it reads SERV_PPL_TYPE as \"LA\"; remove them.",
      "SERV_PPL_TYPE=LA: only \"3DPCV2\" selects the 3DPC counter; the service uses LAPI "
      "cameras, channels 0 to 3."}},
    {{{"SERV_PPL_CAM_0_PASSWORD", "<missing>"}, {"SERV_PPL_CAM_0_PASWORD", "secret"}},
     {"SERV_PPL_CAM_0_PASSWORD is missing: settings, enable and clear requests to camera 0 "
      "fail (\"PPL Cam config is incomplete\").",
      "SERV_PPL_CAM_0_PASWORD=******: the service never reads this key; did you mean "
      "SERV_PPL_CAM_0_PASSWORD?"}},
    {{{"SERV_PPL_CAM_1_PASSWORD", "\x93secret\x94"}},
     {"SERV_PPL_CAM_1_PASSWORD=\\x93******\\x94: holds a non-ASCII byte (\\x93); the service "
      "sends it as it is and the camera refuses every settings, enable and clear request."}},
    {{{"SERV_PPL_CAM_2_IP", "127.0.0.3"}, {"SERV_PPL_CAM_2_HTTP", "80"}},
     {"SERV_PPL_CAM_2_IP=127.0.0.3: camera 2 is used by no group; the service never connects "
      "to it."}},
    {{{"SERV_PPL_OUT_0_CAM", "2"}},
     {"SERV_PPL_OUT_0_CAM=2: camera 2 has no keys (SERV_PPL_CAM_2_IP, _HTTP, _USERNAME, "
      "_PASSWORD); its counter cannot connect and every request to it fails.",
      "SERV_PPL_CAM_1_IP=127.0.0.1: camera 1 is used by no group; the service never connects "
      "to it."}},
    {{{"SERV_PPL_SETTINGS_0_SENSITIVITY", "<missing>"}},
     {"SERV_PPL_SETTINGS_0_SENSITIVITY is missing: the group's settings are incomplete and "
      "skipped; no settings request is sent."}},
    {{{"SERV_PPL_OUT_0_CAM", "7"}},
     {"SERV_PPL_OUT_0_CAM=7: the service ignores this camera (LAPI channels are 0 to 3).",
      "SERV_PPL_CAM_1_IP=127.0.0.1: camera 1 is used by no group; the service never connects "
      "to it."}},
    {{{"SERV_PPL_CAM_1_HTTP", "99999"}},
     {"SERV_PPL_CAM_1_HTTP=99999: port outside 1-65535; the service would connect to port "
      "34463."}},
    {{{"SERV_PPL_CAM_0_IP", "camera-a"}},
     {"SERV_PPL_CAM_0_IP=camera-a: not a dotted IPv4 address; the service cannot reach the "
      "camera (host names are not looked up)."}},
    {{{"SERV_PPL_STAYIN_0_UNDER", "9"}},
     {"SERV_PPL_STAYIN_0_OVER=5, SERV_PPL_STAYIN_0_UNDER=9: the over limit is not above the "
      "under limit; a stay-in that meets both raises the over alarm only."}},
    {{{"SERV_PPL_TYPE", "<missing>"}},
     {"SERV_PPL_TYPE is missing: the camera kind stays as it was (LAPI cameras when the "
      "service starts)."}},
    {{{"SERV_PPL_NUM", "<missing>"}}, {"SERV_PPL_NUM is missing: there is no counting group."}},
    {{{"SERV_PPL_OUT_0_CAM", "<missing>"}},
     {"SERV_PPL_OUT_0_CAM is missing: group 0 has no out camera; nobody is counted going out "
      "and reset and clear commands are refused.",
      "SERV_PPL_CAM_1_IP=127.0.0.1: camera 1 is used by no group; the service never connects "
      "to it."}},
    {{{"SERV_PPL_TYPE", "3DPCV2"}, {"SERV_PPL_IN_0_CAM", "1"}},
     {"SERV_PPL_IN_0_CAM/SERV_PPL_OUT_0_CAM: no side names camera 0, so the 3DPC counter is "
      "not started.",
      "SERV_PPL_CAM_1_IP=127.0.0.1: the service never reads camera 1's keys; the 3DPC "
      "counter uses camera 0's only."}},
    {{{"SERV_PPL_SETTINGS_0_RESET_TIME", "12:00:00.0000000"}},
     {"SERV_PPL_SETTINGS_0_RESET_TIME=12:00:00.0000000: longer than 15 characters; the "
      "service keeps \"12:00:00.000000\".",
      "SERV_PPL_SETTINGS_0_RESET_TIME=12:00:00.0000000: not hours:minutes:seconds within "
      "23:59:59; the cameras will be sent Hour=12&Min=0&Sec=0."}},
    {{},
     {"line 22 \"just words\": no \"=\"; the service skips the line.",
      "SERV_PPL_NUM is set in line 12 and again in line 23: the service takes the last, \"2\".",
      "SERV_PPL_NUM=2: the service counts one group at most; it uses group 0 only."},
     "# a comment line is skipped as meant\n",
     "just words\nSERV_PPL_NUM=2\n"},
    {{},
     {"line 21 \"SERV_PPL_EXTRA=\": empty key or value; the service skips the line."},
     "",
     "SERV_PPL_EXTRA=\n"},
};

TEST(CheckConfig, EachProblemIsOneLineWithKeyValueAndConsequence) {
    for (const auto& c : kProblemFiles) {
        Outcome run = CheckConfig(WriteConfig(c.changes, c.after, c.before));
        EXPECT_EQ(run.status, 1) << c.lines[0];
        for (const auto& line : c.lines)
            EXPECT_NE(run.out.find("  - " + line + "\n"), std::string::npos) << line << "\nin:\n"
                                                                             << run.out;
        size_t n = c.lines.size();
        EXPECT_NE(
            run.out.find(std::to_string(n) + (n == 1 ? " problem" : " problems") + " found.\n"),
            std::string::npos)
            << run.out;
    }
}

// What the service does with a configuration file: counting on or off; when
// on, each camera whose counter it starts ("index in/out address:port"), group
// 0's limits and its settings request ("" while incomplete).
struct Verdict {
    bool counting = false;
    std::vector<std::string> cameras;
    std::pair<int, int> limits;
    std::string settings;
    bool operator==(const Verdict& o) const {
        return counting == o.counting && cameras == o.cameras && limits == o.limits &&
               settings == o.settings;
    }
};

std::ostream& operator<<(std::ostream& out, const Verdict& v) {
    out << (v.counting ? "counting" : "off") << ", cameras:";
    for (const auto& camera : v.cameras)
        out << " [" << camera << "]";
    return out << ", limits " << v.limits.first << "/" << v.limits.second << ", settings \""
               << v.settings << "\"";
}

std::string Camera(int index, bool in, bool out, const std::string& address, int port) {
    return std::to_string(index) + (in ? " in" : "") + (out ? " out" : "") + " " + address + ":" +
           std::to_string(port);
}

Verdict Said(const ConfigReport& report) {
    Verdict v;
    v.counting = report.counting;
    if (!v.counting)
        return v;
    for (const CameraUse& c : report.cameras)
        if (c.started)
            v.cameras.push_back(Camera(c.index, c.in, c.out, c.address, c.port));
    v.limits = report.limits;
    v.settings = report.settings;
    return v;
}

// The service's own reader, as a fresh service runs it, on one file.
class ServiceReader : public PPLCounter {
public:
    explicit ServiceReader(const PPLCounterPlaces& places) : PPLCounter(places) {}

    Verdict Read() {
        testing::internal::CaptureStdout();
        ReadIni();
        ReadCamIni();
        std::string printed = testing::internal::GetCapturedStdout();
        Verdict v;
        v.counting = enable != 0;
        std::pair<int, int> pair;
        groups[0]->get_cam_pair(pair);
        if (v.counting && use_3dpc == 1 && counter_3dpc->is_running()) {
            std::string address, port;
            counter_3dpc->GetDeviceInfo(address, port);
            v.cameras.push_back(Camera(0, pair.first >= 0, pair.second >= 0, address,
                                       UTextParam::toIntValue(port.c_str(), 10)));
        }
        for (int n = 0; v.counting && use_3dpc == 0 && n < ppl::kLapiChannels; ++n) {
            UBrand_PPL_Counter* c = lapi_counters[n];
            if (c->is_running())
                v.cameras.push_back(Camera(n, pair.first == n, pair.second == n,
                                           c->get_server_addr(), c->get_server_port()));
        }
        if (v.counting) {
            v.limits = stayin_limits[0];
            _PPL_CAM_SETTINGS settings;
            groups[0]->get_ppl_settings(settings);
            if (group_num > 0 && printed.find("PPL config is incomplete") == std::string::npos)
                v.settings = PPL_Settings_Request_Text(settings);
        }
        counter_3dpc->stop();
        for (UBrand_PPL_Counter* c : lapi_counters)
            c->stop();
        return v;
    }
};

// check-config and the service read every file of the table the same way:
// what the one says the service will do is what the other does. In a
// sandbox of its own, since the service's counters connect to the cameras.
TEST(CheckConfig, SaysWhatTheServicesOwnReaderDoesWithEveryFile) {
    PPL_ENTER_SANDBOX_OR_SKIP();
    std::vector<ProblemFile> files(std::begin(kProblemFiles), std::end(kProblemFiles));
    files.push_back({{}, {"the clean file"}});
    for (const ProblemFile& file : files) {
        const std::string path = WriteConfig(file.changes, file.after, file.before);
        ASSERT_TRUE(std::ifstream(path).good()) << "written inside the sandbox";
        PPLCounterPlaces places;
        places.system_ini = path;
        places.status_ini = Scratch() + "status.ini";
        places.record_ini = Scratch() + "record.ini";
        EXPECT_EQ(Said(::CheckConfig(path)), ServiceReader(places).Read()) << file.lines[0];
    }
}

TEST(CheckConfig, GarbageMeansCountingOffAndUnreadableMeansExitTwo) {
    std::string path = Scratch() + "garbage.ini";
    std::ofstream(path, std::ios::binary) << std::string(
        "\x7f"
        "ELF\x01\x00\x02=\x03\xff",
        11);
    Outcome run = CheckConfig(path);
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.out.find("is not a text file"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("SERV_PPL_ENABLE is missing: counting is off"), std::string::npos);

    for (const std::string& unreadable : {Scratch() + "absent.ini", Scratch()}) {
        run = CheckConfig(unreadable);
        EXPECT_EQ(run.status, 2) << run.out;
        EXPECT_EQ(run.out.rfind("pplctl: cannot read " + unreadable + ": ", 0), 0u) << run.out;
    }
}

TEST(Pplctl, SpeaksForItselfWithoutAServiceAndOnUsageErrors) {
    std::string socket = Scratch() + "no-service";
    Outcome run = Pplctl("--socket " + socket + " status");
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.out, "pplctl: no service answers on " + socket + ": is pplcounter running?\n");
    const struct {
        const char* args;
        std::string out;
    } usage[] = {
        {"status extra",
         "pplctl: status: unexpected argument 'extra' (pplctl --help shows the usage)\n"},
        {"frobnicate", "pplctl: unknown command frobnicate (pplctl --help shows the usage)\n"},
        {"", "pplctl: no command given (pplctl --help shows the usage)\n"},
        {"camera add 9",
         "pplctl: camera takes 'add N' or 'del N' with a channel 0 to 3 (pplctl "
         "--help shows the usage)\n"},
        {"send",
         "pplctl: send takes one command text, e.g. 'action=...' (pplctl --help shows "
         "the usage)\n"},
        {"--timeout 5s status",
         "pplctl: --timeout needs milliseconds (pplctl --help shows the usage)\n"},
        {"--seconds -1 watch",
         "pplctl: --seconds needs a number (pplctl --help shows the usage)\n"},
        {"--bogus status", "pplctl: unknown option --bogus (pplctl --help shows the usage)\n"}};
    for (const auto& u : usage) {
        run = Pplctl(u.args);
        EXPECT_EQ(run.status, 2) << u.args;
        EXPECT_EQ(run.out, u.out);
    }
}

// Queue 259 is the module's that made it: an event read there is gone for
// that module, so pplctl events leaves it alone unless told to take them.
TEST(Pplctl, EventsLeaveAnotherModulesQueueAloneUnlessTaken) {
    PPL_ENTER_IPC_NAMESPACE_OR_SKIP();
    NEventMQ module(259, true);
    const std::string event = "event=ppl_count&in0=1&out0=0&stayin0=1";
    ASSERT_EQ(module.Send(event.c_str(), event.size()), static_cast<int>(event.size()));
    Outcome run = Pplctl("events --seconds 1");
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "pplctl: queue 259 belongs to another module (made by user " +
                           std::to_string(geteuid()) +
                           "): each event read here is taken from it and that module never sees "
                           "it; --take reads it anyway\n");
    EXPECT_EQ(module.Wait(0, 0), 1) << "the module's event was taken";
    run = Pplctl("--take --seconds 1 events");
    EXPECT_EQ(run.status, 0) << run.out;
    EXPECT_NE(run.out.find("\n" + event + "\n"), std::string::npos) << run.out;
    EXPECT_EQ(module.Wait(0, 0), 0);
}

TEST(Pplctl, WatchIntoAPipePrintsPlainSnapshotsAndWaitsForAMissingFile) {
    std::string status = Scratch() + "watch-status.ini";
    remove(status.c_str());
    Outcome run = Pplctl("--status " + status + " --seconds 1 watch | cat");
    EXPECT_EQ(run.out, "--- " + status + "\n(waiting for the status file)\n");
    std::ofstream(status) << "PPL.Enable = 1\nPPL.In0.Count = 4\n";
    run = Pplctl("--status " + status + " --seconds 1 watch | cat");
    EXPECT_EQ(run.out, "--- " + status + "\nPPL.Enable             1\nPPL.In0.Count          4\n");
    // What anyone may put in /tmp instead is not read: a link (to a file
    // that reads fine) and a FIFO, which would hold an open for ever.
    std::string elsewhere = Scratch() + "watch-elsewhere.ini";
    ASSERT_EQ(rename(status.c_str(), elsewhere.c_str()), 0);
    ASSERT_EQ(symlink(elsewhere.c_str(), status.c_str()), 0);
    run = Pplctl("--status " + status + " --seconds 1 watch | cat");
    EXPECT_EQ(run.out, "--- " + status + "\n(waiting for the status file: a symbolic link)\n");
    remove(status.c_str());
    ASSERT_EQ(mkfifo(status.c_str(), 0600), 0);
    run = Pplctl("--status " + status + " --seconds 1 watch | cat");
    EXPECT_EQ(run.out, "--- " + status + "\n(waiting for the status file: a FIFO)\n");
}

}  // namespace

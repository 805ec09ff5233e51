// A configuration file that is missing, unreadable, huge or garbage, a /tmp
// that cannot be written for a while, and a status file that someone deletes
// or edits while the service runs.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

#include "FaultFixture.h"

namespace ppltest {
namespace {

// Megabytes of lines the service does not know, then the real keys.
std::string HugeConfig(const std::map<std::string, std::string>& keys) {
    std::string text;
    for (int i = 0; text.size() < (4u << 20); ++i) {
        text += "JUNK_" + std::to_string(i) + " = " + std::string(40, 'j') + "\r\n";
        text += "a line without a separator [section] ;comment\n\n";
    }
    for (const auto& kv : keys)
        text += kv.first + "=" + kv.second + "\r\n";
    return text;
}

bool Exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

TEST_F(FaultTest, ConfigurationMissingGarbageUnreadableOrHuge) {
    const std::string ini = ServiceHarness::kSystemIni;
    ASSERT_EQ(unlink(ini.c_str()), 0);
    ASSERT_TRUE(h_->StartService());
    EXPECT_TRUE(h_->WaitEvent("event=ppl_enable&enable=0"));
    EXPECT_TRUE(WaitFor(3000, [&] { return Exists(ini); })) << "created";
    EXPECT_EQ(ReadWholeFile(ini), "");
    EXPECT_EQ(h_->NextEvent(500), "") << "no group, so no count event";
    EXPECT_EQ(h_->Command("action=ppl_get_service_status"),
              "reply=success&in0=disconnect&out0=disconnect");
    ASSERT_NO_FATAL_FAILURE(ExpectAlive("no configuration"));

    auto reload = [&](const std::string& what, const std::string& enable) {
        h_->ForgetEvents();
        EXPECT_EQ(h_->Command("action=ppl_config_change"), "reply=success") << what;
        EXPECT_TRUE(h_->WaitEvent("event=ppl_enable&enable=" + enable, 8000)) << what;
        ASSERT_NO_FATAL_FAILURE(ExpectAlive(what));
    };
    ASSERT_TRUE(WriteWholeFile(ini, Garbage(65536, 3)));
    ASSERT_NO_FATAL_FAILURE(reload("a garbage configuration", "0"));

    ASSERT_TRUE(WriteWholeFile(ini, HugeConfig(config_)));
    ASSERT_NO_FATAL_FAILURE(reload("a huge configuration", "1"));
    ASSERT_TRUE(in_cam_->WaitForSubscribers(1, 8000));
    ASSERT_TRUE(out_cam_->WaitForSubscribers(1, 8000));
    in_cam_->Walk(2, 0);
    out_cam_->Walk(0, 1);
    EXPECT_TRUE(CountsRecover());

    // Unreadable while counting: the service is then disabled, by design,
    // until the file can be read again.
    ASSERT_EQ(unlink(ini.c_str()), 0);
    ASSERT_EQ(mkdir(ini.c_str(), 0755), 0);
    ASSERT_NO_FATAL_FAILURE(reload("an unreadable configuration while counting", "0"));
    EXPECT_TRUE(
        WaitFor(5000, [&] { return in_cam_->Subscribers() + out_cam_->Subscribers() == 0; }));
    ASSERT_EQ(rmdir(ini.c_str()), 0);
    h_->WriteConfig(config_);
    ASSERT_NO_FATAL_FAILURE(reload("the configuration restored", "1"));
    ASSERT_TRUE(in_cam_->WaitForSubscribers(1, 8000));
    ASSERT_TRUE(out_cam_->WaitForSubscribers(1, 8000));
    in_cam_->Walk(1, 0);
    EXPECT_TRUE(CountsRecover());
    EXPECT_TRUE(StatusRecovers());
    ExpectCleanStop();
}

TEST_F(FaultTest, StatusFileDeletedEditedOrNotWritable) {
    StartCounting();
    in_cam_->Walk(2, 0);
    out_cam_->Walk(0, 1);
    ASSERT_TRUE(StatusRecovers());
    const std::string status = ServiceHarness::kStatusIni;

    ASSERT_EQ(unlink(status.c_str()), 0);
    EXPECT_TRUE(WaitFor(3000, [&] { return Exists(status); }));
    EXPECT_TRUE(StatusRecovers());
    EXPECT_EQ(h_->Status()["PPL.In0.Status"], "connect");

    // Edited by hand: the service's own keys come back, others stay, and
    // the limits, written only on a reload, keep the edit until one.
    std::map<std::string, std::string> edited;
    for (int attempt = 0; attempt < 3 && edited["OTHER.Key"] != "kept"; ++attempt) {
        // An edit that lands between the service's read and its write is
        // lost, as with any writer of the file; it is simply made again.
        ASSERT_TRUE(WriteWholeFile(status,
                                   "PPL.In0.Count = 999\nPPL.Enable = 0\nOTHER.Key = kept\n"
                                   "PPL.StayIn0.Over = 77\n\x01\x02 garbage\r\n\r\n"));
        EXPECT_TRUE(StatusRecovers());
        EXPECT_TRUE(h_->WaitStatus("PPL.Enable", "1"));
        edited = h_->Status();
    }
    EXPECT_EQ(edited["OTHER.Key"], "kept");
    EXPECT_EQ(edited["PPL.StayIn0.Over"], "77");
    EXPECT_EQ(h_->Command("action=ppl_config_change"), "reply=success");
    EXPECT_TRUE(h_->WaitStatus("PPL.StayIn0.Over", "5"));

    // /tmp read-only for a while (a read-only mount over it: files already
    // open stay writable, new writes fail). Counting and events go on; the
    // file catches up once /tmp is writable again.
    ASSERT_EQ(mount("/tmp", "/tmp", nullptr, MS_BIND, nullptr), 0) << strerror(errno);
    ASSERT_EQ(mount(nullptr, "/tmp", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0)
        << strerror(errno);
    in_cam_->Walk(1, 0);
    EXPECT_TRUE(h_->WaitEvent(ExpectedCountEvent()));
    ASSERT_NO_FATAL_FAILURE(ExpectAlive("/tmp read-only"));
    EXPECT_FALSE(StatusRecovers(1500)) << "nothing can be written";
    ASSERT_EQ(umount2("/tmp", MNT_DETACH), 0) << strerror(errno);
    EXPECT_TRUE(StatusRecovers());
    ExpectCleanStop();
}

// Wall-clock steps (to 1970, a day forward, a day back) change nothing: the
// passes, the status file, the camera restart and the camera connections are
// timed by the monotonic clock. The steps are the service's view of the
// clock (a preloaded shim), as the time stamps of its log lines show.
TEST_F(FaultTest, WallClockStepsChangeNothing) {
    const std::string shift = "/tmp/clock-shift";
    ASSERT_TRUE(WriteWholeFile(shift, "0"));
    ASSERT_TRUE(h_->StartService(WithShim({"PPL_SHIM_CLOCK_FILE=" + shift})));
    ASSERT_TRUE(ServiceStatusBecomes("reply=success&in0=connect&out0=connect", 8000))
        << Excerpt(h_->Stderr());
    const int subscriptions = Subscriptions(*in_cam_) + Subscriptions(*out_cam_);
    const long noon_1970 = 43200 - static_cast<long>(time(nullptr));
    for (long step : {noon_1970, noon_1970 + 86400, noon_1970}) {
        ASSERT_TRUE(WriteWholeFile(shift, std::to_string(step)));
        ASSERT_TRUE(h_->SendModuleEvent("event=add_camera&ch=9"));
        in_cam_->Walk(1, 0);
        EXPECT_TRUE(CountsRecover());
        EXPECT_TRUE(StatusRecovers());
    }
    EXPECT_EQ(h_->Command("action=ppl_reset_service&group=0"), "reply=success&wait_5_seconds");
    EXPECT_TRUE(WaitFor(7000, [&] { return in_cam_->CountingEnabled(); })) << "restarted";
    EXPECT_EQ(Subscriptions(*in_cam_) + Subscriptions(*out_cam_), subscriptions) << "reconnected";
    for (const char* day : {"Jan  1 ", "Jan  2 "})
        EXPECT_NE(h_->Stderr().find(day), std::string::npos) << day << " 1970 in the log";
    ASSERT_NO_FATAL_FAILURE(ExpectAlive("wall-clock steps"));
    ExpectCleanStop();
}

}  // namespace
}  // namespace ppltest

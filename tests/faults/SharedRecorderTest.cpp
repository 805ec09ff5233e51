// Other users of the recorder share /tmp, the System V keys and the
// configuration with the service: whatever they put at its paths, under its
// key or into the configuration, the service neither follows nor trusts it,
// says so once and keeps serving, and the configuration is never written.
#include <fcntl.h>
#include <grp.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "FaultFixture.h"

namespace ppltest {
namespace {

const uid_t kOtherUser = 65534;
const char* const kStatusPath = "/tmp/PPLCounter.ini";
const char* const kSocketPath = "/tmp/SI_PPLCOUNTER";
const char* const kOldLockPath = "/tmp/PPLCounter.lock";

std::vector<std::string> AsOtherUser() {
    return {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
}

// The service as the recorder's hardened unit may run it: root, but unable to
// read or write other users' files.
std::vector<std::string> WithoutFileOverride() {
    return {"/usr/bin/setpriv", "--bounding-set=-dac_override,-dac_read_search"};
}

// Runs a shell command as the other user; true when it exited with 0.
bool OtherUserRuns(const std::string& command) {
    std::vector<std::string> argv = AsOtherUser();
    argv.insert(argv.end(), {"/bin/sh", "-c", command});
    Child child;
    return child.Start(argv, "/tmp") && child.Wait(10000) && WIFEXITED(child.ExitStatus()) &&
           WEXITSTATUS(child.ExitStatus()) == 0;
}

// Runs fn in a child process with the other user's ids (no shell command
// makes a queue under a chosen key); true when fn returned true.
bool OtherUserDoes(const std::function<bool()>& fn) {
    pid_t pid = fork();
    if (pid == 0) {
        bool ok = setgroups(0, nullptr) == 0 &&
                  setresgid(kOtherUser, kOtherUser, kOtherUser) == 0 &&
                  setresuid(kOtherUser, kOtherUser, kOtherUser) == 0 && fn();
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

// What the owner of a file would see changed: its kind, owner, mode, size,
// time of the last write and the digest of its first 64 KiB. (The time of
// the last change of its attributes moves when the path is replaced.)
std::string Fingerprint(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return "missing";
    std::string text = std::to_string(st.st_ino) + " " + std::to_string(st.st_mode) + " " +
                       std::to_string(st.st_uid) + " " + std::to_string(st.st_size) + " " +
                       std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
    if (S_ISREG(st.st_mode)) {
        std::string head(65536, '\0');
        int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        ssize_t n = fd < 0 ? -1 : pread(fd, &head[0], head.size(), 0);
        if (fd >= 0)
            close(fd);
        head.resize(n < 0 ? 0 : size_t(n));
        text += n < 0 ? " unreadable" : " " + std::to_string(std::hash<std::string>()(head));
    }
    return text;
}

size_t Occurrences(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

// Needs root outside a user namespace: the other user must exist.
class SharedRecorderTest : public FaultTest {
protected:
    void SetUp() override {
        FaultTest::SetUp();
        if (HasFatalFailure() || IsSkipped())
            return;
        if (!OtherUserRuns("true")) {
            if (NamespacesMayBeSkipped())
                GTEST_SKIP() << "no other user to play the neighbour (not root)";
            FAIL() << "these tests run as root: user " << kOtherUser
                   << " must exist for setpriv; set PPL_ALLOW_NO_NAMESPACES=1 to skip them";
        }
    }
};

TEST_F(SharedRecorderTest, WhateverIsAtTheStatusPathIsNeitherFollowedNorTrusted) {
    const std::string secret = "/opt/root-only.ini";
    ASSERT_TRUE(WriteWholeFile(secret, "SECRET.Key = 1"));
    ASSERT_EQ(chmod(secret.c_str(), 0600), 0);
    struct Case {
        const char* what;
        std::string plant;  // run as the other user, or as root when root_plants
        bool root_plants;
        std::string said;    // the line's text after the time stamp
        std::string target;  // what must stay untouched
    };
    const std::string moved = "PPLCounter::UpdateStatus(), moved ";
    const std::string at = std::string(" of user 65534 at ") + kStatusPath + " aside to ";
    const std::vector<Case> cases = {
        {"a link to a root-only file", "ln -s " + secret + " " + kStatusPath, false,
         moved + "a symbolic link" + at, secret},
        {"a FIFO", std::string("mkfifo ") + kStatusPath, false, moved + "a FIFO" + at, kStatusPath},
        {"a directory", std::string("mkdir ") + kStatusPath, false, moved + "a directory" + at,
         kStatusPath},
        {"a file of another user with forged keys",
         std::string("printf 'PPL.Enable = 9\\nFORGED.Key = 1' >") + kStatusPath, false,
         moved + "a regular file" + at, kStatusPath},
        {"a 1 GiB sparse file of its own", std::string("truncate -s 1G ") + kStatusPath, true,
         std::string("ignoring ") + kStatusPath + ": 1073741824 bytes, over the limit of 65536\n",
         kStatusPath},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(system((std::string("rm -rf ") + kStatusPath).c_str()), 0);
        ASSERT_TRUE(c.root_plants ? system(c.plant.c_str()) == 0 : OtherUserRuns(c.plant));
        // Held open: a replaced file is still there to compare.
        int held = open(c.target.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(held, 0);
        const std::string before = Fingerprint("/proc/self/fd/" + std::to_string(held));
        ASSERT_TRUE(h_->StartService());
        const std::string& said = c.said;
        EXPECT_TRUE(WaitFor(5000, [&] { return h_->Stderr().find(said) != std::string::npos; }))
            << Excerpt(h_->Stderr());
        EXPECT_TRUE(h_->WaitStatus("PPL.In0.Status", "connect", 8000));
        struct stat st;
        ASSERT_EQ(lstat(kStatusPath, &st), 0);
        EXPECT_TRUE(S_ISREG(st.st_mode) && st.st_uid == 0 && (st.st_mode & 07777) == 0644);
        auto status = h_->Status();
        EXPECT_EQ(status.count("FORGED.Key") + status.count("SECRET.Key"), 0u);
        EXPECT_EQ(status["PPL.Enable"], "1");
        // A status pass a second: said once.
        EXPECT_FALSE(WaitFor(2500, [&] { return Occurrences(h_->Stderr(), said) > 1; }));
        EXPECT_EQ(h_->Command("action=ppl_get_service_status", 1000).rfind("reply=success", 0), 0u);
        EXPECT_EQ(Fingerprint("/proc/self/fd/" + std::to_string(held)), before);
        close(held);
        long peak = ServiceMemoryKiB(h_->Service().Pid(), "VmHWM:");
        EXPECT_LT(peak, 8 * 1024) << "KiB at their peak";
        ExpectCleanStop();
    }
}

// Another user's queue 601 is replaced; the events that user sends on the
// service's own are logged one line each.
TEST_F(SharedRecorderTest, AnotherUsersQueue601IsReplacedAndTheirEventsForgeNoLogLine) {
    ASSERT_TRUE(OtherUserDoes([] { return msgget(601, IPC_CREAT | IPC_EXCL | 0666) >= 0; }));
    int foreign = msgget(601, 0);
    ASSERT_GE(foreign, 0);

    StartCounting();
    EXPECT_TRUE(LockIsHeld("/run/PPLCounter.lock"));
    EXPECT_NE(h_->Stderr().find("queue 601 was created by user 65534; removed and created anew\n"),
              std::string::npos)
        << Excerpt(h_->Stderr());
    int own = msgget(601, 0);
    struct msqid_ds ds;
    ASSERT_EQ(msgctl(own, IPC_STAT, &ds), 0);
    EXPECT_NE(own, foreign);
    EXPECT_EQ(ds.msg_perm.cuid, 0u);
    EXPECT_EQ(ds.msg_perm.mode & 0777, 0777u) << "created as designed";
    EXPECT_FALSE(OtherUserDoes([own] { return msgctl(own, IPC_RMID, nullptr) == 0; }));
    ASSERT_TRUE(h_->SendModuleEvent("event=del_camera&ch=1"));
    EXPECT_TRUE(WaitFor(5000, [&] { return out_cam_->Subscribers() == 0; }));
    // A newline forges no line of root's log; a backslash stays told apart.
    ASSERT_TRUE(OtherUserDoes([] {
        NEventMQ queue(601, false);
        const std::string forged = "event=x\nevil::0:0::/root:/bin/sh\\n\x01";
        return queue.Send(forged.c_str(), unsigned(forged.size())) == int(forged.size());
    }));
    EXPECT_EQ(h_->Command("action=ppl_config_change\nevil").rfind("reply=", 0), 0u);
    EXPECT_TRUE(WaitFor(3000, [&] {
        return h_->Stderr().find("=> event=x\\nevil::0:0::/root:/bin/sh\\\\n\\x01\n") !=
               std::string::npos;
    })) << Excerpt(h_->Stderr());
    EXPECT_NE(h_->Stdout().find("ParseCmd(): action=ppl_config_change\\nevil\n"),
              std::string::npos);
    EXPECT_EQ(Occurrences(h_->Stderr() + h_->Stdout(), "\nevil"), 0u);
    ASSERT_NO_FATAL_FAILURE(ExpectAlive("another user's queue and events"));
    ExpectCleanStop();
}

// Whatever is at the socket path makes way (a directory moved aside with
// what it holds, anything else removed: one line each), as does a socket
// left by a killed service. Each time the service counts and answers, and
// though it runs under umask 000 with its bind slowed (a second late), no
// other user can send a command, not even the moment the path appears.
TEST_F(SharedRecorderTest, WhateverIsAtTheCommandSocketPathMakesWayForASocketOnlyRootReaches) {
    const std::string path = kSocketPath;
    for (const std::string& plant : {"mkdir " + path + " && touch " + path + "/kept",
                                     "touch " + path, "ln -s /opt " + path, std::string()}) {
        SCOPED_TRACE(plant);
        if (h_->Service().Running()) {
            ASSERT_EQ(h_->StopService(plant.empty() ? SIGKILL : SIGTERM), plant.empty() ? 9 : 0);
        }
        ASSERT_TRUE(plant.empty() || OtherUserRuns(plant));
        struct stat st = {};
        lstat(kSocketPath, &st);
        const ino_t before = st.st_ino;
        mode_t mask = umask(0);
        ASSERT_TRUE(h_->StartService(WithShim({"PPL_SHIM_BIND_DELAY_MS=1000"})));
        umask(mask);
        // The intruder sends the moment the new socket is there.
        EXPECT_FALSE(OtherUserDoes([before] {
            struct stat now;
            auto there = [&] { return !lstat(kSocketPath, &now) && now.st_ino != before; };
            NCommandIPC intruder("/tmp/intruder", kSocketPath);
            return WaitFor(5000, there) && intruder.Send("action=ppl_config_change", 24) > 0;
        })) << "another user's command was taken";
        EXPECT_TRUE(ServiceStatusBecomes("reply=success&in0=connect&out0=connect", 8000));
        EXPECT_EQ(Occurrences(h_->Stderr(), " of user 65534 at " + path), plant.empty() ? 0u : 1u)
            << Excerpt(h_->Stderr());
        ASSERT_EQ(lstat(kSocketPath, &st), 0);
        EXPECT_TRUE(S_ISSOCK(st.st_mode) && st.st_uid == 0 && (st.st_mode & 07777) == 0660);
    }
    EXPECT_EQ(system(("test -f " + path + ".aside-*/kept").c_str()), 0) << "the directory's file";
    EXPECT_EQ(h_->Stderr().find("queue 601"), std::string::npos) << "the killed one's is adopted";
    ExpectCleanStop();
}

// With /tmp out of inodes the socket cannot be made: the service counts all
// the same, says so once, and answers once inodes are free again.
TEST_F(SharedRecorderTest, ATmpOutOfInodesAtTheStartStopsOnlyTheCommandsUntilInodesAreFree) {
    struct statvfs fs;
    ASSERT_EQ(statvfs("/tmp", &fs), 0);
    // Room for the service's two output files and nothing else.
    const std::string inodes = std::to_string(fs.f_files - fs.f_ffree + 2);
    ASSERT_EQ(system(("mount -o remount,nr_inodes=" + inodes + " /tmp").c_str()), 0);
    ASSERT_TRUE(h_->StartService());
    ASSERT_TRUE(in_cam_->WaitForSubscribers(1, 8000)) << Excerpt(h_->Stderr());
    EXPECT_TRUE(CountsRecover());
    // Past a retry of the bind, which fails as quietly.
    EXPECT_FALSE(ServiceStatusBecomes("reply=success&in0=connect&out0=connect", 4000));
    ASSERT_EQ(system("mount -o remount,nr_inodes=100000 /tmp"), 0);
    EXPECT_TRUE(ServiceStatusBecomes("reply=success&in0=connect&out0=connect", 8000));
    EXPECT_EQ(Occurrences(h_->Stderr(), std::string("command socket ") + kSocketPath), 2u)
        << "that it cannot be made, then that it is bound\n"
        << Excerpt(h_->Stderr());
    ExpectCleanStop();
}

// With /run (and /var/run) read-only the lock goes to a directory of the
// service's own in /tmp: another user's link at its name is moved aside.
// Where the service may not move it (/tmp is not root's, and the service
// lacks CAP_FOWNER), nor what the user put at the status and socket paths,
// it says so, one line each, and counts without the lock, the status file
// and the socket.
TEST_F(SharedRecorderTest, AnotherUsersThingsWhereTheLockGoesNeverStopAStart) {
    ASSERT_EQ(system("mount -o remount,ro /run && { test -L /var/run || mount -t tmpfs -o ro "
                     "tmpfs /var/run; }"),
              0);
    const std::string dir = "/tmp/PPLCounter.lock.d";
    ASSERT_TRUE(OtherUserRuns(std::string("touch ") + kOldLockPath + " && ln -s /tmp " + dir));
    StartCounting();
    EXPECT_TRUE(LockIsHeld(dir + "/PPLCounter.lock"));
    struct stat st;
    ASSERT_EQ(lstat(dir.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode) && st.st_uid == 0 && (st.st_mode & 07777) == 0700);
    EXPECT_NE(h_->Stderr().find("moved a symbolic link of user 65534 at " + dir),
              std::string::npos);
    ExpectCleanStop();

    ASSERT_EQ(system(("rm -r " + dir + " " + kStatusPath + " && chown 12345 /tmp").c_str()), 0);
    ASSERT_TRUE(OtherUserRuns("mkdir " + dir + " " + kStatusPath + " && touch " + kSocketPath));
    ASSERT_TRUE(h_->StartService({"/usr/bin/setpriv", "--bounding-set=-fowner"}));
    ASSERT_TRUE(in_cam_->WaitForSubscribers(1, 8000)) << Excerpt(h_->Stderr());
    EXPECT_TRUE(CountsRecover());
    for (const char* said : {"; running without the instance lock\n", "cannot be removed",
                             "that cannot be moved aside"})
        EXPECT_EQ(Occurrences(h_->Stderr(), said), 1u) << said << "\n" << Excerpt(h_->Stderr());
    ExpectCleanStop();
}

// Exists but cannot be loaded: the pass reads as every key missing (the
// service off), and the file is exactly as it was.
TEST_F(SharedRecorderTest, AConfigurationThatCannotBeLoadedIsNeverWritten) {
    const std::string ini = ServiceHarness::kSystemIni;
    struct Case {
        const char* what;
        std::string make;
        std::vector<std::string> wrapper;
    };
    const std::vector<Case> cases = {
        {"a directory", "mkdir " + ini, {}},
        {"unreadable",
         "printf 'OTHER_MODULE_KEY=1\\r\\n' >" + ini + " && chown 65534 " + ini + " && chmod 600 " +
             ini,
         WithoutFileOverride()},
        {"2 GiB", "truncate -s 2G " + ini, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(system(("rm -rf " + ini).c_str()), 0);
        ASSERT_EQ(system(c.make.c_str()), 0);
        const std::string before = Fingerprint(ini);
        h_->ForgetEvents();
        ASSERT_TRUE(h_->StartService(c.wrapper));
        EXPECT_TRUE(h_->WaitEvent("event=ppl_enable&enable=0")) << Excerpt(h_->Stderr());
        EXPECT_EQ(h_->Command("action=ppl_config_change"), "reply=success");
        EXPECT_TRUE(h_->WaitEvent("event=ppl_enable&enable=0"));
        EXPECT_EQ(h_->NextEvent(500), "") << "no group, so no count event";
        EXPECT_EQ(h_->Command("action=ppl_get_service_status"),
                  "reply=success&in0=disconnect&out0=disconnect");
        EXPECT_EQ(Occurrences(h_->Stderr(), ini + " cannot be loaded"), 2u);
        EXPECT_EQ(Fingerprint(ini), before);
        ExpectCleanStop();
    }
}

// Another module rewrites the configuration in place, in two writes, as fast
// as it can (a slower writer would rarely be caught between the service's
// size query and its read), while the service reloads it again and again:
// the service may read half a file, but never writes a byte of it.
TEST_F(SharedRecorderTest, AModuleRewritingTheConfigurationInPlaceLosesNothing) {
    const std::string ini = ServiceHarness::kSystemIni;
    std::string others;
    for (int i = 0; others.size() < 16384; ++i)
        others += "OTHER_MODULE_KEY_" + std::to_string(i) + "=" + std::string(40, 'v') + "\r\n";
    std::atomic<bool> writing(true);
    std::atomic<int> lost(0);
    std::string last;
    std::thread writer([&] {
        for (long round = 0; writing; ++round) {
            const std::string text =
                ConfigText(config_) + others + "OTHER_MODULE_ROUND=" + std::to_string(round);
            int fd = open(ini.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
            size_t half = text.size() / 2;
            bool ok =
                fd >= 0 && write(fd, text.data(), half) == ssize_t(half) &&
                write(fd, text.data() + half, text.size() - half) == ssize_t(text.size() - half);
            if (fd >= 0)
                close(fd);
            if (!ok || ReadWholeFile(ini) != text)
                ++lost;
            last = text;
        }
    });
    bool started = h_->StartService() && WaitFor(5000, [] {
                       struct stat st;
                       return lstat(kSocketPath, &st) == 0 && S_ISSOCK(st.st_mode);
                   });
    int answered = 0;
    for (int i = 0; started && i < 100; ++i)
        answered += h_->Command("action=ppl_config_change") == "reply=success";
    writing = false;
    writer.join();
    EXPECT_EQ(answered, 100);
    EXPECT_EQ(lost, 0) << "rounds whose file was not as written";
    EXPECT_EQ(ReadWholeFile(ini), last);
    ASSERT_NO_FATAL_FAILURE(ExpectAlive("a configuration rewritten in place"));
    ExpectCleanStop();
}

}  // namespace
}  // namespace ppltest

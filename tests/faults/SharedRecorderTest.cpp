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

// The service's peak resident memory in KiB; -1 where it cannot be told
// apart from an emulator's or a sanitizer's (their own memory counts too).
long PeakMemoryKiB(pid_t pid) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    (void)pid;
    return -1;
#else
    char exe[4096] = {0};
    std::string proc = "/proc/" + std::to_string(pid);
    if (readlink((proc + "/exe").c_str(), exe, sizeof(exe) - 1) < 0 ||
        std::string(exe).find("pplcounter") == std::string::npos)
        return -1;
    std::string status = ReadWholeFile(proc + "/status");
    size_t at = status.find("VmHWM:");
    return at == std::string::npos ? -1 : std::stol(status.substr(at + 6));
#endif
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

    // Starts the service, expects it to end by itself with status 0 (a
    // failed start-up) and returns what it wrote on standard error.
    std::string FailedStart() {
        EXPECT_TRUE(h_->StartService());
        EXPECT_TRUE(h_->Service().Wait(5000)) << "still runs";
        EXPECT_TRUE(WIFEXITED(h_->Service().ExitStatus()));
        EXPECT_EQ(WEXITSTATUS(h_->Service().ExitStatus()), 0);
        return h_->Stderr();
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
        const char* said;    // after "ignoring /tmp/PPLCounter.ini: "
        std::string target;  // what must stay untouched
        bool replaced;       // the service's own file takes the path
    };
    const std::vector<Case> cases = {
        {"a link to a root-only file", "ln -s " + secret + " " + kStatusPath, false,
         "a symbolic link", secret, true},
        {"a FIFO", std::string("mkfifo ") + kStatusPath, false, "a FIFO", kStatusPath, true},
        {"a directory", std::string("mkdir ") + kStatusPath, false, "a directory", kStatusPath,
         false},
        {"a file of another user with forged keys",
         std::string("printf 'PPL.Enable = 9\\nFORGED.Key = 1' >") + kStatusPath, false,
         "owned by user 65534", kStatusPath, true},
        {"a 1 GiB sparse file", std::string("truncate -s 1G ") + kStatusPath, true,
         "1073741824 bytes, over the limit of 65536", kStatusPath, true},
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
        const std::string said = std::string("ignoring ") + kStatusPath + ": " + c.said + "\n";
        EXPECT_TRUE(WaitFor(5000, [&] { return h_->Stderr().find(said) != std::string::npos; }))
            << Excerpt(h_->Stderr());
        if (c.replaced) {
            EXPECT_TRUE(h_->WaitStatus("PPL.In0.Status", "connect", 8000));
            struct stat st;
            ASSERT_EQ(lstat(kStatusPath, &st), 0);
            EXPECT_TRUE(S_ISREG(st.st_mode) && st.st_uid == 0 && (st.st_mode & 07777) == 0644);
            auto status = h_->Status();
            EXPECT_EQ(status.count("FORGED.Key") + status.count("SECRET.Key"), 0u);
            EXPECT_EQ(status["PPL.Enable"], "1");
        }
        // A status pass a second, each one meeting the same path: said once.
        EXPECT_FALSE(WaitFor(2500, [&] { return Occurrences(h_->Stderr(), said) > 1; }));
        EXPECT_EQ(h_->Command("action=ppl_get_service_status", 1000).rfind("reply=success", 0), 0u);
        EXPECT_EQ(Fingerprint("/proc/self/fd/" + std::to_string(held)), before);
        close(held);
        long peak = PeakMemoryKiB(h_->Service().Pid());
        EXPECT_LT(peak, 8 * 1024) << "KiB at their peak";
        ExpectCleanStop();
    }
}

TEST_F(SharedRecorderTest, AnotherUsersLockAtTheOldPathAndQueue601DoNotStopTheService) {
    // One process that holds the lock (sleep inherits the locked file).
    Child holder;
    std::vector<std::string> argv = AsOtherUser();
    argv.insert(argv.end(),
                {"/bin/sh", "-c",
                 std::string("exec 9>>") + kOldLockPath + " && flock 9 && exec sleep 600"});
    ASSERT_TRUE(holder.Start(argv, "/tmp"));
    ASSERT_TRUE(WaitFor(5000, [&] { return LockIsHeld(kOldLockPath); }));
    int foreign = -1;
    ASSERT_TRUE(OtherUserDoes([] { return msgget(601, IPC_CREAT | IPC_EXCL | 0666) >= 0; }));
    foreign = msgget(601, 0);
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
    ASSERT_NO_FATAL_FAILURE(ExpectAlive("another user's lock and queue"));
    ExpectCleanStop();
    holder.Signal(SIGKILL);
}

// A path holding anything but a socket ends the start-up as any endpoint
// that cannot be made does; a socket left by a killed service is replaced,
// and its queue 601 taken over as it is.
TEST_F(SharedRecorderTest, ACommandSocketPathThatIsNoSocketIsRefused) {
    for (const std::string& plant : {std::string("mkdir "), std::string("touch ")}) {
        ASSERT_TRUE(OtherUserRuns(plant + kSocketPath));
        const std::string before = Fingerprint(kSocketPath);
        std::string err = FailedStart();
        EXPECT_EQ(Occurrences(err, std::string("refusing the command socket ") + kSocketPath), 1u)
            << err;
        EXPECT_EQ(Fingerprint(kSocketPath), before) << plant;
        ASSERT_EQ(system((std::string("rm -rf ") + kSocketPath).c_str()), 0);
    }
    StartCounting();
    ASSERT_EQ(h_->StopService(SIGKILL), SIGKILL);
    struct stat st;
    ASSERT_EQ(lstat(kSocketPath, &st), 0) << "a killed service leaves its socket";
    StartCounting();
    // The killed one's status file and subscriptions can still show: the new
    // one has replaced the socket once it answers on it.
    ASSERT_TRUE(ServiceStatusBecomes("reply=success&in0=connect&out0=connect", 8000))
        << "no answer after a stale socket and queue";
    ASSERT_EQ(lstat(kSocketPath, &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode) && st.st_uid == 0);
    EXPECT_EQ(st.st_mode & 07777, 0660u) << "whatever the umask";
    EXPECT_EQ(h_->Stderr().find("queue 601"), std::string::npos) << "the killed one's is adopted";
    ASSERT_NO_FATAL_FAILURE(ExpectAlive("a stale socket and queue"));
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

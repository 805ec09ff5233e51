#include "Doctor.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "ConfigCheck.h"
#include "InstanceLock.h"
#include "OwnedFile.h"
#include "PPLConstants.h"
#include "SAttr.h"
#include "ServiceClient.h"
#include "ULog.h"
#include "UTime.h"

namespace {

constexpr int kAnswerMs = 1000;   // the service serves a command every 100 ms
constexpr int kFreshMs = 3000;    // it rewrites the status file every second
constexpr int kConnectMs = 3000;  // a camera on the recorder's network answers at once

enum class Outcome { kOk, kFail, kNotChecked };

// The queue's state, or why there is none to look at.
bool StatQueue(int key, msqid_ds* ds, std::string* why) {
    int id = msgget(key, 0);
    if (id >= 0 && msgctl(id, IPC_STAT, ds) == 0)
        return true;
    *why = errno == ENOENT ? "missing" : "cannot be looked at (" + UError::Text(errno) + ")";
    return false;
}

// Whether a TCP connection to the camera opens in time; *detail says how
// long it took or why not.
bool Connects(const std::string& address, int port, std::string* detail) {
    sockaddr_in to;
    memset(&to, 0, sizeof(to));
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, address.c_str(), &to.sin_addr) != 1) {
        *detail = "not a dotted IPv4 address";
        return false;
    }
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *detail = "no socket: " + UError::Text(errno);
        return false;
    }
    uint64_t start = UTime::GetMonotonicMs();
    int err = connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof(to)) == 0 ? 0 : errno;
    if (err == EINPROGRESS) {
        pollfd ready = {fd, POLLOUT, 0};
        int n = poll(&ready, 1, kConnectMs);
        socklen_t length = sizeof(err);
        if (n <= 0)
            err = n == 0 ? ETIMEDOUT : errno;
        else if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &length) != 0)
            err = errno;
    }
    close(fd);
    if (err != 0) {
        *detail = err == ETIMEDOUT ? "no answer within 3 s" : UError::Text(err);
        return false;
    }
    *detail = "accepts a connection (" + std::to_string(UTime::ElapsedMs(start)) + " ms)";
    return true;
}

std::string Seconds(int64_t ms) {
    char text[32];
    snprintf(text, sizeof(text), "%.1f s", static_cast<double>(ms) / 1000.0);
    return text;
}

class Doctor {
public:
    explicit Doctor(const DoctorPaths& paths) : paths_(paths) {}

    int Run() {
        CheckService();
        if (running_) {
            CheckSocket();
            CheckStatusFile();
            CheckOwnQueue();
        } else {
            for (const char* name : {"command socket", "status file", "queue 601"})
                Say(Outcome::kNotChecked, name, "pplcounter is not running");
        }
        CheckPeerQueue();
        ConfigReport config = CheckConfiguration();
        for (const CameraUse& camera : config.cameras)
            CheckCamera(camera, config.counting);
        if (failed_ == 0 && not_checked_ == 0) {
            printf("doctor: all %d checks passed\n", total_);
            return 0;
        }
        printf("doctor: %d of %d checks failed", failed_, total_);
        if (not_checked_ > 0)
            printf(", %d not checked", not_checked_);
        printf("\n");
        return 1;
    }

private:
    void Say(Outcome outcome, const std::string& name, const std::string& text) {
        static const char* const kTags[] = {"ok", "FAIL", "--"};
        printf("%-4s %s: %s%s\n", kTags[static_cast<int>(outcome)], name.c_str(),
               outcome == Outcome::kNotChecked ? "not checked: " : "", text.c_str());
        ++total_;
        failed_ += outcome == Outcome::kFail;
        not_checked_ += outcome == Outcome::kNotChecked;
    }
    void Check(bool ok, const std::string& name, const std::string& text) {
        Say(ok ? Outcome::kOk : Outcome::kFail, name, text);
    }

    // The service runs while it holds its instance lock, in whichever of
    // the lock directories it could write.
    void CheckService() {
        const char* name = "pplcounter running";
        if (access("/proc/locks", R_OK) != 0) {
            Say(Outcome::kFail, name, "cannot read /proc/locks: " + UError::Text(errno));
            return;
        }
        const std::vector<std::string> dirs = InstanceLock::ServiceDirs();
        InstanceLock::Holder holder;
        if (!InstanceLock::FindHolder(dirs, &holder)) {
            std::string looked;
            for (const std::string& dir : dirs)
                looked += (looked.empty() ? "" : ", ") + dir + "/" + ppl::kInstanceLockName;
            Say(Outcome::kFail, name, "nobody holds the instance lock (" + looked + ")");
            return;
        }
        running_ = true;
        service_uid_ = holder.owner;  // the service refuses a lock file not its own
        Say(Outcome::kOk, name,
            "process " + std::to_string(holder.pid) + " of user " + std::to_string(holder.owner) +
                " holds " + holder.path);
    }

    void CheckSocket() {
        const char* name = "command socket";
        const std::string& path = paths_.socket;
        struct stat st;
        std::string what;
        if (lstat(path.c_str(), &st) != 0)
            what = errno == ENOENT ? "nothing is at " + path
                                   : path + " cannot be looked at (" + UError::Text(errno) + ")";
        else if (!S_ISSOCK(st.st_mode))
            what = path + " is " + OwnedFile::Kind(st.st_mode) + ", not a socket";
        if (!what.empty()) {
            Say(Outcome::kFail, name, what + ": no command reaches the service");
            return;
        }
        CommandResult result = SendCommand(path, "action=ppl_get_service_status", kAnswerMs);
        if (result.outcome != CommandResult::kReplied)
            Say(Outcome::kFail, name, result.error);
        else
            Check(result.reply.compare(0, 13, "reply=success") == 0, name,
                  path + " answered \"" + result.reply + "\" in " +
                      std::to_string(result.elapsed_ms) + " ms");
    }

    void CheckStatusFile() {
        const char* name = "status file";
        const std::string& path = paths_.status;
        std::string text, why;
        OwnedFile::Read read =
            OwnedFile::LoadOwnedBy(service_uid_, path, ppl::kStatusIniMaxBytes, &text, &why);
        struct stat st;
        if (read != OwnedFile::Read::Ok || lstat(path.c_str(), &st) != 0) {
            Say(Outcome::kFail, name,
                path + (read == OwnedFile::Read::Missing
                            ? " is missing"
                            : " is not the service's own file (" + why + ")"));
            return;
        }
        int64_t age = static_cast<int64_t>(UTime::GetRealTimeMs()) -
                      (st.st_mtim.tv_sec * 1000LL + st.st_mtim.tv_nsec / 1000000);
        status_ok_ = age <= kFreshMs;
        status_.LoadMemory(text.c_str());
        Check(status_ok_, name,
              path + " was written " + Seconds(age) + " ago" +
                  (status_ok_ ? "" : "; the service rewrites it every second"));
    }

    // Queue 601 must be the service's (or root's): another user who made it
    // could remove it or read the events meant for the service. Nor may any
    // user send on it: a forged del_camera disconnects a camera.
    void CheckOwnQueue() {
        const char* name = "queue 601";
        msqid_ds ds;
        std::string why;
        if (!StatQueue(ppl::kEventInKey, &ds, &why)) {
            Say(Outcome::kFail, name, why + ": no module can send the service camera events");
            return;
        }
        auto trusted = [&](uid_t uid) { return uid == service_uid_ || uid == 0; };
        bool owned = trusted(ds.msg_perm.uid) && trusted(ds.msg_perm.cuid);
        bool open_to_all = (ds.msg_perm.mode & S_IWOTH) != 0;
        char access[40];
        snprintf(access, sizeof(access), "mode %04o, group %u",
                 static_cast<unsigned>(ds.msg_perm.mode & 0777),
                 static_cast<unsigned>(ds.msg_perm.gid));
        Check(owned && !open_to_all, name,
              "made by user " + std::to_string(ds.msg_perm.cuid) + ", owned by user " +
                  std::to_string(ds.msg_perm.uid) + " (the service runs as user " +
                  std::to_string(service_uid_) + "), " + access + ", " +
                  std::to_string(ds.msg_qnum) + " waiting" +
                  (owned && open_to_all
                       ? ": any user may send it events (a forged del_camera disconnects a "
                         "camera); the start-up scripts narrow it with pplctl queue-access"
                       : ""));
    }

    void CheckPeerQueue() {
        const char* name = "queue 259";
        msqid_ds ds;
        std::string why;
        if (!StatQueue(ppl::kEventOutKey, &ds, &why)) {
            Say(Outcome::kFail, name,
                why +
                    ": no module takes the service's events, so every one is lost and the "
                    "service logs an error line with a stack trace for each");
            return;
        }
        Say(Outcome::kOk, name,
            "owned by user " + std::to_string(ds.msg_perm.uid) + ", " +
                std::to_string(ds.msg_qnum) + " waiting");
    }

    ConfigReport CheckConfiguration() {
        const char* name = "configuration";
        ConfigReport report = CheckConfig(paths_.config);
        if (!report.readable)
            Say(Outcome::kFail, name,
                "cannot read " + paths_.config + ": " + report.why_unreadable);
        else if (!report.problems.empty())
            Say(Outcome::kFail, name,
                std::to_string(report.problems.size()) + " problem(s) in " + paths_.config +
                    " (pplctl check-config lists them), the first: " + report.problems.front());
        else
            Say(Outcome::kOk, name,
                paths_.config + " has no problem" + (report.counting ? "" : "; counting is off"));
        return report;
    }

    void CheckCamera(const CameraUse& camera, bool counting) {
        std::string name = "camera " + std::to_string(camera.index) + " (" +
                           (camera.in ? (camera.out ? "in and out" : "in") : "out") + ")";
        std::string where = camera.address + ":" + std::to_string(camera.port), detail;
        bool reachable = !camera.address.empty() && camera.port >= 1 && camera.port <= 65535 &&
                         Connects(camera.address, camera.port, &detail);
        if (detail.empty())
            detail = "no usable address and port in the configuration";
        Check(reachable, name + " reachable", where + " " + detail);
        if (!counting)
            return;  // the service connects to no camera
        std::string connected = name + " connected";
        if (!reachable || !status_ok_) {
            Say(Outcome::kNotChecked, connected,
                !reachable
                    ? "the camera is not reachable"
                    : (running_ ? "the status file is not fresh" : "pplcounter is not running"));
            return;
        }
        std::string down;
        for (const char* side : {"In", "Out"}) {
            const char* state =
                status_.GetKeyValue((std::string("PPL.") + side + "0.Status").c_str());
            bool wanted = side[0] == 'I' ? camera.in : camera.out;
            if (wanted && (state == nullptr || strcmp(state, "connect") != 0))
                down += std::string(down.empty() ? "" : " and ") + (side[0] == 'I' ? "in" : "out");
        }
        Check(down.empty(), connected,
              down.empty() ? "the service reports its side connected"
                           : "the service reports the " + down +
                                 " side disconnected (its log says why: a refused subscription "
                                 "or account, a camera that closes the connection)");
    }

    const DoctorPaths& paths_;
    bool running_ = false;
    uid_t service_uid_ = 0;
    bool status_ok_ = false;
    SAttr status_{'=', "\r\n", "\n", nullptr};
    int total_ = 0, failed_ = 0, not_checked_ = 0;
};

}  // namespace

int RunDoctor(const DoctorPaths& paths) {
    return Doctor(paths).Run();
}

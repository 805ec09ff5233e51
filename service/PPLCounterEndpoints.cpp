// The service's three endpoints: queue 601 (its own), queue 259 (another
// module's) and the command socket. Both of its own live where any local
// user could have put something first, so each is checked once it is made.
#include <linux/capability.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

#include "NModuleInterface.h"
#include "NTextCommand.h"
#include "OwnedFile.h"
#include "PPLCounter.h"
#include "ShowLog.h"
#include "Tarn_3DPC_Counter.h"
#include "UBrand_PPL_Counter.h"
#include "ULog.h"

namespace {

// How often a command socket that could not be bound is tried again.
constexpr uint64_t kBindRetryMs = 3000;

bool HasCapability(int capability) {
    __user_cap_header_struct header;
    std::memset(&header, 0, sizeof(header));
    header.version = _LINUX_CAPABILITY_VERSION_3;
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3];
    std::memset(data, 0, sizeof(data));
    if (syscall(SYS_capget, &header, data) != 0)
        return false;
    return (data[capability / 32].effective >> (capability % 32)) & 1u;
}

// Who made the queue and who owns it; false when it cannot be looked at.
bool QueueOwner(int id, struct ipc_perm* perm) {
    struct msqid_ds ds;
    if (id < 0 || msgctl(id, IPC_STAT, &ds) != 0)
        return false;
    *perm = ds.msg_perm;
    return true;
}

bool IsOwn(const struct ipc_perm& perm) {
    return perm.cuid == geteuid() && perm.uid == geteuid();
}

// Whether the socket is bound to path.
bool BoundTo(int fd, const char* path) {
    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof(addr));
    socklen_t length = sizeof(addr);
    if (fd < 0 || getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &length) != 0)
        return false;
    return length > offsetof(struct sockaddr_un, sun_path) &&
           std::strncmp(addr.sun_path, path, sizeof(addr.sun_path)) == 0;
}

}  // namespace

bool PPLCounter::Init() {
    event_in = new NEventMQ(where.event_in_key, true);
    ClaimEventQueue();
    {
        std::lock_guard<std::mutex> guard(event_out_lock);
        event_out = new NEventMQ(where.event_out_key, false);
    }
    command = OpenCommandSocket();
    return event_in != nullptr && event_out != nullptr && command != nullptr;
}

void PPLCounter::Deinit() {
    {
        // Workers may be sending a count event right now; they see the
        // endpoint gone instead of a deleted one.
        std::lock_guard<std::mutex> guard(event_out_lock);
        delete event_out;
        event_out = nullptr;
    }
    delete command;
    delete event_in;
    if (use_3dpc != 0) {
        counter_3dpc->stop();
    } else {
        for (UBrand_PPL_Counter* counter : lapi_counters)
            counter->stop();
    }
}

// A queue that another user created first under the service's key is
// theirs: they can remove it at any moment, or read the events meant for
// the service. It is removed and made anew where the service may remove it.
// One left by an earlier run of the service (same user) is simply used.
void PPLCounter::ClaimEventQueue() {
    const int key = where.event_in_key;
    struct ipc_perm perm;
    if (!QueueOwner(event_in->GetMQId(), &perm) || IsOwn(perm))
        return;
    const unsigned int creator = perm.cuid;
    bool may_remove =
        perm.uid == geteuid() || perm.cuid == geteuid() || HasCapability(CAP_SYS_ADMIN);
    if (!may_remove) {
        ShowLog(
            "PPLCounter::Init(), queue %d was created by user %u and this service may not "
            "remove it; using it as it is\n",
            key, creator);
        return;
    }
    event_in->destroy();
    event_in->create(key);
    if (QueueOwner(event_in->GetMQId(), &perm) && IsOwn(perm)) {
        ShowLog("PPLCounter::Init(), queue %d was created by user %u; removed and created anew\n",
                key, creator);
    } else {
        ShowLog(
            "PPLCounter::Init(), queue %d was created by user %u and again after it was "
            "removed; using it as it is\n",
            key, creator);
    }
}

// Only the main thread makes files (workers make sockets only), so a mask
// set for one call on it changes no other thread's file.
class ScopedUmask {
public:
    explicit ScopedUmask(mode_t mask) : old_(umask(mask)) {}
    ~ScopedUmask() { umask(old_); }
    ScopedUmask(const ScopedUmask&) = delete;
    ScopedUmask& operator=(const ScopedUmask&) = delete;

private:
    mode_t old_;
};

NTextCommand* PPLCounter::OpenCommandSocket() {
    NTextCommand* endpoint = new NTextCommand();
    last_bind_try_ms = GetTime();
    SayCommandSocket(BindCommandSocket(*endpoint, false));
    return endpoint;
}

// While the socket is unbound the service counts on and tries again every
// few seconds. A retry tries a socket of its own first: the endpoint reports
// every bind that fails, and the failure has been said once already.
void PPLCounter::RetryCommandSocket() {
    if (!command_unbound || command == nullptr || now_ms - last_bind_try_ms <= kBindRetryMs)
        return;
    last_bind_try_ms = now_ms;
    SayCommandSocket(BindCommandSocket(*command, true));
}

// Binds the endpoint to the command path under a mask that leaves exactly
// the socket's mode, so the path never appears with more (a chmod after the
// bind left a window in which any user could send a command). "" when
// bound, else why not.
std::string PPLCounter::BindCommandSocket(NTextCommand& endpoint, bool probe_first) {
    const char* path = where.command_path.c_str();
    std::string why;
    if (!ClearCommandSocketPath(&why) || (probe_first && !CanBind(&why)))
        return why;
    ScopedUmask mask(0777 & ~ppl::kCommandSocketMode);
    endpoint.Connect(path, nullptr);
    int err = errno;
    return BoundTo(endpoint.GetFD(), path) ? "" : "it cannot be bound: " + UError::Text(err);
}

// Whether a socket can be bound at the path now, tried with one of its own.
bool PPLCounter::CanBind(std::string* why) {
    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, where.command_path.c_str(), sizeof(addr.sun_path) - 1);
    ScopedUmask mask(0777 & ~ppl::kCommandSocketMode);
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool bound = fd >= 0 && bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0;
    if (!bound)
        *why = "it cannot be bound: " + UError::Text(errno);
    else
        unlink(addr.sun_path);
    if (fd >= 0)
        close(fd);
    return bound;
}

// A socket at the path (one left by an earlier run) is the endpoint's to
// replace. Anything else is removed, as the endpoint would remove a file,
// but a directory is moved aside with what it holds; each said in one line.
bool PPLCounter::ClearCommandSocketPath(std::string* why) {
    const char* path = where.command_path.c_str();
    struct stat st;
    if (lstat(path, &st) != 0 || S_ISSOCK(st.st_mode))
        return true;
    std::string aside;
    bool cleared = S_ISDIR(st.st_mode) ? OwnedFile::MoveAside(path, &aside) : unlink(path) == 0;
    if (!cleared) {
        const std::string err = UError::Text(errno);
        *why = OwnedFile::Describe(st) + " is there and cannot be " +
               (S_ISDIR(st.st_mode) ? "moved aside: " : "removed: ") + err;
        return false;
    }
    if (aside.empty())
        ShowLog("PPLCounter::Init(), removed %s at %s\n", OwnedFile::Describe(st).c_str(), path);
    else
        ShowLog("PPLCounter::Init(), moved %s at %s aside to %s\n", OwnedFile::Describe(st).c_str(),
                path, aside.c_str());
    return true;
}

// A failure is said once, until the socket is bound; then that is said too.
void PPLCounter::SayCommandSocket(const std::string& why) {
    const char* path = where.command_path.c_str();
    if (why.empty() && !command_unbound)
        return;
    if (why.empty()) {
        ShowLog("PPLCounter::Run(), the command socket %s is bound; commands are answered\n", path);
    } else if (!command_unbound) {
        ShowLog(
            "PPLCounter::Init(), the command socket %s cannot be made: %s; counting goes on, and "
            "the bind is tried again every %d s\n",
            path, why.c_str(), static_cast<int>(kBindRetryMs / 1000));
    }
    command_unbound = !why.empty();
}

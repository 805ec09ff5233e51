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

namespace {

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

// The path must hold nothing, or a socket (one left by an earlier run is
// replaced). Anything else there is refused and the service ends as with
// any endpoint it cannot make, rather than run without its command socket.
NTextCommand* PPLCounter::OpenCommandSocket() {
    const char* path = where.command_path.c_str();
    struct stat st;
    if (lstat(path, &st) == 0 && !S_ISSOCK(st.st_mode)) {
        ShowLog("PPLCounter::Init(), refusing the command socket %s: %s is there\n", path,
                OwnedFile::Kind(st.st_mode));
        return nullptr;
    }
    NTextCommand* endpoint = new NTextCommand(path, nullptr);
    const char* failed = nullptr;
    if (!BoundTo(endpoint->GetFD(), path))
        failed = "it cannot be bound";
    // The socket is this process's, in a directory where only its owner may
    // replace it, so its mode is set through the path.
    else if (lstat(path, &st) != 0 || !S_ISSOCK(st.st_mode) || st.st_uid != geteuid() ||
             chmod(path, ppl::kCommandSocketMode) != 0)
        failed = "its mode cannot be set";
    if (failed != nullptr) {
        ShowLog("PPLCounter::Init(), the command socket %s failed: %s\n", path, failed);
        delete endpoint;
        return nullptr;
    }
    return endpoint;
}

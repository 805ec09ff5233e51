#include "QueueAccess.h"

#include <grp.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "ULog.h"
#include "UTime.h"

namespace {

constexpr int kPollMs = 50;

bool ParseMode(const std::string& text, mode_t* mode) {
    char* end = nullptr;
    long value = strtol(text.c_str(), &end, 8);
    if (text.empty() || *end != '\0' || value < 0 || value > 0777 || (value & 0700) != 0700)
        return false;
    *mode = static_cast<mode_t>(value);
    return true;
}

// A number is taken as it is, so that a recorder without /etc/group works.
bool ParseGroup(const std::string& text, gid_t* gid) {
    char* end = nullptr;
    unsigned long value = strtoul(text.c_str(), &end, 10);
    if (!text.empty() && *end == '\0') {
        *gid = static_cast<gid_t>(value);
        return true;
    }
    const struct group* found = getgrnam(text.c_str());
    if (found == nullptr)
        return false;
    *gid = found->gr_gid;
    return true;
}

// Sets mode and group on a queue this user made or owns.
int Narrow(int key, int id, msqid_ds& ds, mode_t mode, gid_t gid, const char* done) {
    ds.msg_perm.mode = static_cast<unsigned short>(mode);
    ds.msg_perm.gid = gid;
    if (msgctl(id, IPC_SET, &ds) != 0) {
        fprintf(stderr, "pplctl: cannot set the mode of queue %d: %s\n", key,
                UError::Text(errno).c_str());
        return 4;
    }
    printf("queue %d %s: mode %04o, group %u\n", key, done, static_cast<unsigned>(mode),
           static_cast<unsigned>(gid));
    return 0;
}

}  // namespace

int QueueAccess(int key, const std::string& mode_text, const std::string& group_text,
                int wait_seconds) {
    mode_t mode = 0;
    gid_t gid = 0;
    if (!ParseMode(mode_text, &mode) || !ParseGroup(group_text, &gid)) {
        fprintf(stderr,
                "pplctl: queue-access takes an octal mode with all of the owner's bits (0700 "
                "and more, e.g. 0770) and a group name or number\n");
        return 2;
    }
    const uint64_t start = UTime::GetMonotonicMs();
    while (true) {
        msqid_ds ds;
        // Made here when missing: the service takes a queue of its own user as it is.
        int id = msgget(key, IPC_CREAT | IPC_EXCL | static_cast<int>(mode));
        const char* done = "made";
        if (id < 0 && errno == EEXIST) {
            id = msgget(key, 0);
            done = "narrowed";
        }
        if (id < 0 || msgctl(id, IPC_STAT, &ds) != 0) {
            if (id < 0 && errno == ENOENT)
                continue;  // removed meanwhile
            fprintf(stderr, "pplctl: cannot make or look at queue %d: %s\n", key,
                    UError::Text(errno).c_str());
            return 4;
        }
        if (ds.msg_perm.cuid == geteuid() || ds.msg_perm.uid == geteuid())
            return Narrow(key, id, ds, mode, gid, done);
        if (UTime::ElapsedMs(start) >= static_cast<uint64_t>(wait_seconds) * 1000) {
            fprintf(stderr,
                    "pplctl: queue %d was made by user %u and is owned by user %u: not this "
                    "user's to narrow (the service replaces it where it may remove it)\n",
                    key, static_cast<unsigned>(ds.msg_perm.cuid),
                    static_cast<unsigned>(ds.msg_perm.uid));
            return 1;
        }
        usleep(kPollMs * 1000);
    }
}

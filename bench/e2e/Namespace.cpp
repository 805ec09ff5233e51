#include "Namespace.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace pplbench {
namespace {

bool Fail(std::string* why, const std::string& what) {
    *why = what + ": " + strerror(errno);
    return false;
}

bool WriteProcFile(const char* path, const std::string& text) {
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return ok;
}

bool EnterUserNamespaceIfNeeded(std::string* why) {
    if (geteuid() == 0)
        return true;
    uid_t uid = geteuid();
    gid_t gid = getegid();
    if (unshare(CLONE_NEWUSER) != 0)
        return Fail(why, "unshare(user)");
    WriteProcFile("/proc/self/setgroups", "deny");
    if (!WriteProcFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
        !WriteProcFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
        return Fail(why, "user namespace id maps");
    }
    return true;
}

bool MountTmpfs(const char* onto, std::string* why) {
    if (mount("tmpfs", onto, "tmpfs", MS_NOSUID | MS_NODEV, "size=256m,mode=1777") != 0)
        return Fail(why, std::string("tmpfs onto ") + onto);
    return true;
}

bool BringLoopbackUp(std::string* why) {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0)
        return Fail(why, "socket");
    struct ifreq ifr;
    memset(&ifr, 0, sizeof(ifr));
    strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
    if (ok) {
        ifr.ifr_flags |= IFF_UP | IFF_RUNNING;
        ok = ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    }
    close(s);
    return ok || Fail(why, "bring lo up");
}

bool MakeConfigFolder(std::string* why) {
    std::string path;
    for (const char* part : {"/opt/user", "/ZV318", "/INIT"}) {
        path += part;
        if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST)
            return Fail(why, "mkdir " + path);
    }
    return true;
}

}  // namespace

bool EnterPrivateNamespaces(std::string* why) {
    if (!EnterUserNamespaceIfNeeded(why))
        return false;
    if (unshare(CLONE_NEWIPC | CLONE_NEWNS | CLONE_NEWNET) != 0)
        return Fail(why, "unshare(ipc, mount, net)");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return Fail(why, "make mounts private");
    if (!MountTmpfs("/tmp", why) || !MountTmpfs("/opt", why))
        return false;
    // The service's syslog lines stay off the host's logger.
    if (access("/dev/log", F_OK) == 0)
        mount("/dev/null", "/dev/log", nullptr, MS_BIND, nullptr);
    return MakeConfigFolder(why) && BringLoopbackUp(why);
}

bool RaiseQueueCapacity(long bytes, std::string* why) {
    if (!WriteProcFile("/proc/sys/kernel/msgmnb", std::to_string(bytes)))
        return Fail(why, "write /proc/sys/kernel/msgmnb");
    return true;
}

}  // namespace pplbench

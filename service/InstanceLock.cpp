#include "InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>

#include "OwnedFile.h"
#include "PPLConstants.h"
#include "ULog.h"

InstanceLock::~InstanceLock() {
    if (fd_ >= 0)
        close(fd_);
}

std::string InstanceLock::PathIn(const std::vector<std::string>& dirs) {
    std::string chosen = ".";
    for (const std::string& dir : dirs) {
        chosen = dir;
        struct stat st;
        if (stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
            access(dir.c_str(), W_OK | X_OK) == 0)
            break;
    }
    return chosen + "/" + ppl::kInstanceLockName;
}

std::string InstanceLock::Path() {
    return PathIn({std::begin(ppl::kInstanceLockDirs), std::end(ppl::kInstanceLockDirs)});
}

namespace {

// The kernel names a locked file "major:minor:inode", the numbers of its
// device in hexadecimal.
std::string LockedFileName(const struct stat& st) {
    char name[64];
    snprintf(name, sizeof(name), "%02x:%02x:%llu", major(st.st_dev), minor(st.st_dev),
             static_cast<unsigned long long>(st.st_ino));
    return name;
}

// The files someone holds an flock on, by their kernel name, with the
// holder's process id. False when /proc/locks cannot be read.
bool FlockHolders(std::map<std::string, pid_t>* holders) {
    FILE* locks = fopen("/proc/locks", "re");
    if (locks == nullptr)
        return false;
    char line[256];
    while (fgets(line, sizeof(line), locks) != nullptr) {
        // Waiting requests ("1: -> FLOCK ...") read as kind "->" and are
        // left out.
        char kind[16], name[64];
        int pid = 0;
        if (sscanf(line, "%*d: %15s %*s %*s %d %63s", kind, &pid, name) == 3 &&
            strcmp(kind, "FLOCK") == 0)
            holders->emplace(name, pid);
    }
    fclose(locks);
    return true;
}

}  // namespace

bool InstanceLock::FindHolder(const std::vector<std::string>& dirs, Holder* holder) {
    std::map<std::string, pid_t> holders;
    if (!FlockHolders(&holders))
        return false;
    for (const std::string& dir : dirs) {
        std::string path = dir + "/" + ppl::kInstanceLockName;
        struct stat st;
        if (lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
            continue;
        auto found = holders.find(LockedFileName(st));
        if (found == holders.end())
            continue;
        *holder = {path, st.st_uid, found->second};
        return true;
    }
    return false;
}

bool InstanceLock::Take(const std::string& path, std::string* why) {
    // Non-blocking, so that a FIFO put at the path cannot hold the open.
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0) {
        *why = "cannot open the instance lock " + path + ": " + UError::Text(errno);
        return false;
    }
    struct stat st;
    std::string not_own = fstat(fd, &st) == 0 ? OwnedFile::WhyNotOwn(st) : UError::Text(errno);
    // A file left 0644 by an older version could be opened, and locked, by
    // anyone: from now on only this user opens it.
    if (not_own.empty() && (st.st_mode & 07777) != 0600 && fchmod(fd, 0600) != 0)
        not_own = "its mode cannot be set: " + UError::Text(errno);
    if (!not_own.empty()) {
        *why = "refusing the instance lock " + path + ": " + not_own;
        close(fd);
        return false;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        int err = errno;
        *why = err == EWOULDBLOCK ? "another pplcounter is already running (" + path + " is locked)"
                                  : "cannot lock " + path + ": " + UError::Text(err);
        close(fd);
        return false;
    }
    if (fd_ >= 0)
        close(fd_);
    fd_ = fd;
    return true;
}

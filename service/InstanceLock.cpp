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

std::string InstanceLock::DirIn(const std::vector<std::string>& dirs) {
    for (const std::string& dir : dirs) {
        struct stat st;
        if (stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
            (st.st_uid == 0 || st.st_uid == geteuid()) && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0 &&
            access(dir.c_str(), W_OK | X_OK) == 0)
            return dir;
    }
    return "";
}

std::vector<std::string> InstanceLock::ServiceDirs() {
    std::vector<std::string> dirs(std::begin(ppl::kInstanceLockDirs),
                                  std::end(ppl::kInstanceLockDirs));
    dirs.push_back(ppl::kInstanceLockFallbackDir);
    return dirs;
}

InstanceLock::Outcome InstanceLock::TakeForService(std::string* why, std::string* said) {
    std::string dir = DirIn({std::begin(ppl::kInstanceLockDirs), std::end(ppl::kInstanceLockDirs)});
    if (!dir.empty())
        return Take(dir + "/" + ppl::kInstanceLockName, why);
    dir = ppl::kInstanceLockFallbackDir;
    int dir_fd = OwnDirectory(dir, why, said);
    if (dir_fd < 0)
        return Outcome::Refused;
    Outcome outcome =
        TakeAt(dir_fd, ppl::kInstanceLockName, dir + "/" + ppl::kInstanceLockName, why);
    close(dir_fd);
    return outcome;
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

// A directory of this user's at dir, 0700: made where nothing is there;
// what another user put there is moved aside first. Opened without
// following a link and checked on the descriptor, so what is checked is
// what the lock goes into.
int InstanceLock::OwnDirectory(const std::string& dir, std::string* why, std::string* said) {
    struct stat st;
    if (lstat(dir.c_str(), &st) == 0 && (!S_ISDIR(st.st_mode) || st.st_uid != geteuid())) {
        std::string aside;
        if (!OwnedFile::MoveAside(dir, &aside)) {
            const std::string err = UError::Text(errno);
            *why = OwnedFile::Describe(st) + " is at " + dir + " and cannot be moved aside: " + err;
            return -1;
        }
        *said = "moved " + OwnedFile::Describe(st) + " at " + dir + " aside to " + aside;
    }
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
        *why = "cannot make " + dir + ": " + UError::Text(errno);
        return -1;
    }
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0 || fstat(fd, &st) != 0 || st.st_uid != geteuid() ||
        ((st.st_mode & 07777) != 0700 && fchmod(fd, 0700) != 0)) {
        *why = dir + " is not a directory of this user's own";
        if (fd >= 0)
            close(fd);
        return -1;
    }
    return fd;
}

InstanceLock::Outcome InstanceLock::Take(const std::string& path, std::string* why) {
    return TakeAt(AT_FDCWD, path, path, why);
}

InstanceLock::Outcome InstanceLock::TakeAt(int dir_fd, const std::string& name,
                                           const std::string& path, std::string* why) {
    // Non-blocking, so that a FIFO put at the path cannot hold the open.
    int fd =
        openat(dir_fd, name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0) {
        *why = "cannot open the instance lock " + path + ": " + UError::Text(errno);
        return Outcome::Refused;
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
        return Outcome::Refused;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        int err = errno;
        close(fd);
        if (err == EWOULDBLOCK) {
            *why = "another pplcounter is already running (" + path + " is locked)";
            return Outcome::Busy;
        }
        *why = "cannot lock " + path + ": " + UError::Text(err);
        return Outcome::Refused;
    }
    if (fd_ >= 0)
        close(fd_);
    fd_ = fd;
    return Outcome::Held;
}

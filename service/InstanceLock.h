#ifndef PPL_INSTANCE_LOCK_H
#define PPL_INSTANCE_LOCK_H

#include <sys/types.h>

#include <string>
#include <vector>

// One service per recorder: a second one would take over the command socket,
// subscribe to the cameras again and, when it ends, remove the socket and
// queue 601 from under the first. The lock is an flock on a file that only
// this user owns; it goes with the process, so one left by a killed service
// never blocks a restart. The file is never removed: removing it would let
// two processes lock two files.
class InstanceLock {
public:
    InstanceLock() = default;
    virtual ~InstanceLock();
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

    // The lock file in the first of dirs that is a directory this process
    // may write, else in the last of them.
    static std::string PathIn(const std::vector<std::string>& dirs);
    // The service's lock file, from the fixed list of directories.
    static std::string Path();

    // The process holding the lock in the first of dirs where one is held,
    // and the owner of that lock file, which is the service's user (the
    // service refuses a lock file not its own). Read from /proc/locks, so
    // that looking cannot disturb a service that is just starting, as
    // trying the lock could. False when nobody holds one, or /proc/locks
    // cannot be read.
    struct Holder {
        std::string path;
        uid_t owner = 0;
        pid_t pid = 0;
    };
    static bool FindHolder(const std::vector<std::string>& dirs, Holder* holder);

    // Opens the file at path (never through a symbolic link), creating it
    // 0600, and locks it without waiting. False with the reason in *why
    // (one line) when it is not a regular file of this user with one link,
    // cannot be opened, or another process holds the lock. The lock stays
    // until this object or the process ends.
    bool Take(const std::string& path, std::string* why);

private:
    int fd_ = -1;
};

#endif

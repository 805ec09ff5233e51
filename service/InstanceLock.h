#ifndef PPL_INSTANCE_LOCK_H
#define PPL_INSTANCE_LOCK_H

#include <sys/types.h>

#include <string>
#include <vector>

// One service per recorder: a second one would take over the command socket,
// subscribe to the cameras again and, when it ends, remove the socket and
// queue 601 from under the first. The lock is an flock on a file that only
// this user owns, in a directory no other user may write; it goes with the
// process, so one left by a killed service never blocks a restart. The file
// is never removed: removing it would let two processes lock two files.
class InstanceLock {
public:
    enum class Outcome {
        Held,     // this process holds the lock
        Busy,     // another process holds it: a service is running
        Refused,  // no lock could be had (why says what is in the way)
    };

    InstanceLock() = default;
    virtual ~InstanceLock();
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

    // The first of dirs that is a directory this process may write and no
    // other user may (owned by this user or root, not writable by its group
    // or others); "" when none is.
    static std::string DirIn(const std::vector<std::string>& dirs);

    // The service's lock: in the first of the fixed lock directories that
    // DirIn accepts, else in the fallback directory of this user's own,
    // which is made 0700 where missing. Whatever another user put at the
    // fallback's name is moved aside first; *said then holds one line
    // saying so.
    Outcome TakeForService(std::string* why, std::string* said);
    // Where the service's lock may be, in the order it looks there.
    static std::vector<std::string> ServiceDirs();

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
    // 0600, and locks it without waiting. Refused with the reason in *why
    // (one line) when it is not a regular file of this user with one link
    // or cannot be opened; Busy when another process holds the lock. The
    // lock stays until this object or the process ends.
    Outcome Take(const std::string& path, std::string* why);

private:
    Outcome TakeAt(int dir_fd, const std::string& name, const std::string& path, std::string* why);
    // The fallback directory, made or claimed: its descriptor, or -1.
    int OwnDirectory(const std::string& dir, std::string* why, std::string* said);

    int fd_ = -1;
};

#endif

#ifndef COMMON_UWAIT_H
#define COMMON_UWAIT_H

#include <sys/time.h>

#include <initializer_list>

// How a wait of UWait::Until ended.
enum class UWaitResult {
    Ready,     // the descriptor is ready for the events asked
    Woken,     // a wake descriptor became readable (it wins over Ready)
    TimedOut,  // the time ran out
    Error,     // poll failed; errno tells why
};

// The one wait of the library and the camera connectors: a descriptor, any
// number of wake descriptors (eventfds or pipes that another thread writes
// to end the wait early) and a time limit.
class UWait {
public:
    virtual ~UWait() = default;

    // Waits until fd is ready for events (POLLIN, POLLOUT), a wake
    // descriptor is readable, or timeout_ms has passed (negative: no
    // limit). Negative descriptors are left out, so with none at all this
    // is a plain sleep. An interrupted wait (EINTR) goes on for the time
    // left. *woken, when given, receives the wake descriptor that ended the
    // wait; *revents the events seen on fd.
    static UWaitResult Until(int fd, short events, std::initializer_list<int> wake_fds,
                             int timeout_ms, int* woken = nullptr, short* revents = nullptr);

    // A timeval as whole milliseconds for a wait: rounded up, never negative,
    // at most INT_MAX.
    static int Ms(const timeval& tv);
};

#endif

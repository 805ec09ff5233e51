#ifndef COMMON_UWAIT_H
#define COMMON_UWAIT_H

#include <sys/time.h>

#include <cstdint>
#include <initializer_list>

// How a wait of UWait::Until ended.
enum class UWaitResult {
    Ready,     // the descriptor is ready for the events asked
    Woken,     // a wake descriptor became readable (it wins over Ready)
    TimedOut,  // the time ran out
    Error,     // poll failed; errno tells why
};

// A moment on the monotonic clock by which a whole exchange (a message with
// its body, an answer) must be done; none until set.
class UDeadline {
public:
    UDeadline() = default;
    virtual ~UDeadline() = default;

    // limit_ms from now; a negative limit sets none.
    static UDeadline In(int limit_ms);
    bool IsSet() const { return set_; }
    bool Passed() const;
    // A wait of limit_ms (negative: no limit) cut to what is left before the
    // deadline: the one rule by which every wait for a part of the exchange
    // ends at its deadline.
    int Cut(int limit_ms) const;

private:
    bool set_ = false;
    uint64_t at_ms_ = 0;
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

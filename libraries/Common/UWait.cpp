#include "UWait.h"

#include <errno.h>
#include <poll.h>

#include <climits>

#include "UTime.h"

UDeadline UDeadline::In(int limit_ms) {
    UDeadline deadline;
    if (limit_ms >= 0) {
        deadline.set_ = true;
        deadline.at_ms_ = UTime::GetMonotonicMs() + static_cast<uint64_t>(limit_ms);
    }
    return deadline;
}

bool UDeadline::Passed() const {
    return set_ && UTime::GetMonotonicMs() >= at_ms_;
}

int UDeadline::Cut(int limit_ms) const {
    if (!set_)
        return limit_ms;
    uint64_t now = UTime::GetMonotonicMs();
    uint64_t left = now >= at_ms_ ? 0 : at_ms_ - now;
    if (left > INT_MAX)
        left = INT_MAX;
    return limit_ms >= 0 && limit_ms < static_cast<int>(left) ? limit_ms : static_cast<int>(left);
}

UWaitResult UWait::Until(int fd, short events, std::initializer_list<int> wake_fds, int timeout_ms,
                         int* woken, short* revents) {
    pollfd fds[8];
    nfds_t n = 0;
    fds[n++] = {fd, events, 0};  // a negative descriptor is ignored by poll
    for (int wake : wake_fds) {
        if (n < sizeof(fds) / sizeof(fds[0]))
            fds[n++] = {wake, POLLIN, 0};
    }
    const UDeadline deadline = UDeadline::In(timeout_ms);
    while (true) {
        int ready = poll(fds, n, deadline.Cut(-1));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0)
            return UWaitResult::Error;
        if (revents != nullptr)
            *revents = fds[0].revents;
        if (ready == 0)
            return UWaitResult::TimedOut;
        for (nfds_t i = 1; i < n; ++i) {
            if (fds[i].fd >= 0 && (fds[i].revents & POLLIN)) {
                if (woken != nullptr)
                    *woken = fds[i].fd;
                return UWaitResult::Woken;
            }
        }
        return UWaitResult::Ready;
    }
}

int UWait::Ms(const timeval& tv) {
    long long ms = static_cast<long long>(tv.tv_sec) * 1000 + (tv.tv_usec + 999) / 1000;
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms < 0 ? 0 : ms);
}

#include "UWait.h"

#include <errno.h>
#include <poll.h>

#include <chrono>
#include <climits>

UWaitResult UWait::Until(int fd, short events, std::initializer_list<int> wake_fds, int timeout_ms,
                         int* woken, short* revents) {
    pollfd fds[8];
    nfds_t n = 0;
    fds[n++] = {fd, events, 0};  // a negative descriptor is ignored by poll
    for (int wake : wake_fds) {
        if (n < sizeof(fds) / sizeof(fds[0]))
            fds[n++] = {wake, POLLIN, 0};
    }
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    int left = timeout_ms;
    while (true) {
        int ready = poll(fds, n, timeout_ms < 0 ? -1 : left);
        if (ready < 0 && errno == EINTR) {
            if (timeout_ms >= 0) {
                auto rest =
                    std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
                left = rest.count() > 0 ? static_cast<int>(rest.count()) : 0;
            }
            continue;
        }
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

#include "UTime.h"

#include <time.h>

namespace {

uint64_t ReadClockUs(clockid_t clock) {
    struct timespec ts;
    if (clock_gettime(clock, &ts) != 0)
        return 0;
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

}  // namespace

long UTime::getLogicTime() {
    struct timespec ts;
    if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0)
        return 0;
    return static_cast<long>(ts.tv_sec);
}

uint64_t UTime::GetMonotonicMs() {
    return ReadClockUs(CLOCK_MONOTONIC) / 1000u;
}

uint64_t UTime::GetMonotonicUs() {
    return ReadClockUs(CLOCK_MONOTONIC);
}

uint64_t UTime::GetRealTimeMs() {
    return ReadClockUs(CLOCK_REALTIME) / 1000u;
}

uint64_t UTime::ElapsedMs(uint64_t since_ms) {
    uint64_t now = GetMonotonicMs();
    return now > since_ms ? now - since_ms : 0;
}

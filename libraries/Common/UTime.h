#ifndef COMMON_UTIME_H
#define COMMON_UTIME_H

#include <cstdint>

// Clock helpers. The monotonic clock is used for every interval and time-out,
// because the wall clock of the recorder may be set back at any moment.
class UTime {
public:
    virtual ~UTime() = default;

    // The monotonic clock in whole seconds.
    static long getLogicTime();
    // The monotonic clock in milliseconds and in microseconds.
    static uint64_t GetMonotonicMs();
    static uint64_t GetMonotonicUs();
    // The wall clock in milliseconds since the epoch.
    static uint64_t GetRealTimeMs();
    // Milliseconds passed on the monotonic clock since a value of GetMonotonicMs().
    static uint64_t ElapsedMs(uint64_t since_ms);
};

#endif

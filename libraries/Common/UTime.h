#ifndef COMMON_UTIME_H
#define COMMON_UTIME_H

#include <time.h>

#include <cstdint>

// Clock readings and time arithmetic. The monotonic clock is used for every
// interval and time-out, because the wall clock of the recorder may be set
// back at any moment. Everything but the time-zone conversions is stateless
// and thread-safe.
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

    // Adds a signed amount to t, normalising tv_nsec into [0, 1e9). Returns
    // false, leaving t unchanged, when t is not normalised or the seconds of
    // the result do not fit in time_t.
    static bool AddMs(struct timespec& t, int64_t ms);
    static bool AddNs(struct timespec& t, int64_t ns);
    // later - earlier, truncated toward zero. Returns false when an argument
    // is not normalised or the difference does not fit in 64 bits (about
    // 292 years in nanoseconds).
    static bool DiffMs(const struct timespec& later, const struct timespec& earlier, int64_t& ms);
    static bool DiffNs(const struct timespec& later, const struct timespec& earlier, int64_t& ns);

    // NTP 64-bit time stamps of era 0: seconds since 1900-01-01 00:00 UTC in
    // the high 32 bits, the binary fraction of a second in the low 32 bits.
    // Era 0 covers 1900-01-01 to 2036-02-07 06:28:15 UTC; outside it, or when
    // the Unix time does not fit in time_t, the conversion returns false.
    // Unix to NTP rounds the fraction up, so NTP to Unix gives the same
    // nanoseconds back.
    static constexpr int64_t kNtpUnixOffset = 2208988800;  // 1900 to 1970, in seconds
    static bool UnixToNtp(const struct timespec& unix_time, uint64_t& ntp);
    static bool NtpToUnix(uint64_t ntp, struct timespec& unix_time);

    // Gregorian calendar: month 1-12, day 1-31, day of the year 1-366.
    static bool IsLeapYear(int year);
    // The day of the year of a date, or -1 when the date does not exist.
    static int DayOfYear(int year, int month, int day);
    // The date of an ordinal date (year, day of the year); false when the
    // year has no such day.
    static bool FromDayOfYear(int year, int yday, int& month, int& day);

    // Conversions between UTC and the local time of a zone of the C
    // library's time-zone database ("Europe/Berlin"), daylight saving time
    // included. False for a name the database does not hold. LocalToUtc
    // takes tm_isdst as mktime does (-1: let the zone decide). These change
    // the process's TZ for the length of the call, under a lock shared by
    // both; a thread that meanwhile calls localtime() itself may see that
    // zone, so use them where the rest of the process does not depend on
    // its own local time at the same instant.
    static bool UtcToLocal(time_t utc, const char* zone, struct tm& local);
    static bool LocalToUtc(const struct tm& local, const char* zone, time_t& utc);
};

#endif

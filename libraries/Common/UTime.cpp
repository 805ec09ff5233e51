#include "UTime.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <mutex>
#include <string>

namespace {

uint64_t ReadClockUs(clockid_t clock) {
    struct timespec ts;
    if (clock_gettime(clock, &ts) != 0)
        return 0;  // GCOVR_EXCL_LINE: the monotonic and real-time clocks always read
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

}  // namespace

long UTime::getLogicTime() {
    struct timespec ts;
    if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0)
        return 0;  // GCOVR_EXCL_LINE: the monotonic clock always reads
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

// Arithmetic --------------------------------------------------------------

namespace {

const int64_t kNsPerSec = 1000000000;

bool Normalised(const struct timespec& t) {
    return t.tv_nsec >= 0 && t.tv_nsec < kNsPerSec;
}

// t + sec seconds + nsec nanoseconds, with |nsec| < 1e9.
bool AddParts(struct timespec& t, int64_t sec, int64_t nsec) {
    if (!Normalised(t))
        return false;
    nsec += t.tv_nsec;
    if (nsec < 0) {
        nsec += kNsPerSec;
        sec -= 1;
    } else if (nsec >= kNsPerSec) {
        nsec -= kNsPerSec;
        sec += 1;
    }
    int64_t total;
    if (__builtin_add_overflow(static_cast<int64_t>(t.tv_sec), sec, &total))
        return false;
    time_t fitted = static_cast<time_t>(total);
    if (static_cast<int64_t>(fitted) != total)
        return false;
    t.tv_sec = fitted;
    t.tv_nsec = static_cast<long>(nsec);
    return true;
}

// later - earlier as whole seconds and nanoseconds of the same sign.
bool DiffParts(const struct timespec& later, const struct timespec& earlier, int64_t& sec,
               int64_t& nsec) {
    if (!Normalised(later) || !Normalised(earlier))
        return false;
    if (__builtin_sub_overflow(static_cast<int64_t>(later.tv_sec),
                               static_cast<int64_t>(earlier.tv_sec), &sec))
        return false;
    nsec = static_cast<int64_t>(later.tv_nsec) - earlier.tv_nsec;
    if (sec > 0 && nsec < 0) {
        sec -= 1;
        nsec += kNsPerSec;
    } else if (sec < 0 && nsec > 0) {
        sec += 1;
        nsec -= kNsPerSec;
    }
    return true;
}

bool Combine(int64_t sec, int64_t scale, int64_t part, int64_t& out) {
    int64_t scaled;
    return !__builtin_mul_overflow(sec, scale, &scaled) &&
           !__builtin_add_overflow(scaled, part, &out);
}

}  // namespace

bool UTime::AddMs(struct timespec& t, int64_t ms) {
    return AddParts(t, ms / 1000, (ms % 1000) * 1000000);
}

bool UTime::AddNs(struct timespec& t, int64_t ns) {
    return AddParts(t, ns / kNsPerSec, ns % kNsPerSec);
}

bool UTime::DiffMs(const struct timespec& later, const struct timespec& earlier, int64_t& ms) {
    int64_t sec, nsec;
    return DiffParts(later, earlier, sec, nsec) && Combine(sec, 1000, nsec / 1000000, ms);
}

bool UTime::DiffNs(const struct timespec& later, const struct timespec& earlier, int64_t& ns) {
    int64_t sec, nsec;
    return DiffParts(later, earlier, sec, nsec) && Combine(sec, kNsPerSec, nsec, ns);
}

// NTP time stamps -----------------------------------------------------------

bool UTime::UnixToNtp(const struct timespec& unix_time, uint64_t& ntp) {
    if (!Normalised(unix_time))
        return false;
    int64_t seconds = static_cast<int64_t>(unix_time.tv_sec) + kNtpUnixOffset;
    if (seconds < 0 || seconds > 0xffffffffLL)
        return false;
    uint64_t fraction =
        ((static_cast<uint64_t>(unix_time.tv_nsec) << 32) + kNsPerSec - 1) / kNsPerSec;
    ntp = static_cast<uint64_t>(seconds) << 32 | fraction;
    return true;
}

bool UTime::NtpToUnix(uint64_t ntp, struct timespec& unix_time) {
    int64_t seconds = static_cast<int64_t>(ntp >> 32) - kNtpUnixOffset;
    time_t fitted = static_cast<time_t>(seconds);
    if (static_cast<int64_t>(fitted) != seconds)
        return false;
    unix_time.tv_sec = fitted;
    unix_time.tv_nsec = static_cast<long>(((ntp & 0xffffffffu) * kNsPerSec) >> 32);
    return true;
}

// Ordinal dates ------------------------------------------------------------

namespace {

int DaysInMonth(int year, int month) {
    static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && UTime::IsLeapYear(year) ? 29 : kDays[month - 1];
}

}  // namespace

bool UTime::IsLeapYear(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int UTime::DayOfYear(int year, int month, int day) {
    if (month < 1 || month > 12 || day < 1 || day > DaysInMonth(year, month))
        return -1;
    for (int m = 1; m < month; ++m)
        day += DaysInMonth(year, m);
    return day;
}

bool UTime::FromDayOfYear(int year, int yday, int& month, int& day) {
    if (yday < 1 || yday > (IsLeapYear(year) ? 366 : 365))
        return false;
    int m = 1;
    for (; yday > DaysInMonth(year, m); ++m)
        yday -= DaysInMonth(year, m);
    month = m;
    day = yday;
    return true;
}

// Time zones ---------------------------------------------------------------

namespace {

// Where the C library looks up zone names.
const char kZoneInfoDir[] = "/usr/share/zoneinfo/";

std::mutex& ZoneLock() {
    static std::mutex lock;
    return lock;
}

// The C library silently falls back to UTC for a name it cannot find, so the
// name is checked against the database first.
bool KnownZone(const char* zone) {
    if (zone == nullptr || zone[0] == '\0' || zone[0] == '/' || strstr(zone, "..") != nullptr)
        return false;
    std::string path = std::string(kZoneInfoDir) + zone;
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Sets TZ for one conversion and restores it after.
class ZoneScope {
public:
    explicit ZoneScope(const char* zone) {
        const char* old = getenv("TZ");
        had_ = old != nullptr;
        if (had_)
            old_ = old;
        setenv("TZ", (std::string(":") + zone).c_str(), 1);
        tzset();
    }
    ~ZoneScope() {
        if (had_)
            setenv("TZ", old_.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

private:
    bool had_;
    std::string old_;
};

}  // namespace

bool UTime::UtcToLocal(time_t utc, const char* zone, struct tm& local) {
    if (!KnownZone(zone))
        return false;
    std::lock_guard<std::mutex> hold(ZoneLock());
    ZoneScope scope(zone);
    return localtime_r(&utc, &local) != nullptr;
}

bool UTime::LocalToUtc(const struct tm& local, const char* zone, time_t& utc) {
    if (!KnownZone(zone))
        return false;
    std::lock_guard<std::mutex> hold(ZoneLock());
    ZoneScope scope(zone);
    struct tm copy = local;
    errno = 0;
    time_t result = mktime(&copy);
    if (result == static_cast<time_t>(-1) && errno != 0)
        return false;
    utc = result;
    return true;
}

// Time arithmetic, NTP time stamps, ordinal dates and time-zone conversion.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <climits>
#include <ctime>
#include <limits>
#include <string>

#include "UTime.h"

namespace {

struct timespec Ts(time_t sec, long nsec) {
    struct timespec t;
    t.tv_sec = sec;
    t.tv_nsec = nsec;
    return t;
}

const time_t kMaxTime = std::numeric_limits<time_t>::max();
const time_t kMinTime = std::numeric_limits<time_t>::min();

}  // namespace

TEST(TimeArithmetic, AddsAndSubtractsAcrossSecondsAndRefusesOverflow) {
    struct timespec t = Ts(1, 999999999);
    ASSERT_TRUE(UTime::AddNs(t, 1));
    EXPECT_EQ(t.tv_sec, 2);
    EXPECT_EQ(t.tv_nsec, 0);
    ASSERT_TRUE(UTime::AddNs(t, -2000000001));
    EXPECT_EQ(t.tv_sec, -1);
    EXPECT_EQ(t.tv_nsec, 999999999);
    ASSERT_TRUE(UTime::AddMs(t, -1500));
    EXPECT_EQ(t.tv_sec, -2);
    EXPECT_EQ(t.tv_nsec, 499999999);

    struct timespec top = Ts(kMaxTime, 999999999), bottom = Ts(kMinTime, 0);
    EXPECT_FALSE(UTime::AddNs(top, 1));
    EXPECT_FALSE(UTime::AddMs(bottom, -1));
    EXPECT_FALSE(UTime::AddMs(bottom, LLONG_MIN));
    EXPECT_EQ(top.tv_sec, kMaxTime) << "a refused addition leaves the time alone";
    EXPECT_EQ(top.tv_nsec, 999999999);
    struct timespec unnormalised = Ts(0, 1000000000);
    EXPECT_FALSE(UTime::AddNs(unnormalised, 0));

    int64_t ms = 0, ns = 0;
    EXPECT_TRUE(UTime::DiffMs(Ts(1, 0), Ts(0, 500000), ms));
    EXPECT_EQ(ms, 999) << "0.9995 s truncates toward zero";
    EXPECT_TRUE(UTime::DiffMs(Ts(0, 500000), Ts(1, 0), ms));
    EXPECT_EQ(ms, -999);
    EXPECT_TRUE(UTime::DiffNs(Ts(-1, 999999999), Ts(1, 1), ns));
    EXPECT_EQ(ns, -1000000002);
    EXPECT_TRUE(UTime::DiffMs(top, bottom, ms) == (sizeof(time_t) == 4));
    EXPECT_TRUE(UTime::DiffNs(top, bottom, ns) == (sizeof(time_t) == 4));
}

// RFC 5905, section 6, figure 4: era 0 starts on 1 January 1900, and 1 January
// 1970 is its second 2,208,988,800.
TEST(NtpTimeStamps, Rfc5905EpochAndEraBounds) {
    const struct {
        time_t unix_seconds;
        uint64_t ntp_seconds;
    } dates[] = {{0, 2208988800u}, {63072000, 2272060800u}, {946598400, 3155587200u}};
    for (const auto& d : dates) {
        uint64_t ntp = 0;
        ASSERT_TRUE(UTime::UnixToNtp(Ts(d.unix_seconds, 0), ntp));
        EXPECT_EQ(ntp, d.ntp_seconds << 32);
        struct timespec back;
        ASSERT_TRUE(UTime::NtpToUnix(ntp, back));
        EXPECT_EQ(back.tv_sec, d.unix_seconds);
        EXPECT_EQ(back.tv_nsec, 0);
    }
    uint64_t ntp = 0;
    ASSERT_TRUE(UTime::UnixToNtp(Ts(0, 500000000), ntp));
    EXPECT_EQ(ntp & 0xffffffffu, 0x80000000u);
    for (long nsec : {1L, 123456789L, 999999999L}) {
        struct timespec back;
        ASSERT_TRUE(UTime::UnixToNtp(Ts(1700000000, nsec), ntp));
        ASSERT_TRUE(UTime::NtpToUnix(ntp, back));
        EXPECT_EQ(back.tv_nsec, nsec) << "the fraction gives the same nanoseconds back";
    }
    // The last second of era 0 is 2036-02-07 06:28:15 UTC.
    EXPECT_TRUE(UTime::UnixToNtp(Ts(2085978495, 999999999), ntp));
    EXPECT_EQ(ntp >> 32, 0xffffffffu);
    EXPECT_FALSE(UTime::UnixToNtp(Ts(2085978496, 0), ntp)) << "past era 0";
    struct timespec t1900;
    EXPECT_EQ(UTime::NtpToUnix(0, t1900), sizeof(time_t) == 8) << "1900 needs a 64-bit time_t";
}

TEST(OrdinalDates, LeapYearsAndRoundTrips) {
    EXPECT_EQ(UTime::DayOfYear(1985, 4, 12), 102);  // ISO 8601's example: 1985-102
    EXPECT_EQ(UTime::DayOfYear(1900, 3, 1), 60) << "1900 is not a leap year";
    EXPECT_EQ(UTime::DayOfYear(2000, 3, 1), 61) << "2000 is";
    EXPECT_EQ(UTime::DayOfYear(2000, 12, 31), 366);
    EXPECT_EQ(UTime::DayOfYear(2100, 12, 31), 365) << "2100 is not";
    for (auto bad :
         {std::make_tuple(1900, 2, 29), std::make_tuple(2100, 2, 29), std::make_tuple(2024, 4, 31),
          std::make_tuple(2024, 13, 1), std::make_tuple(2024, 1, 0)})
        EXPECT_EQ(UTime::DayOfYear(std::get<0>(bad), std::get<1>(bad), std::get<2>(bad)), -1);
    for (int year : {1900, 2000, 2023, 2024, 2100}) {
        int days = UTime::IsLeapYear(year) ? 366 : 365, month = 0, day = 0;
        for (int yday = 1; yday <= days; ++yday) {
            ASSERT_TRUE(UTime::FromDayOfYear(year, yday, month, day));
            ASSERT_EQ(UTime::DayOfYear(year, month, day), yday) << year << "-" << yday;
        }
        EXPECT_EQ(month * 100 + day, 1231);
        EXPECT_FALSE(UTime::FromDayOfYear(year, days + 1, month, day));
        EXPECT_FALSE(UTime::FromDayOfYear(year, 0, month, day));
    }
}

TEST(TimeZones, DaylightSavingChangesBothWaysAndTheProcessZoneIsKept) {
    setenv("TZ", "UTC", 1);
    const struct {
        const char* zone;
        time_t utc;
        int hour, minute, isdst;
    } cases[] = {// Berlin springs forward at 01:00 UTC on 31 March 2024.
                 {"Europe/Berlin", 1711846799, 1, 59, 0},
                 {"Europe/Berlin", 1711846800, 3, 0, 1},
                 // New York falls back at 06:00 UTC on 3 November 2024.
                 {"America/New_York", 1730613599, 1, 59, 1},
                 {"America/New_York", 1730613600, 1, 0, 0}};
    for (const auto& c : cases) {
        struct tm local = {};
        ASSERT_TRUE(UTime::UtcToLocal(c.utc, c.zone, local)) << c.zone;
        EXPECT_EQ(local.tm_hour, c.hour) << c.zone << " " << c.utc;
        EXPECT_EQ(local.tm_min, c.minute);
        EXPECT_EQ(local.tm_isdst, c.isdst);
        time_t back = 0;
        ASSERT_TRUE(UTime::LocalToUtc(local, c.zone, back));
        EXPECT_EQ(back, c.utc) << "the local time with its offset names one instant";
    }
    struct tm summer = {};
    summer.tm_year = 124;
    summer.tm_mon = 6;
    summer.tm_mday = 1;
    summer.tm_hour = 12;
    summer.tm_isdst = -1;
    time_t utc = 0;
    ASSERT_TRUE(UTime::LocalToUtc(summer, "Europe/Berlin", utc));
    EXPECT_EQ(utc, 1719828000) << "12:00 CEST is 10:00 UTC";
    struct tm ignored;
    for (const char* bad : {"Nowhere/City", "", "../zoneinfo/UTC", "/etc/localtime"})
        EXPECT_FALSE(UTime::UtcToLocal(0, bad, ignored)) << bad;
    EXPECT_FALSE(UTime::LocalToUtc(summer, "Nowhere/City", utc));
    EXPECT_STREQ(getenv("TZ"), "UTC");
}

TEST(Clocks, ReadingsAgreeAndElapsedTimeNeverRunsBack) {
    uint64_t ms = UTime::GetMonotonicMs(), us = UTime::GetMonotonicUs();
    EXPECT_TRUE(us / 1000 >= ms && UTime::getLogicTime() >= static_cast<long>(ms / 1000));
    EXPECT_LE(UTime::GetRealTimeMs() / 1000, static_cast<uint64_t>(time(nullptr)));
    EXPECT_EQ(UTime::ElapsedMs(ms + 3600000), 0u) << "a reading from the future";
}

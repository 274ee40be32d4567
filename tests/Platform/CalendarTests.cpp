#include "kel/Platform/Calendar.hpp"

#include "ScopedEnvironment.hpp"

#include <gtest/gtest.h>

#include <ctime>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::system_clock;
using kel::DateComponents;

// The moment of a local wall-clock time in the current TZ.
Clock::time_point local(int year, int month, int day, int hour = 12, int minute = 0) {
    std::tm fields{};
    fields.tm_year = year - 1900;
    fields.tm_mon = month - 1;
    fields.tm_mday = day;
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_isdst = -1;
    return Clock::from_time_t(std::mktime(&fields));
}

DateComponents difference(Clock::time_point from, Clock::time_point to) {
    return kel::Calendar::gregorianDifference(from, to);
}

TEST(CalendarDifference, LargestUnitFirstWithTheRemainderInSmallerUnitsUpToTheClocksExtremes) {
    kel::test::ScopedEnvironment environment;
    environment.set("TZ", "UTC0");
    Clock::time_point start = local(2025, 3, 1, 9, 15) + 700ms;

    EXPECT_EQ(difference(start, start + 30s), DateComponents{});
    EXPECT_EQ(difference(start, start + 59min + 59s + 299ms), (DateComponents{0, 0, 0, 0, 59}));
    EXPECT_EQ(difference(start, start + 60min), (DateComponents{0, 0, 0, 1, 0}));
    EXPECT_EQ(difference(start, start + 7 * 24h - 1ms), (DateComponents{0, 0, 6, 23, 59}));
    EXPECT_EQ(difference(start, start + 13 * 24h), (DateComponents{0, 1, 6, 0, 0}));
    // No months: after the year, 2026-03-01 to 2026-04-05 is counted in weeks.
    EXPECT_EQ(difference(start, start + 400 * 24h), (DateComponents{1, 5, 0, 0, 0}));
    // Backwards, everything is zero or negative.
    EXPECT_EQ(difference(start + 3h + 5min, start), (DateComponents{0, 0, 0, -3, -5}));
    EXPECT_EQ(difference(start + 400 * 24h, start), (DateComponents{-1, -5, 0, 0, 0}));

    // The extremes of system_clock are moments like any other: no overflow on the way.
    const Clock::time_point earliest = Clock::time_point::min();
    const Clock::time_point latest = Clock::time_point::max();
    EXPECT_EQ(difference(earliest, earliest + 90s), (DateComponents{0, 0, 0, 0, 1}));
    EXPECT_EQ(difference(latest - 90s, latest), (DateComponents{0, 0, 0, 0, 1}));
    EXPECT_EQ(difference(earliest, latest).year, 584);
    EXPECT_EQ(difference(latest, earliest).year, -584);
}

TEST(CalendarDifference, DaysFollowTheWallClockAcrossDaylightSavingChangesAndTheRepeatedHour) {
    kel::test::ScopedEnvironment environment;
    // Central European time as a POSIX rule (no time-zone database needed): summer time from
    // the last Sunday of March to the last Sunday of October, so 29 March 2026 lasts 23 hours
    // and 25 October 2026 lasts 25.
    environment.set("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
    Clock::time_point spring = local(2026, 3, 28);
    ASSERT_EQ(local(2026, 3, 29) - spring, 23h);
    EXPECT_EQ(difference(spring, local(2026, 3, 29)), (DateComponents{0, 0, 1, 0, 0}));
    EXPECT_EQ(difference(spring, local(2026, 3, 29) - 1min), (DateComponents{0, 0, 0, 22, 59}));
    EXPECT_EQ(difference(local(2026, 3, 22), local(2026, 3, 29)), (DateComponents{0, 1, 0, 0, 0}));

    Clock::time_point autumn = local(2026, 10, 24);
    ASSERT_EQ(local(2026, 10, 25) - autumn, 25h);
    EXPECT_EQ(difference(autumn, local(2026, 10, 25)), (DateComponents{0, 0, 1, 0, 0}));
    EXPECT_EQ(difference(autumn, local(2026, 10, 25) - 30min), (DateComponents{0, 0, 0, 24, 30}));

    // When clocks go back, 02:00-03:00 occurs twice; a moment in the first occurrence must not
    // be taken for the second (an hour later) when it is turned back into a moment.
    // 25 October 2026, 00:30 UTC is 02:30 CEST, the first 02:30 of the day.
    const Clock::time_point firstOccurrence = Clock::from_time_t(1792888200);
    EXPECT_EQ(difference(firstOccurrence, firstOccurrence + 10min),
              (DateComponents{0, 0, 0, 0, 10}));
    EXPECT_EQ(difference(firstOccurrence, firstOccurrence + 80min),
              (DateComponents{0, 0, 0, 1, 20}));
    EXPECT_EQ(difference(firstOccurrence + 10min, firstOccurrence),
              (DateComponents{0, 0, 0, 0, -10}));
    EXPECT_EQ(difference(firstOccurrence - 24h, firstOccurrence + 30min),
              (DateComponents{0, 0, 1, 0, 30}));
}

}  // namespace

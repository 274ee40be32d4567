// kel::Calendar — Gregorian calendar differences between two moments, in the local time zone.
//
// Calendar::gregorianDifference(from, to) splits the time from `from` to `to` into whole
// years, weeks, days, hours and minutes, largest unit first: the most years that can be added
// to `from` without passing `to`, then the most weeks that can be added to that, and so on.
// Years, weeks and days are calendar units: they keep the wall-clock time across daylight-saving
// changes (a day may last 23 or 25 hours) and adding a year to 29 February gives 28 February.
// Hours and minutes are elapsed time. Seconds and less are dropped. Months are not used, so
// what remains after the years is counted in weeks (400 days is 1 year, 5 weeks).
// When `to` is before `from`, every component is zero or negative: the difference from `to`
// to `from`, negated.
//
// The local time zone is the process's (TZ, or /etc/localtime), read through the C library.
//
// Thread rules: may be called from any thread (the C library's reentrant time functions).
// Ownership: values only.
#pragma once

#include <chrono>

#include "kel/Export.hpp"

namespace kel {

struct DateComponents {
    int year = 0;
    int weekOfYear = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;

    friend bool operator==(const DateComponents&, const DateComponents&) = default;
};

class KEL_EXPORT Calendar {
  public:
    Calendar() = delete;

    static DateComponents gregorianDifference(std::chrono::system_clock::time_point from,
                                              std::chrono::system_clock::time_point to);
};

}  // namespace kel

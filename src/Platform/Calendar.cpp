#include "kel/Platform/Calendar.hpp"

#include <ctime>

namespace kel {

namespace {

using Clock = std::chrono::system_clock;

// A moment as local wall-clock fields plus the part of a second that std::tm cannot hold.
struct CivilTime {
    std::tm fields{};
    Clock::duration subsecond{};
};

CivilTime toCivil(Clock::time_point moment) {
    auto seconds = std::chrono::floor<std::chrono::seconds>(moment);
    std::time_t time = Clock::to_time_t(seconds);
    CivilTime civil;
    localtime_r(&time, &civil.fields);
    civil.subsecond = moment - seconds;
    return civil;
}

bool isLeapYear(long year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

// The moment of the wall-clock fields, letting mktime decide daylight-saving time and normalise
// out-of-range fields (the 32nd of a month, a time skipped by a daylight-saving change).
Clock::time_point fromCivil(std::tm fields, Clock::duration subsecond) {
    fields.tm_isdst = -1;
    std::time_t time = std::mktime(&fields);
    return Clock::from_time_t(time) + subsecond;
}

std::tm addYears(std::tm fields, int years) {
    fields.tm_year += years;
    if (fields.tm_mon == 1 && fields.tm_mday == 29 && !isLeapYear(1900L + fields.tm_year)) {
        fields.tm_mday = 28;
    }
    return fields;
}

Clock::time_point addDays(std::tm fields, Clock::duration subsecond, long days) {
    fields.tm_mday += static_cast<int>(days);
    return fromCivil(fields, subsecond);
}

DateComponents forwardDifference(Clock::time_point from, Clock::time_point to) {
    using namespace std::chrono;
    CivilTime start = toCivil(from);
    CivilTime end = toCivil(to);
    DateComponents components;

    // Years: at most one fewer than the difference of the year fields.
    int years = end.fields.tm_year - start.fields.tm_year;
    while (years > 0 && fromCivil(addYears(start.fields, years), start.subsecond) > to) {
        --years;
    }
    components.year = years;
    std::tm anchor = addYears(start.fields, years);
    Clock::time_point anchorTime = fromCivil(anchor, start.subsecond);

    // Whole calendar days after the years, estimated from elapsed time and then corrected by
    // the hour that a daylight-saving change may add or take away.
    long days = static_cast<long>(floor<hours>(to - anchorTime).count() / 24);
    while (addDays(anchor, start.subsecond, days + 1) <= to) {
        ++days;
    }
    while (days > 0 && addDays(anchor, start.subsecond, days) > to) {
        --days;
    }
    components.weekOfYear = static_cast<int>(days / 7);
    components.day = static_cast<int>(days % 7);

    auto rest = to - addDays(anchor, start.subsecond, days);
    components.hour = static_cast<int>(floor<hours>(rest).count());
    components.minute = static_cast<int>(floor<minutes>(rest - floor<hours>(rest)).count());
    return components;
}

}  // namespace

DateComponents Calendar::gregorianDifference(Clock::time_point from, Clock::time_point to) {
    if (to >= from) {
        return forwardDifference(from, to);
    }
    DateComponents backwards = forwardDifference(to, from);
    return {-backwards.year, -backwards.weekOfYear, -backwards.day, -backwards.hour,
            -backwards.minute};
}

}  // namespace kel

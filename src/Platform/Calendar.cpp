#include "kel/Platform/Calendar.hpp"

#include <ctime>
#include <optional>

namespace kel {

namespace {

using Clock = std::chrono::system_clock;
using Seconds = std::chrono::seconds;

// A moment as whole seconds plus the part of a second that std::tm cannot hold. Arithmetic is
// done on whole seconds, which cannot overflow for any time point a system_clock holds (its
// nanosecond count would, near time_point::min() and max()).
struct Moment {
    std::time_t seconds = 0;
    Clock::duration subsecond{};  // in [0, 1 s)

    friend auto operator<=>(const Moment&, const Moment&) = default;
};

Moment split(Clock::time_point moment) {
    const auto count = moment.time_since_epoch();
    auto whole = std::chrono::duration_cast<Seconds>(count);  // truncates toward zero
    auto rest = count - std::chrono::duration_cast<Clock::duration>(whole);
    if (rest < Clock::duration::zero()) {
        whole -= Seconds(1);
        rest += Seconds(1);
    }
    return {static_cast<std::time_t>(whole.count()), rest};
}

// A moment as local wall-clock fields (tm_isdst says which side of a daylight-saving change).
struct CivilTime {
    std::tm fields{};
    Clock::duration subsecond{};
};

CivilTime toCivil(const Moment& moment) {
    CivilTime civil;
    localtime_r(&moment.seconds, &civil.fields);
    civil.subsecond = moment.subsecond;
    return civil;
}

bool sameWallClock(const std::tm& a, const std::tm& b) {
    return a.tm_year == b.tm_year && a.tm_mon == b.tm_mon && a.tm_mday == b.tm_mday &&
           a.tm_hour == b.tm_hour && a.tm_min == b.tm_min && a.tm_sec == b.tm_sec;
}

std::optional<std::time_t> makeTime(std::tm fields, int isdst, std::tm& normalised) {
    fields.tm_isdst = isdst;
    std::time_t time = std::mktime(&fields);
    if (time == static_cast<std::time_t>(-1)) {
        std::tm check{};
        if (localtime_r(&time, &check) == nullptr || !sameWallClock(check, fields)) {
            return std::nullopt;
        }
    }
    normalised = fields;
    return time;
}

// The moment of the wall-clock fields. mktime normalises out-of-range fields (the 32nd of a
// month, a time skipped by a daylight-saving change). A wall-clock time that occurs twice (the
// repeated hour when clocks go back) is resolved to the occurrence on the same side of the
// change as `isdstHint`, the side of the moment the fields were derived from: with
// tm_isdst = -1 mktime would pick one occurrence of its own choosing, an hour off for a moment
// in the other one.
Moment fromCivil(const std::tm& fields, Clock::duration subsecond, int isdstHint) {
    std::tm resolved{};
    std::optional<std::time_t> time = makeTime(fields, -1, resolved);
    if (time && resolved.tm_isdst >= 0 && resolved.tm_isdst != isdstHint && isdstHint >= 0) {
        std::tm other{};
        std::optional<std::time_t> alternative = makeTime(fields, isdstHint, other);
        std::tm check{};
        if (alternative && localtime_r(&*alternative, &check) != nullptr &&
            sameWallClock(check, resolved) && check.tm_isdst == isdstHint) {
            time = alternative;
        }
    }
    return {time.value_or(0), subsecond};
}

bool isLeapYear(long year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

std::tm addYears(std::tm fields, int years) {
    fields.tm_year += years;
    if (fields.tm_mon == 1 && fields.tm_mday == 29 && !isLeapYear(1900L + fields.tm_year)) {
        fields.tm_mday = 28;
    }
    return fields;
}

Moment addDays(const CivilTime& start, std::tm fields, long days) {
    fields.tm_mday += static_cast<int>(days);
    return fromCivil(fields, start.subsecond, start.fields.tm_isdst);
}

// Whole seconds from `a` to `b`, rounded down.
long long wholeSecondsBetween(const Moment& a, const Moment& b) {
    long long seconds = static_cast<long long>(b.seconds) - static_cast<long long>(a.seconds);
    return b.subsecond < a.subsecond ? seconds - 1 : seconds;
}

DateComponents forwardDifference(const Moment& from, const Moment& to) {
    CivilTime start = toCivil(from);
    CivilTime end = toCivil(to);
    DateComponents components;
    const int hint = start.fields.tm_isdst;

    // Years: at most one fewer than the difference of the year fields.
    int years = end.fields.tm_year - start.fields.tm_year;
    while (years > 0 && fromCivil(addYears(start.fields, years), start.subsecond, hint) > to) {
        --years;
    }
    components.year = years;
    std::tm anchor = addYears(start.fields, years);
    Moment anchorTime = fromCivil(anchor, start.subsecond, hint);

    // Whole calendar days after the years, estimated from elapsed time and then corrected by
    // the hour that a daylight-saving change may add or take away.
    const long long elapsed = wholeSecondsBetween(anchorTime, to);
    long days = elapsed > 0 ? static_cast<long>(elapsed / 86400) : 0;
    while (addDays(start, anchor, days + 1) <= to) {
        ++days;
    }
    while (days > 0 && addDays(start, anchor, days) > to) {
        --days;
    }
    components.weekOfYear = static_cast<int>(days / 7);
    components.day = static_cast<int>(days % 7);

    const long long rest = wholeSecondsBetween(addDays(start, anchor, days), to);
    if (rest > 0) {
        components.hour = static_cast<int>(rest / 3600);
        components.minute = static_cast<int>(rest % 3600 / 60);
    }
    return components;
}

}  // namespace

DateComponents Calendar::gregorianDifference(Clock::time_point from, Clock::time_point to) {
    if (to >= from) {
        return forwardDifference(split(from), split(to));
    }
    DateComponents backwards = forwardDifference(split(to), split(from));
    return {-backwards.year, -backwards.weekOfYear, -backwards.day, -backwards.hour,
            -backwards.minute};
}

}  // namespace kel

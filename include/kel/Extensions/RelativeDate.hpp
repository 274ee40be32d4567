// Relative date phrases: how long ago a moment was, in a few words ("5 mins ago", "2 weeks
// ago", "Now").
//
// The phrase names the largest Gregorian calendar unit (year, week, day, hour, minute) of the
// difference from the date to now in the local time zone, with that unit's count (see
// kel::Calendar: differences, not rounded totals, so 1 hour 59 minutes ago is "1 hr ago" and 13
// days ago is "1 wk ago"). Under a minute ago, and any moment in the future, is "Now". The
// medium and long forms name the same unit and count and differ only in wording.
//
// The wordings come from the library's message catalogue (kel::MessageCatalog::library()), the
// form chosen by the count under the language's plural rule; the count is written with the
// user's locale (the environment's, as std::locale("") reads it; the classic locale when that
// names no installed locale). Without a catalogue the lookup key itself is formatted, e.g.
// "3 day/days ago medium".
//
// Thread rules: may be called from any thread.
// Ownership: values only.
#pragma once

#include <chrono>
#include <string>

#include "kel/Export.hpp"

namespace kel {

enum class RelativeDateStyle { medium, long_ };

// The medium phrase for `date` relative to now, e.g. "3 hrs ago".
KEL_EXPORT std::string gregorianMediumDisplayString(std::chrono::system_clock::time_point date);

// The long phrase for `date` relative to now, e.g. "3 hours ago".
KEL_EXPORT std::string gregorianLongDisplayString(std::chrono::system_clock::time_point date);

// The phrase for `date` relative to a given `now`, for callers that render many dates against
// one moment.
KEL_EXPORT std::string gregorianDisplayString(std::chrono::system_clock::time_point date,
                                              RelativeDateStyle style,
                                              std::chrono::system_clock::time_point now);

}  // namespace kel

#include "kel/Extensions/RelativeDate.hpp"

#include "kel/Platform/Calendar.hpp"
#include "kel/Platform/MessageCatalog.hpp"

#include <locale>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace kel {

namespace {

// Catalogue keys of one style, largest unit first. The comment beside each key in the .po
// sources tells translators what it is.
struct PhraseKeys {
    const char* year;
    const char* week;
    const char* day;
    const char* hour;
    const char* minute;
};

constexpr PhraseKeys mediumKeys{"%d year/years ago medium", "%d week/weeks ago medium",
                                "%d day/days ago medium", "%d hour/hours ago medium",
                                "%d minute/minutes ago medium"};
constexpr PhraseKeys longKeys{"%d year/years ago long", "%d week/weeks ago long",
                              "%d day/days ago long", "%d hour/hours ago long",
                              "%d minute/minutes ago long"};
constexpr const char* nowKey = "Now";

const std::locale& userLocale() {
    static const std::locale locale = [] {
        try {
            return std::locale("");
        } catch (const std::runtime_error&) {
            return std::locale::classic();
        }
    }();
    return locale;
}

std::string formatCount(int count) {
    std::ostringstream stream;
    stream.imbue(userLocale());
    stream << count;
    return std::move(stream).str();
}

// Substitutes the count for each integer conversion of a translated format ("%d", "%ld",
// "%1$d", ...) and "%" for "%%". Translations are data, so they are never handed to printf: a
// stray conversion in a catalogue is copied through rather than read from a missing argument.
std::string formatPhrase(std::string_view format, int count) {
    std::string phrase;
    phrase.reserve(format.size() + 8);
    std::size_t position = 0;
    while (position < format.size()) {
        char c = format[position];
        if (c != '%') {
            phrase += c;
            ++position;
            continue;
        }
        if (position + 1 < format.size() && format[position + 1] == '%') {
            phrase += '%';
            position += 2;
            continue;
        }
        std::size_t cursor = position + 1;
        if (format.substr(cursor, 2) == "1$") {
            cursor += 2;
        }
        while (cursor < format.size() && (format[cursor] == 'l' || format[cursor] == 'h')) {
            ++cursor;
        }
        if (cursor < format.size() &&
            (format[cursor] == 'd' || format[cursor] == 'i' || format[cursor] == 'u')) {
            phrase += formatCount(count);
            position = cursor + 1;
        } else {
            phrase += c;
            ++position;
        }
    }
    return phrase;
}

std::string countedPhrase(const char* key, int count) {
    std::string_view format = key;
    if (auto catalogue = MessageCatalog::library()) {
        format = catalogue->pluralTranslation(key, static_cast<unsigned long>(count)).value_or(key);
    }
    return formatPhrase(format, count);
}

std::string nowPhrase() {
    if (auto catalogue = MessageCatalog::library()) {
        return std::string(catalogue->translation(nowKey).value_or(nowKey));
    }
    return nowKey;
}

}  // namespace

std::string gregorianDisplayString(std::chrono::system_clock::time_point date,
                                   RelativeDateStyle style,
                                   std::chrono::system_clock::time_point now) {
    const PhraseKeys& keys = style == RelativeDateStyle::medium ? mediumKeys : longKeys;
    DateComponents components = Calendar::gregorianDifference(date, now);
    const std::pair<int, const char*> rules[] = {{components.year, keys.year},
                                                 {components.weekOfYear, keys.week},
                                                 {components.day, keys.day},
                                                 {components.hour, keys.hour},
                                                 {components.minute, keys.minute}};
    for (const auto& [count, key] : rules) {
        if (count >= 1) {
            return countedPhrase(key, count);
        }
    }
    return nowPhrase();
}

std::string gregorianMediumDisplayString(std::chrono::system_clock::time_point date) {
    return gregorianDisplayString(date, RelativeDateStyle::medium,
                                  std::chrono::system_clock::now());
}

std::string gregorianLongDisplayString(std::chrono::system_clock::time_point date) {
    return gregorianDisplayString(date, RelativeDateStyle::long_, std::chrono::system_clock::now());
}

}  // namespace kel

// kel::ProcessInfoValueType — types that parse themselves from a launch argument or an
// environment value.
//
// A type T qualifies when ProcessInfoValue<T>::from(text) gives a std::optional<T>. The library
// provides it for std::string (the text itself), std::int64_t (an optional sign, then decimal
// digits; nothing else, no overflow), float and double (the whole text a C-locale floating
// number: decimal or hexadecimal ("0x1.8p1"), "inf", "infinity", "nan", with an optional sign;
// no whitespace, no overflow; the process's locale never matters) and bool (exactly "true" or
// "false"). A type of the application's qualifies by having a static from(std::string_view)
// returning std::optional of itself, or by specialising ProcessInfoValue. A text that does not
// parse gives no value, never an error.
//
// Thread rules: pure functions.
#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kel/Export.hpp"

namespace kel {

template <class T>
struct ProcessInfoValue {
    static std::optional<T> from(std::string_view text) requires requires {
        { T::from(text) } -> std::same_as<std::optional<T>>;
    }
    { return T::from(text); }
};

template <>
struct ProcessInfoValue<std::string> {
    static std::optional<std::string> from(std::string_view text) { return std::string(text); }
};

template <>
struct KEL_EXPORT ProcessInfoValue<std::int64_t> {
    static std::optional<std::int64_t> from(std::string_view text);
};

template <>
struct KEL_EXPORT ProcessInfoValue<float> {
    static std::optional<float> from(std::string_view text);
};

template <>
struct KEL_EXPORT ProcessInfoValue<double> {
    static std::optional<double> from(std::string_view text);
};

template <>
struct ProcessInfoValue<bool> {
    static std::optional<bool> from(std::string_view text) {
        if (text == "true")
            return true;
        if (text == "false")
            return false;
        return std::nullopt;
    }
};

template <class T>
concept ProcessInfoValueType = requires(std::string_view text) {
    { ProcessInfoValue<T>::from(text) } -> std::same_as<std::optional<T>>;
};

}  // namespace kel

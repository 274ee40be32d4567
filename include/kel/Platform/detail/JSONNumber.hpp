// kel::detail::jsonNumberFits — whether a JSON number converts to an arithmetic type without
// leaving its range. nlohmann::json converts numbers with an unchecked static_cast, which is
// undefined behaviour for a floating value outside an integral type's range (and silently wraps
// integers); decoders ask this first.
//
// Thread rules: a pure function. Ownership: none.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace kel::detail {

// Integral T: the value, truncated toward zero, lies within T's range. Floating T: the value is
// finite-and-within T's range, or not finite. Values that are not numbers answer true: the
// conversion itself rejects them. bool is not a number here.
template <class T, class Json>
bool jsonNumberFits(const Json& value) {
    if constexpr (!std::is_arithmetic_v<T> || std::is_same_v<T, bool>) {
        return true;
    } else {
        using Limits = std::numeric_limits<T>;
        if (value.is_number_unsigned()) {
            const auto number = value.template get<typename Json::number_unsigned_t>();
            if constexpr (std::is_integral_v<T>) {
                return static_cast<std::uintmax_t>(number) <=
                       static_cast<std::uintmax_t>(Limits::max());
            } else {
                return true;
            }
        }
        if (value.is_number_integer()) {
            const auto number =
                static_cast<std::intmax_t>(value.template get<typename Json::number_integer_t>());
            if constexpr (std::is_integral_v<T> && std::is_unsigned_v<T>) {
                return number >= 0 && static_cast<std::uintmax_t>(number) <=
                                          static_cast<std::uintmax_t>(Limits::max());
            } else if constexpr (std::is_integral_v<T>) {
                return number >= static_cast<std::intmax_t>(Limits::min()) &&
                       number <= static_cast<std::intmax_t>(Limits::max());
            } else {
                return true;
            }
        }
        if (value.is_number_float()) {
            const auto number =
                static_cast<long double>(value.template get<typename Json::number_float_t>());
            if constexpr (std::is_integral_v<T>) {
                // max() + 1 and min() are powers of two (or zero), exact in long double.
                const long double upper = std::ldexp(1.0L, Limits::digits);
                const long double lower = std::is_signed_v<T> ? -upper : 0.0L;
                return number > lower - 1.0L && number < upper;  // false for NaN
            } else {
                return !std::isfinite(number) ||
                       (number >= -static_cast<long double>(Limits::max()) &&
                        number <= static_cast<long double>(Limits::max()));
            }
        }
        return true;
    }
}

}  // namespace kel::detail

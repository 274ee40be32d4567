#include "kel/Platform/ByteCountFormatter.hpp"

#include <charconv>
#include <cmath>

namespace kel {

std::string ByteCountFormatter::string(std::int64_t byteCount, CountStyle countStyle) {
    static constexpr const char* units[] = {"bytes", "KB", "MB", "GB", "TB", "PB", "EB"};
    if (byteCount == 0) {
        return "Zero KB";
    }
    const char* sign = byteCount < 0 ? "-" : "";
    // The magnitude as unsigned, so that the most negative count is no overflow.
    auto magnitude = byteCount < 0 ? 0 - static_cast<std::uint64_t>(byteCount)
                                   : static_cast<std::uint64_t>(byteCount);
    const double base =
        countStyle == CountStyle::decimal || countStyle == CountStyle::file ? 1000.0 : 1024.0;
    if (static_cast<double>(magnitude) < base) {
        return sign + std::to_string(magnitude) + (magnitude == 1 ? " byte" : " bytes");
    }
    int unit = 0;
    double value = static_cast<double>(magnitude);
    while (value >= base && unit < 6) {
        value /= base;
        ++unit;
    }
    // Kilobytes show no decimals, megabytes one, larger units two. Rounding up to the base
    // moves to the next unit ("1000 KB" reads "1 MB").
    auto decimalsFor = [](int u) { return u == 1 ? 0 : (u == 2 ? 1 : 2); };
    double scale = std::pow(10.0, decimalsFor(unit));
    if (std::round(value * scale) / scale >= base && unit < 6) {
        value /= base;
        ++unit;
        scale = std::pow(10.0, decimalsFor(unit));
    }
    char buffer[64];
    auto written = std::to_chars(buffer, buffer + sizeof buffer, std::round(value * scale) / scale,
                                 std::chars_format::fixed, decimalsFor(unit));
    std::string number(buffer, written.ptr);
    // Trailing zeros of the fraction are dropped, and a point left alone.
    if (decimalsFor(unit) > 0) {
        while (number.back() == '0') {
            number.pop_back();
        }
        if (number.back() == '.') {
            number.pop_back();
        }
    }
    return sign + number + " " + units[unit];
}

}  // namespace kel

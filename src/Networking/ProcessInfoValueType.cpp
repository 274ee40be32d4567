#include "kel/Networking/ProcessInfoValueType.hpp"

#include <charconv>

namespace kel {

namespace {

// std::from_chars is locale-independent and reads the C syntax, except that it takes no "+"
// and no "0x" prefix: both are handled here.
template <class F>
std::optional<F> parseFloating(std::string_view text) {
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty() || text.front() == '+' || text.front() == '-') {
        return std::nullopt;
    }
    auto format = std::chars_format::general;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        text.remove_prefix(2);
        format = std::chars_format::hex;
        // "0x" followed by a sign, a word or nothing is no number.
        char c = text.front();
        bool hexDigit = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
        if (!hexDigit && c != '.') {
            return std::nullopt;
        }
    }
    F value{};
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, format);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return negative ? -value : value;
}

}  // namespace

std::optional<std::int64_t> ProcessInfoValue<std::int64_t>::from(std::string_view text) {
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
        if (!text.empty() && text.front() == '-') {
            return std::nullopt;
        }
    }
    std::int64_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 10);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

std::optional<float> ProcessInfoValue<float>::from(std::string_view text) {
    return parseFloating<float>(text);
}

std::optional<double> ProcessInfoValue<double>::from(std::string_view text) {
    return parseFloating<double>(text);
}

}  // namespace kel

// ASCII helpers for the library's parsers and printers: character classes, case folding, hex
// digits and percent coding. Everything here works on bytes and ignores the process locale, so
// "file://" matches "FILE://" under a Turkish locale too, and bytes of 0x80 and above are never
// letters, digits or case pairs.
//
// Thread rules: pure functions. Ownership: results are values.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

namespace kel::detail {

constexpr bool isAsciiLetter(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

constexpr bool isAsciiDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

constexpr char asciiLower(char c) noexcept {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool equalsIgnoringCase(std::string_view a, std::string_view b) noexcept {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return asciiLower(x) == asciiLower(y); });
}

constexpr bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) noexcept {
    return text.size() >= prefix.size() &&
           equalsIgnoringCase(text.substr(0, prefix.size()), prefix);
}

// The value of a hex digit of either case; -1 for any other byte.
constexpr int hexValue(char c) noexcept {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

enum class HexCase { upper, lower };

// The hex digit of the low four bits of `value`.
constexpr char hexDigit(unsigned value, HexCase letters = HexCase::upper) noexcept {
    constexpr std::string_view upper = "0123456789ABCDEF";
    constexpr std::string_view lower = "0123456789abcdef";
    return (letters == HexCase::upper ? upper : lower)[value & 0x0F];
}

// Appends `text` with every byte for which keep(byte) is false written as "%XX" (upper-case
// hex, the form URLs normalise to).
template <class Keep>
void appendPercentEncoded(std::string& out, std::string_view text, Keep keep) {
    out.reserve(out.size() + text.size());
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (keep(byte)) {
            out += c;
        } else {
            out += '%';
            out += hexDigit(byte >> 4);
            out += hexDigit(byte);
        }
    }
}

// What percentDecode does with a "%" that is not followed by two hex digits.
enum class MalformedEscape {
    reject,  // the text does not decode
    keep     // the "%" stands for itself
};

// `text` with every "%XX" replaced by its byte; nothing when a malformed escape is rejected.
inline std::optional<std::string> percentDecode(std::string_view text, MalformedEscape malformed) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        int high = i + 2 < text.size() ? hexValue(text[i + 1]) : -1;
        int low = i + 2 < text.size() ? hexValue(text[i + 2]) : -1;
        if (high < 0 || low < 0) {
            if (malformed == MalformedEscape::reject) {
                return std::nullopt;
            }
            out += '%';
            continue;
        }
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return out;
}

}  // namespace kel::detail

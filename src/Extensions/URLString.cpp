#include "kel/Extensions/URLString.hpp"

#include "../Platform/ASCII.hpp"

#include <algorithm>

namespace kel {

namespace {

using detail::isAsciiDigit;
using detail::isAsciiLetter;

constexpr bool isSpaceOrControl(char c) noexcept {
    const auto byte = static_cast<unsigned char>(c);
    return byte <= 0x20 || byte == 0x7F;
}

}  // namespace

std::optional<std::string_view> urlScheme(std::string_view text) noexcept {
    const auto colon = text.find(':');
    if (colon == std::string_view::npos || colon == 0 || !isAsciiLetter(text[0])) {
        return std::nullopt;
    }
    const std::string_view scheme = text.substr(0, colon);
    const bool valid = std::all_of(scheme.begin(), scheme.end(), [](char c) {
        return isAsciiLetter(c) || isAsciiDigit(c) || c == '+' || c == '-' || c == '.';
    });
    if (!valid) {
        return std::nullopt;
    }
    return scheme;
}

bool hasScheme(std::string_view text, std::string_view scheme) noexcept {
    const auto actual = urlScheme(text);
    return actual && detail::equalsIgnoringCase(*actual, scheme);
}

bool isWebURL(std::string_view text) noexcept {
    if (!hasScheme(text, "http") && !hasScheme(text, "https")) {
        return false;
    }
    if (std::any_of(text.begin(), text.end(), isSpaceOrControl)) {
        return false;
    }
    std::string_view rest = text.substr(text.find(':') + 1);
    if (!rest.starts_with("//")) {
        return false;
    }
    rest.remove_prefix(2);
    // The authority runs to the path, query or fragment; the host is what remains of it without
    // the user information and the port.
    std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
    if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
        authority.remove_prefix(at + 1);
    }
    std::string_view host = authority;
    std::string_view port;
    if (host.starts_with('[')) {
        // An IP literal: the brackets enclose the host; only a port may follow them.
        const auto close = host.find(']');
        if (close == std::string_view::npos || close == 1) {
            return false;
        }
        const std::string_view after = host.substr(close + 1);
        if (!after.empty() && !after.starts_with(':')) {
            return false;
        }
        port = after.empty() ? after : after.substr(1);
        host = host.substr(0, close + 1);
    } else if (const auto colon = host.find(':'); colon != std::string_view::npos) {
        port = host.substr(colon + 1);
        host = host.substr(0, colon);
    }
    return !host.empty() && std::all_of(port.begin(), port.end(), isAsciiDigit);
}

bool isFileURL(std::string_view text) noexcept {
    return hasScheme(text, "file");
}

}  // namespace kel

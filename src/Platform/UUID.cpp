#include "kel/Platform/UUID.hpp"

#include "kel/Platform/SecureRandom.hpp"

#include "ASCII.hpp"

namespace kel {

namespace {

// Positions of the hyphens in the 36-character text.
constexpr bool isHyphenPosition(std::size_t i) {
    return i == 8 || i == 13 || i == 18 || i == 23;
}

}  // namespace

UUID::UUID() {
    secureRandomBytes(bytes_.data(), bytes_.size());
    bytes_[6] = static_cast<std::uint8_t>((bytes_[6] & 0x0F) | 0x40);  // version 4
    bytes_[8] = static_cast<std::uint8_t>((bytes_[8] & 0x3F) | 0x80);  // RFC 4122 variant
}

std::optional<UUID> UUID::fromString(std::string_view text) {
    if (text.size() != 36) {
        return std::nullopt;
    }
    Bytes bytes{};
    std::size_t byte = 0;
    for (std::size_t i = 0; i < text.size();) {
        if (isHyphenPosition(i)) {
            if (text[i] != '-') {
                return std::nullopt;
            }
            ++i;
            continue;
        }
        int high = detail::hexValue(text[i]);
        int low = detail::hexValue(text[i + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        bytes[byte++] = static_cast<std::uint8_t>(high << 4 | low);
        i += 2;
    }
    return UUID(bytes);
}

std::string UUID::uuidString() const {
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes_.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text.push_back('-');
        }
        text.push_back(detail::hexDigit(bytes_[i] >> 4));
        text.push_back(detail::hexDigit(bytes_[i]));
    }
    return text;
}

}  // namespace kel

// kel::UUID — a universally unique identifier: 128 bits, random (version 4, RFC 4122 variant).
//
// UUID() draws a new identifier from the operating system's random source (getrandom(2)).
// uuidString() gives the standard 8-4-4-4-12 text in upper-case hexadecimal, the form the
// original platform prints ("E621E1F8-C36C-495A-93FC-0C247A3E6E5F"); fromString parses that
// form in either case and gives no value for anything else.
//
// Thread rules: a value type; constructing one is safe from any thread.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "kel/Export.hpp"

namespace kel {

class KEL_EXPORT UUID {
  public:
    using Bytes = std::array<std::uint8_t, 16>;

    // A new random (version 4) identifier.
    UUID();
    // The identifier with exactly these bytes (no version or variant bits are changed).
    explicit constexpr UUID(const Bytes& bytes) : bytes_(bytes) {}

    // Parses "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX" (hex digits of either case).
    static std::optional<UUID> fromString(std::string_view text);

    const Bytes& bytes() const noexcept { return bytes_; }
    // The 36-character upper-case text form.
    std::string uuidString() const;

    friend constexpr bool operator==(const UUID&, const UUID&) = default;
    friend constexpr auto operator<=>(const UUID&, const UUID&) = default;

  private:
    Bytes bytes_;
};

}  // namespace kel

template <>
struct std::hash<kel::UUID> {
    std::size_t operator()(const kel::UUID& uuid) const noexcept {
        std::size_t hash = 0;
        for (std::uint8_t byte : uuid.bytes()) {
            hash = hash * 131 + byte;
        }
        return hash;
    }
};

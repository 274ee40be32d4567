// kel::RemoteNotificationFetchResult — what handling a remote notification produced: no new
// data or new data. Mapping it to the platform's fetch-result constant is the caller's business.
//
// Thread rules: a value type.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

namespace kel {

enum class RemoteNotificationFetchResult : std::uint8_t { noData, newData };

// "noData" or "newData".
constexpr std::string_view description(RemoteNotificationFetchResult result) noexcept {
    return result == RemoteNotificationFetchResult::newData ? "newData" : "noData";
}

inline std::ostream& operator<<(std::ostream& stream, RemoteNotificationFetchResult result) {
    return stream << description(result);
}

}  // namespace kel

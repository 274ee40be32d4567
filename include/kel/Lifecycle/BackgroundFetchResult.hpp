// kel::BackgroundFetchResult — what a background fetch produced: no new data or new data.
// Failure is not a case: a failed or timed-out fetch rejects its promise instead.
//
// Thread rules: a value type.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

namespace kel {

enum class BackgroundFetchResult : std::uint8_t { noData, newData };

// "noData" or "newData", as the fetch manager logs it.
constexpr std::string_view description(BackgroundFetchResult result) noexcept {
    return result == BackgroundFetchResult::newData ? "newData" : "noData";
}

inline std::ostream& operator<<(std::ostream& stream, BackgroundFetchResult result) {
    return stream << description(result);
}

}  // namespace kel

// kel::RemoteNotificationPattern — which remote notifications a handler wants.
//
// RemoteNotificationPattern::any matches every notification. RemoteNotificationPattern::
// category(text) matches a payload whose top-level "aps" entry is an object whose "category"
// entry is a string equal to `text` (exact, case-sensitive). Any other payload shape — no
// "aps", an "aps" that is not an object, no "category", a category that is not a string, or a
// payload that is not an object at all — does not match; it is never an error.
//
// Thread rules: a value type; matches() may be called from any thread.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <utility>

#include "kel/Export.hpp"

namespace kel {

class KEL_EXPORT RemoteNotificationPattern {
  public:
    static const RemoteNotificationPattern any;
    static RemoteNotificationPattern category(std::string text) {
        return RemoteNotificationPattern(std::move(text));
    }

    // The category to match, or none for `any`.
    const std::optional<std::string>& categoryText() const noexcept { return category_; }

    bool matches(const nlohmann::json& userInfo) const;

    friend bool operator==(const RemoteNotificationPattern&,
                           const RemoteNotificationPattern&) = default;

  private:
    explicit RemoteNotificationPattern(std::optional<std::string> category)
        : category_(std::move(category)) {}

    std::optional<std::string> category_;
};

inline const RemoteNotificationPattern RemoteNotificationPattern::any{std::nullopt};

}  // namespace kel

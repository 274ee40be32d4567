#include "kel/Lifecycle/RemoteNotificationPattern.hpp"

#include <nlohmann/json.hpp>

namespace kel {

bool RemoteNotificationPattern::matches(const nlohmann::json& userInfo) const {
    if (!category_) {
        return true;
    }
    if (!userInfo.is_object()) {
        return false;
    }
    const auto aps = userInfo.find("aps");
    if (aps == userInfo.end() || !aps->is_object()) {
        return false;
    }
    const auto category = aps->find("category");
    if (category == aps->end() || !category->is_string()) {
        return false;
    }
    return category->get_ref<const std::string&>() == *category_;
}

}  // namespace kel

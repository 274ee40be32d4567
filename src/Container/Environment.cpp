#include "kel/Container/Environment.hpp"

namespace kel {

std::string ContainerTestSuite::description() const {
    if (contains(all)) {
        return "all";
    }
    if (contains(automation)) {
        return "automation";
    }
    if (contains(performance)) {
        return "performance";
    }
    return "unknown";
}

std::string ContainerEnvironment::description() const {
    if (!suite_) {
        return "normal";
    }
    return "testing (" + suite_->description() + ")";
}

}  // namespace kel

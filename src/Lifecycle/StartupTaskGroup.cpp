#include "kel/Lifecycle/StartupTaskGroup.hpp"

namespace kel {

const StartupTaskGroup& StartupTaskGroup::default_() {
    static const StartupTaskGroup group("default");
    return group;
}

const StartupTaskGroup& StartupTaskGroup::all() {
    static const StartupTaskGroup group("all");
    return group;
}

}  // namespace kel

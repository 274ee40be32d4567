#include "kel/Extensions/KFCapabilities.hpp"

#include <mutex>

namespace kel {

namespace {

// The device-property query for "plumo-internal-install". Linux has no device-property
// service to ask, so no installation counts as internal.
bool queryInternalInstall() {
    return false;
}

}  // namespace

bool KFCapabilities::isInternalBuild() {
    static std::once_flag once;
    static bool answer = false;  // written once under `once`, read-only afterwards
    std::call_once(once, [] { answer = queryInternalInstall(); });
    return answer;
}

}  // namespace kel

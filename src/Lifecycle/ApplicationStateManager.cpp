#include "kel/Lifecycle/ApplicationStateManager.hpp"

namespace kel {

std::shared_ptr<Disposable> ApplicationStateManager::add(
    const std::shared_ptr<ApplicationStateMonitor>& monitor) {
    return monitors_.add(monitor);
}

void ApplicationStateManager::remove(const ApplicationStateMonitor& monitor) {
    monitors_.removeFirst(&monitor);
}

void ApplicationStateManager::applicationDidFinishLaunching(
    const std::optional<ApplicationStateLaunchOptions>& options) {
    monitors_.forEachLive([&options](ApplicationStateMonitor& monitor, auto&) {
        monitor.applicationDidFinishLaunching(options);
    });
    monitors_.prune();
}

void ApplicationStateManager::didBecomeActive() {
    monitors_.forEachLive(
        [](ApplicationStateMonitor& monitor, auto&) { monitor.applicationDidBecomeActive(); });
}

void ApplicationStateManager::willEnterForeground() {
    monitors_.forEachLive(
        [](ApplicationStateMonitor& monitor, auto&) { monitor.applicationWillEnterForeground(); });
}

void ApplicationStateManager::didEnterBackground() {
    monitors_.forEachLive(
        [](ApplicationStateMonitor& monitor, auto&) { monitor.applicationDidEnterBackground(); });
}

}  // namespace kel

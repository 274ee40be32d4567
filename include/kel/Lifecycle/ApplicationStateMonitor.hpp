// kel::ApplicationStateMonitor — the interface of objects that want to hear the application's
// life-cycle moments from an ApplicationStateManager.
//
// Every operation does nothing by default, so a monitor overrides only what it needs.
//
// Thread rules: the manager calls monitors synchronously on the thread that notifies it (the
// main thread), one after another.
// Ownership: monitors are owned by the application (std::shared_ptr) and held weakly by the
// manager; registering never keeps a monitor alive.
#pragma once

#include <optional>

#include "kel/Export.hpp"
#include "kel/Lifecycle/ApplicationStateLaunchOptionKey.hpp"

namespace kel {

class KEL_EXPORT ApplicationStateMonitor {
  public:
    virtual ~ApplicationStateMonitor() = default;

    virtual void applicationDidBecomeActive() {}
    virtual void applicationWillEnterForeground() {}
    virtual void applicationDidEnterBackground() {}
    // `options` is what the application was launched with, or none.
    virtual void applicationDidFinishLaunching(
        [[maybe_unused]] const std::optional<ApplicationStateLaunchOptions>& options) {}

  protected:
    ApplicationStateMonitor() = default;
    ApplicationStateMonitor(const ApplicationStateMonitor&) = default;
    ApplicationStateMonitor& operator=(const ApplicationStateMonitor&) = default;
};

}  // namespace kel

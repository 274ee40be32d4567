// kel::ApplicationStateManager — fans the application's life-cycle moments (launch finished,
// became active, will enter the foreground, entered the background) out to its monitors.
//
// The application's delegate code calls the four notification operations; the manager calls
// each registered monitor's matching operation, in registration order. Every notification
// dispatches over the registrations as they stood when it began: a monitor that adds or removes
// registrations while being called changes the next notification, not this one. A registration
// whose keep-alive object died (or was cleared) or whose monitor died is skipped, never called.
// Only applicationDidFinishLaunching prunes: afterwards the list keeps just the registrations
// whose keep-alive object lives. The other notifications never shrink it.
//
// Thread rules: a main-thread object; no lock. Monitors are called synchronously on the caller's
// thread.
// Ownership: holds monitors weakly; owns its registration tokens, which it also hands out.
#pragma once

#include <memory>
#include <optional>

#include "kel/Export.hpp"
#include "kel/Lifecycle/ApplicationStateLaunchOptionKey.hpp"
#include "kel/Lifecycle/ApplicationStateMonitor.hpp"
#include "kel/Lifecycle/Disposable.hpp"
#include "kel/Lifecycle/detail/WeakRegistry.hpp"

namespace kel {

class KEL_EXPORT ApplicationStateManager {
  public:
    ApplicationStateManager() = default;
    ApplicationStateManager(const ApplicationStateManager&) = delete;
    ApplicationStateManager& operator=(const ApplicationStateManager&) = delete;

    // Registers `monitor` (its own keep-alive object until the token says otherwise) and
    // returns the registration's token. Adding a monitor twice makes it be called twice.
    std::shared_ptr<Disposable> add(const std::shared_ptr<ApplicationStateMonitor>& monitor);

    // Removes the first registration whose monitor is this very object; nothing if none is.
    void remove(const ApplicationStateMonitor& monitor);

    // Passes `options` through to every monitor unchanged, then prunes.
    void applicationDidFinishLaunching(
        const std::optional<ApplicationStateLaunchOptions>& options = std::nullopt);
    void didBecomeActive();
    void willEnterForeground();
    void didEnterBackground();

  private:
    detail::WeakRegistry<ApplicationStateMonitor> monitors_;
};

}  // namespace kel

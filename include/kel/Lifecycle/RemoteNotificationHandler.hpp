// kel::RemoteNotificationHandler — the interface of objects that handle remote notifications
// routed to them by a RemoteNotificationManager.
//
// handleRemoteNotification receives the notification's payload (a JSON object, as the platform
// delivers it) and answers with a promise of what the handling produced.
//
// Thread rules: called synchronously on the thread that hands the notification to the manager
// (the main thread); the promise may settle on any thread.
// Ownership: handlers are owned by the application (std::shared_ptr) and held weakly by the
// manager.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "kel/Export.hpp"
#include "kel/Lifecycle/RemoteNotificationFetchResult.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel {

class KEL_EXPORT RemoteNotificationHandler {
  public:
    virtual ~RemoteNotificationHandler() = default;

    virtual Promise<RemoteNotificationFetchResult> handleRemoteNotification(
        const nlohmann::json& userInfo) = 0;

  protected:
    RemoteNotificationHandler() = default;
    RemoteNotificationHandler(const RemoteNotificationHandler&) = default;
    RemoteNotificationHandler& operator=(const RemoteNotificationHandler&) = default;
};

}  // namespace kel

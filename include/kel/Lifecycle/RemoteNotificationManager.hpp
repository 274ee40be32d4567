// kel::RemoteNotificationManager — routes remote-notification payloads to the handlers registered
// for them and reduces their answers to one fetch result; holds back work until a handler
// exists.
//
//   add(handler, pattern)        registers a handler (no duplicate check), then runs the queued
//                                whenActive blocks in order, and returns the token
//   whenActive(block)            runs block at once if any registration exists (in force or
//                                not), otherwise queues it for the next add
//   handleRemoteNotification(p)  calls every registration in force whose handler lives and whose
//                                pattern matches p, in registration order, over the list as it
//                                stood when the call began; then prunes the registrations whose
//                                keep-alive object died; answers newData if any handler answered
//                                newData, otherwise noData (also with no handler at all)
// The answers are joined with `when`: the result settles once every handler's promise has, on a
// thread of the library's pool, and a rejection is a WhenError holding every handler's error in
// registration order.
//
// Thread rules: a main-thread object; no lock. Handlers and blocks run synchronously on the
// caller's thread.
// Ownership: holds handlers weakly; owns its registration tokens and its queued blocks.
#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "kel/Export.hpp"
#include "kel/Lifecycle/Disposable.hpp"
#include "kel/Lifecycle/RemoteNotificationFetchResult.hpp"
#include "kel/Lifecycle/RemoteNotificationHandler.hpp"
#include "kel/Lifecycle/RemoteNotificationPattern.hpp"
#include "kel/Lifecycle/detail/WeakRegistry.hpp"
#include "kel/Platform/Task.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel {

class KEL_EXPORT RemoteNotificationManager {
  public:
    RemoteNotificationManager() = default;
    RemoteNotificationManager(const RemoteNotificationManager&) = delete;
    RemoteNotificationManager& operator=(const RemoteNotificationManager&) = delete;

    std::shared_ptr<Disposable> add(const std::shared_ptr<RemoteNotificationHandler>& handler,
                                    RemoteNotificationPattern pattern);
    void whenActive(Task block);
    Promise<RemoteNotificationFetchResult> handleRemoteNotification(const nlohmann::json& userInfo);

  private:
    detail::WeakRegistry<RemoteNotificationHandler, RemoteNotificationPattern> handlers_;
    std::vector<Task> whenActiveBlocks_;
};

}  // namespace kel

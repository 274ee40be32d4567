#include "kel/Lifecycle/RemoteNotificationManager.hpp"

#include <algorithm>
#include <utility>

#include "kel/Promises/When.hpp"

namespace kel {

std::shared_ptr<Disposable> RemoteNotificationManager::add(
    const std::shared_ptr<RemoteNotificationHandler>& handler, RemoteNotificationPattern pattern) {
    auto token = handlers_.add(handler, std::move(pattern));
    // Taken out first: a block may queue or run further blocks, or register again.
    std::vector<Task> blocks = std::exchange(whenActiveBlocks_, {});
    for (Task& block : blocks) {
        block();
    }
    return token;
}

void RemoteNotificationManager::whenActive(Task block) {
    if (!handlers_.empty()) {
        block();
        return;
    }
    whenActiveBlocks_.push_back(std::move(block));
}

Promise<RemoteNotificationFetchResult> RemoteNotificationManager::handleRemoteNotification(
    const nlohmann::json& userInfo) {
    using Result = RemoteNotificationFetchResult;
    std::vector<Promise<Result>> answers;
    handlers_.forEachLive(
        [&](RemoteNotificationHandler& handler, const RemoteNotificationPattern& pattern) {
            if (pattern.matches(userInfo)) {
                answers.push_back(handler.handleRemoteNotification(userInfo));
            }
        });
    handlers_.prune();
    return when(zalgo(), answers).then(zalgo(), [](const std::vector<Result>& results) {
        return std::ranges::find(results, Result::newData) != results.end() ? Result::newData
                                                                            : Result::noData;
    });
}

}  // namespace kel

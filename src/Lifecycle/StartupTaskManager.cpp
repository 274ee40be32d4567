#include "kel/Lifecycle/StartupTaskManager.hpp"

#include <utility>

#include "kel/Platform/FatalError.hpp"

namespace kel {

namespace {

// Settles `deferred` as `promise` settles, at once on the settling thread: fulfilled with it,
// or rejected with its error.
template <class T>
void settleWhenDone(const Promise<T>& promise, const DeferredPromise<void>& deferred) {
    promise.then(zalgo(), [resolve = deferred.resolve](const auto&) { resolve(); });
    promise.error(zalgo(), [reject = deferred.reject](const Error& error) { reject(error); });
}

}  // namespace

void StartupTaskManager::onStartup(std::unique_ptr<StartupTaskType> task) {
    KEL_PRECONDITION(state_ == State::notStarted);
    StartupTaskGroup group = task->group();
    tasksByGroup_[std::move(group)].push_back(std::move(task));
}

Promise<void> StartupTaskManager::promise(const StartupTaskGroup& group) {
    return promisesByGroup_.try_emplace(group).first->second.promise;
}

void StartupTaskManager::startAllTasks() {
    KEL_PRECONDITION(state_ == State::notStarted);
    state_ = State::started;

    std::vector<Promise<void>> groupPromises;
    groupPromises.reserve(tasksByGroup_.size());
    for (const auto& [group, tasks] : tasksByGroup_) {
        const DeferredPromise<void>& deferred = promisesByGroup_.try_emplace(group).first->second;
        std::vector<Promise<void>> taskPromises;
        taskPromises.reserve(tasks.size());
        for (const auto& task : tasks) {
            taskPromises.push_back(task->run());
        }
        settleWhenDone(Promise<void>::all(std::move(taskPromises)), deferred);
        groupPromises.push_back(deferred.promise);
    }

    // Groups asked for before the start that have no task fulfil now; `all` among them, when
    // no task names it, so its early request fulfils before the tasks finish.
    // They are gathered first: fulfilling runs callbacks at once, and those may ask for more
    // groups.
    std::vector<DeferredPromise<void>> withoutTasks;
    for (const auto& [group, deferred] : promisesByGroup_) {
        if (!tasksByGroup_.contains(group)) {
            withoutTasks.push_back(deferred);
        }
    }
    for (const DeferredPromise<void>& deferred : withoutTasks) {
        deferred.resolve();
    }

    const DeferredPromise<void>& all =
        promisesByGroup_.try_emplace(StartupTaskGroup::all()).first->second;
    settleWhenDone(Promise<void>::all(std::move(groupPromises)), all);
}

}  // namespace kel

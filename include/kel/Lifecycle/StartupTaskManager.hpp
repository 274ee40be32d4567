// kel::StartupTaskManager — collects an application's start-up tasks by group, starts them all
// in one call, and answers, per group, a promise of that group's completion.
//
//   onStartup(task)     registers a task in its group, in order; only before the start
//   promise(group)      the group's promise, made on first request, the same one afterwards;
//                       StartupTaskGroup::all() stands for every group together
//   startAllTasks()     runs every task once, all groups at once, on the calling thread
//
// A group's promise fulfils when all its tasks have fulfilled and rejects with the first task
// error in registration order (the group's other tasks go on running). The `all` promise joins
// the group promises of the start. Two rules follow from the start's order and are kept on
// purpose: a group asked for before the start that has no task fulfils during startAllTasks(),
// and so does `all` when it was asked for before the start (no task naming `all`) — at once, not
// when the tasks finish. A group with neither tasks nor a request before the start gets, when
// asked afterwards, a promise that never settles.
//
// Registering a task after the start, or starting twice, is a programming error: the process
// stops.
//
// Thread rules: no lock; onStartup, promise and startAllTasks on one thread (the main thread at
// launch). Group promises settle on whichever thread settles the deciding task promise.
// Ownership: owns its tasks and its deferred promises for its whole life.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "kel/Export.hpp"
#include "kel/Lifecycle/StartupTaskGroup.hpp"
#include "kel/Lifecycle/StartupTaskType.hpp"
#include "kel/Promises/DeferredPromise.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel {

class KEL_EXPORT StartupTaskManager {
  public:
    enum class State : std::uint8_t { notStarted, started };

    StartupTaskManager() = default;
    StartupTaskManager(const StartupTaskManager&) = delete;
    StartupTaskManager& operator=(const StartupTaskManager&) = delete;

    void onStartup(std::unique_ptr<StartupTaskType> task);
    Promise<void> promise(const StartupTaskGroup& group);
    void startAllTasks();

    State state() const noexcept { return state_; }

  private:
    std::unordered_map<StartupTaskGroup, std::vector<std::unique_ptr<StartupTaskType>>>
        tasksByGroup_;
    std::unordered_map<StartupTaskGroup, DeferredPromise<void>> promisesByGroup_;
    State state_ = State::notStarted;
};

}  // namespace kel

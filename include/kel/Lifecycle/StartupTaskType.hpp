// kel::StartupTaskType — the interface of one piece of work an application does once at launch.
//
// group() names the task's group (StartupTaskGroup::default_() unless overridden); run() begins
// the work and answers with a promise that fulfils when it is done or rejects with its error.
// StartupTaskManager calls run() exactly once, from startAllTasks().
//
// Thread rules: group() and run() are called on the thread that drives the manager; the
// returned promise may settle on any thread.
// Ownership: the manager owns its tasks (std::unique_ptr) until it is destroyed.
#pragma once

#include "kel/Export.hpp"
#include "kel/Lifecycle/StartupTaskGroup.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel {

class KEL_EXPORT StartupTaskType {
  public:
    virtual ~StartupTaskType() = default;

    virtual StartupTaskGroup group() const { return StartupTaskGroup::default_(); }
    virtual Promise<void> run() = 0;

  protected:
    StartupTaskType() = default;
    StartupTaskType(const StartupTaskType&) = default;
    StartupTaskType& operator=(const StartupTaskType&) = default;
};

}  // namespace kel

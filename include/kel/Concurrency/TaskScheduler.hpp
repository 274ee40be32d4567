// kel::TaskScheduler — the library's standard places to run work.
//
// A scheduler named N owns three queues:
//   - concurrentDispatchQueue(): the concurrent dispatch queue "N.TaskScheduler.concurrentDQ"
//     (quality of service default); callbackQueue() answers it;
//   - concurrentOperationQueue(): "N.TaskScheduler.concurrentOQ", no limit on concurrent
//     operations, running on the concurrent dispatch queue;
//   - serialOperationQueue(): "N.TaskScheduler.serialOQ", one operation at a time, in order.
// schedule(...) runs work on the concurrent operation queue; scheduleLowPriority(...) on the
// serial one (low priority here means serialised: one item at a time, in submission order);
// scheduleAfter(seconds, block) adds the block to the concurrent operation queue once the delay
// has passed; promise(operation) runs an AsyncOperation there and answers with its result.
//
// TaskScheduler::shared() is the scheduler named "default", created once, thread-safely, on first
// use and never destroyed (pool threads may still use it while the process exits). The
// class-wide forms of the operations act on it: TaskScheduler::sharedSchedule(...),
// sharedScheduleLowPriority, sharedScheduleAfter and sharedPromise. C++ does not allow a static
// and a member function with the same name and parameters, so they carry the "shared" prefix;
// TaskScheduler::shared().schedule(...) is the same call.
//
// Thread rules: every operation may be called from any thread.
// Ownership: shared-owned (std::make_shared); the scheduler owns its queues. Queued work keeps
// its queue alive, so releasing a scheduler does not drop work already scheduled.
//
// Example:
//
//     auto scheduler = std::make_shared<kel::TaskScheduler>("sync");
//     scheduler->schedule([] { refreshIndex(); });         // concurrently, on the pool
//     scheduler->scheduleLowPriority([] { writeLog(1); });  // one at a time, in order...
//     scheduler->scheduleLowPriority([] { writeLog(2); });  // ...so 2 runs after 1 ends
//     scheduler->scheduleAfter(5.0, [] { retry(); });       // not before 5 s from now
//     kel::TaskScheduler::shared().promise(std::make_shared<FetchOperation>())
//         .then(scheduler->callbackQueue(), [](const Feed& feed) { show(feed); });
//
// Guarantees: everything a thread does before it schedules work happens-before that work
// starts. Low-priority work runs one item at a time in submission order (among submissions
// from one thread, or ordered by happens-before), and each item's effects happen-before the
// next item starts. schedule() promises no order among its items: they may run in parallel
// and in any order. scheduleAfter() never runs its block before the delay has passed (measured
// on the monotonic clock from the call); it may run later, by timer and pool latency. A
// promise from promise() settles after the operation's result is set, so the continuation
// sees everything the operation did.
#pragma once

#include <concepts>
#include <memory>
#include <string>
#include <utility>

#include "kel/Concurrency/AsyncOperation.hpp"
#include "kel/Export.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/Operation.hpp"
#include "kel/Platform/OperationQueue.hpp"
#include "kel/Platform/Task.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel {

class KEL_EXPORT TaskScheduler {
  public:
    explicit TaskScheduler(const std::string& name);

    TaskScheduler(const TaskScheduler&) = delete;
    TaskScheduler& operator=(const TaskScheduler&) = delete;

    // The scheduler named "default".
    static TaskScheduler& shared();

    void schedule(std::shared_ptr<Operation> operation) const;
    void schedule(Task block) const;
    void scheduleLowPriority(std::shared_ptr<Operation> operation) const;
    void scheduleLowPriority(Task block) const;
    // Adds block to the concurrent operation queue no earlier than seconds from now.
    void scheduleAfter(double seconds, Task block) const;

    // Runs operation on the concurrent operation queue. The promise is fulfilled with the
    // operation's value, rejected with its error, and cancelled when the error is an
    // AsyncOperationError (an operation cancelled before it started).
    template <class Op, class T = typename Op::Value>
    Promise<T> promise(std::shared_ptr<Op> operation) const {
        static_assert(std::derived_from<Op, AsyncOperation<T>>, "promise takes an AsyncOperation");
        return Promise<T>::fromOperation(std::shared_ptr<AsyncOperation<T>>(std::move(operation)),
                                         [this](std::shared_ptr<AsyncOperation<T>> scheduled) {
                                             schedule(std::move(scheduled));
                                         });
    }

    // The class-wide forms: the same operations on shared().
    static void sharedSchedule(std::shared_ptr<Operation> operation) {
        shared().schedule(std::move(operation));
    }
    static void sharedSchedule(Task block) { shared().schedule(std::move(block)); }
    static void sharedScheduleLowPriority(std::shared_ptr<Operation> operation) {
        shared().scheduleLowPriority(std::move(operation));
    }
    static void sharedScheduleLowPriority(Task block) {
        shared().scheduleLowPriority(std::move(block));
    }
    static void sharedScheduleAfter(double seconds, Task block) {
        shared().scheduleAfter(seconds, std::move(block));
    }
    template <class Op, class T = typename Op::Value>
    static Promise<T> sharedPromise(std::shared_ptr<Op> operation) {
        return shared().promise(std::move(operation));
    }

    // The queue on which callers may run continuations of scheduled work.
    const DispatchQueue& callbackQueue() const { return concurrentDispatchQueue_; }

    const DispatchQueue& concurrentDispatchQueue() const { return concurrentDispatchQueue_; }
    const std::shared_ptr<OperationQueue>& concurrentOperationQueue() const {
        return concurrentOperationQueue_;
    }
    const std::shared_ptr<OperationQueue>& serialOperationQueue() const {
        return serialOperationQueue_;
    }

  private:
    // Set once in the constructor and only read afterwards; the queues synchronise themselves.
    DispatchQueue concurrentDispatchQueue_;
    std::shared_ptr<OperationQueue> concurrentOperationQueue_;
    std::shared_ptr<OperationQueue> serialOperationQueue_;
};

}  // namespace kel

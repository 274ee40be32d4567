// kel::Operation, kel::BlockOperation — units of work with readiness, cancellation and
// completion, run by an OperationQueue (or started by hand).
//
// An operation is ready once every dependency has finished (or once it is cancelled, so that a
// queue can clear it out). start() runs main() on the calling thread and then reports the
// operation finished. Asynchronous subclasses override start(), isAsynchronous(), isExecuting()
// and isFinished(), and announce their state changes with willChangeValueForKey /
// didChangeValueForKey; they may finish later on any thread. Subclasses that keep one state key
// declare it in keyPathsForValuesAffectingIsReady / IsExecuting / IsFinished so that observers
// of "isReady", "isExecuting" and "isFinished" hear its changes. The completion block runs once,
// on the thread that reports the operation finished.
//
// A BlockOperation runs its blocks one after another, in the order they were added.
//
// Thread rules: every member may be called from any thread. An operation may be started once.
//
// Ownership: operations are shared-owned (std::make_shared); an operation holds its
// dependencies strongly and is held by its queue from addOperation until it finishes.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "kel/Export.hpp"
#include "kel/Platform/Cancellable.hpp"
#include "kel/Platform/KeyValueObserving.hpp"
#include "kel/Platform/Task.hpp"
#include "kel/Platform/detail/OperationQueueLink.hpp"

namespace kel {

class Operation;

namespace detail {
class OperationQueueCore;
}  // namespace detail

class KEL_EXPORT Operation : public KeyValueObservable,
                             public Cancellable,
                             public std::enable_shared_from_this<Operation> {
  public:
    // The observable keys of an operation.
    static constexpr std::string_view isReadyKey = "isReady";
    static constexpr std::string_view isExecutingKey = "isExecuting";
    static constexpr std::string_view isFinishedKey = "isFinished";
    static constexpr std::string_view isCancelledKey = "isCancelled";

    Operation();
    ~Operation() override;

    // Runs the operation: finishes at once if cancelled, otherwise runs main() and finishes.
    // Starting an operation twice, or one that is not ready, is a fatal error.
    virtual void start();
    // The work itself; the default does nothing.
    virtual void main();
    // Marks the operation cancelled (it becomes ready); running work checks isCancelled().
    void cancel() override;

    virtual bool isReady() const;
    virtual bool isExecuting() const;
    virtual bool isFinished() const;
    virtual bool isAsynchronous() const;
    bool isCancelled() const noexcept { return cancelled_.load(std::memory_order_acquire); }

    // The operation becomes ready only once operation has finished. The dependent must itself
    // be owned by a std::shared_ptr.
    void addDependency(const std::shared_ptr<Operation>& operation);
    void removeDependency(const std::shared_ptr<Operation>& operation);
    std::vector<std::shared_ptr<Operation>> dependencies() const;

    // Runs once after the operation reports finished, on the thread that finishes it.
    void setCompletionBlock(std::function<void()> block);
    std::function<void()> completionBlock() const;

    std::string name() const;
    void setName(std::string name);

    // Blocks until the operation has finished.
    void waitUntilFinished();

    std::vector<std::string> keyPathsForValuesAffectingValueForKey(
        std::string_view key) const override;
    virtual std::vector<std::string> keyPathsForValuesAffectingIsReady() const { return {}; }
    virtual std::vector<std::string> keyPathsForValuesAffectingIsExecuting() const { return {}; }
    virtual std::vector<std::string> keyPathsForValuesAffectingIsFinished() const { return {}; }

  protected:
    // Keeps the queue holding the operation informed; an override must call this one.
    void changeAnnounced(std::string_view changedKey) override;

  private:
    enum class State : std::uint8_t { pending, executing, finished };
    struct Dependency {
        std::shared_ptr<Operation> operation;
        KeyValueObservation observation;
        std::shared_ptr<std::atomic<bool>> unfinished;  // true until counted as finished
    };

    void dependencyFinished(std::atomic<bool>& unfinished);
    // Moves an executing operation to finished, announcing both keys: the end of start(), and
    // the end of a stand-in that a queue made executing for a block it ran.
    void markFinished();
    void observeOwnFinish();
    void finishedChanged();

    std::atomic<State> state_{State::pending};
    std::atomic<bool> started_{false};
    std::atomic<bool> cancelled_{false};
    std::atomic<int> unfinishedDependencies_{0};
    std::atomic<bool> finishHandled_{false};  // the completion block has been taken

    mutable std::mutex mutex_;  // guards everything below
    std::condition_variable finishedCondition_;
    std::vector<Dependency> dependencies_;
    std::function<void()> completionBlock_;
    std::string name_;
    KeyValueObservation ownFinishObservation_;
    bool observingOwnFinish_ = false;

    // The queue hears the operation's readiness and finish through changeAnnounced rather than
    // through observations; its bookkeeping for the operation lives here.
    detail::OperationQueueLink queueLink_{this};

    friend class detail::OperationQueueCore;
};

class KEL_EXPORT BlockOperation : public Operation {
  public:
    BlockOperation() = default;
    explicit BlockOperation(Task block);

    static std::shared_ptr<BlockOperation> make(Task block) {
        return std::make_shared<BlockOperation>(std::move(block));
    }

    // Adds a block to run after those already added; adding after the start is a fatal error.
    void addExecutionBlock(Task block);

    void main() override;

  private:
    std::mutex mutex_;  // guards firstBlock_ and moreBlocks_
    Task firstBlock_;   // most block operations have one block: kept inline
    std::vector<Task> moreBlocks_;
};

}  // namespace kel

#include "kel/Platform/Operation.hpp"

#include <algorithm>
#include <utility>

#include "Dispatch/WorkerPool.hpp"
#include "OperationQueueCore.hpp"
#include "kel/Platform/FatalError.hpp"

namespace kel {

Operation::Operation() = default;

Operation::~Operation() = default;

void Operation::start() {
    if (started_.exchange(true, std::memory_order_acq_rel)) {
        fatalError("Operation::start called on an operation that has already been started");
    }
    if (isCancelled()) {
        // A cancelled operation finishes without running main().
        willChangeValueForKey(isFinishedKey);
        state_.store(State::finished, std::memory_order_release);
        didChangeValueForKey(isFinishedKey);
        return;
    }
    if (!isReady()) {
        fatalError("Operation::start called on an operation that is not ready");
    }
    willChangeValueForKey(isExecutingKey);
    state_.store(State::executing, std::memory_order_release);
    didChangeValueForKey(isExecutingKey);

    main();
    markFinished();
}

void Operation::main() {}

void Operation::markFinished() {
    willChangeValueForKey(isExecutingKey);
    willChangeValueForKey(isFinishedKey);
    state_.store(State::finished, std::memory_order_release);
    didChangeValueForKey(isExecutingKey);
    didChangeValueForKey(isFinishedKey);
}

void Operation::cancel() {
    if (cancelled_.exchange(true, std::memory_order_acq_rel)) {
        return;  // cancelled before: nothing changes
    }
    // The flag is set first so that only one of several racing cancels announces the change.
    willChangeValueForKey(isCancelledKey);
    willChangeValueForKey(isReadyKey);
    didChangeValueForKey(isCancelledKey);
    didChangeValueForKey(isReadyKey);
}

bool Operation::isReady() const {
    return isCancelled() || unfinishedDependencies_.load(std::memory_order_acquire) == 0;
}

bool Operation::isExecuting() const {
    return state_.load(std::memory_order_acquire) == State::executing;
}

bool Operation::isFinished() const {
    return state_.load(std::memory_order_acquire) == State::finished;
}

bool Operation::isAsynchronous() const {
    return false;
}

void Operation::addDependency(const std::shared_ptr<Operation>& operation) {
    KEL_PRECONDITION(operation != nullptr && operation.get() != this,
                     "Operation::addDependency needs another operation");
    std::weak_ptr<Operation> weakSelf = weak_from_this();
    KEL_PRECONDITION(!weakSelf.expired(),
                     "Operation::addDependency needs an operation owned by a std::shared_ptr");
    auto unfinished = std::make_shared<std::atomic<bool>>(true);
    willChangeValueForKey(isReadyKey);
    unfinishedDependencies_.fetch_add(1, std::memory_order_acq_rel);
    Operation* dependency = operation.get();
    KeyValueObservation observation = operation->observe(
        std::string(isFinishedKey), [weakSelf, dependency, unfinished](std::string_view) {
            if (!dependency->isFinished()) {
                return;
            }
            if (auto self = weakSelf.lock()) {
                self->dependencyFinished(*unfinished);
            }
        });
    {
        std::lock_guard lock(mutex_);
        dependencies_.push_back(Dependency{operation, std::move(observation), unfinished});
    }
    didChangeValueForKey(isReadyKey);
    // The dependency may have finished before the observation was in place.
    if (operation->isFinished()) {
        dependencyFinished(*unfinished);
    }
}

void Operation::removeDependency(const std::shared_ptr<Operation>& operation) {
    Dependency removed;
    {
        std::lock_guard lock(mutex_);
        auto found = std::find_if(dependencies_.begin(), dependencies_.end(),
                                  [&](const Dependency& d) { return d.operation == operation; });
        if (found == dependencies_.end()) {
            return;
        }
        removed = std::move(*found);
        dependencies_.erase(found);
    }
    removed.observation.invalidate();
    dependencyFinished(*removed.unfinished);
}

std::vector<std::shared_ptr<Operation>> Operation::dependencies() const {
    std::lock_guard lock(mutex_);
    std::vector<std::shared_ptr<Operation>> result;
    result.reserve(dependencies_.size());
    for (const auto& dependency : dependencies_) {
        result.push_back(dependency.operation);
    }
    return result;
}

void Operation::dependencyFinished(std::atomic<bool>& unfinished) {
    if (!unfinished.exchange(false, std::memory_order_acq_rel)) {
        return;  // already counted
    }
    willChangeValueForKey(isReadyKey);
    unfinishedDependencies_.fetch_sub(1, std::memory_order_acq_rel);
    didChangeValueForKey(isReadyKey);
}

void Operation::setCompletionBlock(std::function<void()> block) {
    {
        std::lock_guard lock(mutex_);
        completionBlock_ = std::move(block);
    }
    observeOwnFinish();
}

std::function<void()> Operation::completionBlock() const {
    std::lock_guard lock(mutex_);
    return completionBlock_;
}

std::string Operation::name() const {
    std::lock_guard lock(mutex_);
    return name_;
}

void Operation::setName(std::string name) {
    std::lock_guard lock(mutex_);
    name_ = std::move(name);
}

void Operation::waitUntilFinished() {
    observeOwnFinish();
    detail::BlockingScope blocking;
    std::unique_lock lock(mutex_);
    finishedCondition_.wait(lock, [this] { return isFinished(); });
}

// The operation hears its own "isFinished" (through whatever keys a subclass made it depend
// on) once something needs it: the completion block or a waiter. Installed lazily because
// a subclass's dependent keys are only known once it is fully constructed.
void Operation::observeOwnFinish() {
    {
        std::lock_guard lock(mutex_);
        if (observingOwnFinish_) {
            return;
        }
        observingOwnFinish_ = true;
        ownFinishObservation_ =
            observe(std::string(isFinishedKey), [this](std::string_view) { finishedChanged(); });
    }
    finishedChanged();  // it may have finished already
}

void Operation::finishedChanged() {
    if (!isFinished()) {
        return;
    }
    std::function<void()> completion;
    {
        std::lock_guard lock(mutex_);
        finishedCondition_.notify_all();
        if (finishHandled_.exchange(true, std::memory_order_acq_rel)) {
            return;
        }
        completion = std::move(completionBlock_);
        completionBlock_ = nullptr;
    }
    if (completion) {
        completion();
    }
}

std::vector<std::string> Operation::keyPathsForValuesAffectingValueForKey(
    std::string_view key) const {
    if (key == isReadyKey) {
        return keyPathsForValuesAffectingIsReady();
    }
    if (key == isExecutingKey) {
        return keyPathsForValuesAffectingIsExecuting();
    }
    if (key == isFinishedKey) {
        return keyPathsForValuesAffectingIsFinished();
    }
    return KeyValueObservable::keyPathsForValuesAffectingValueForKey(key);
}

namespace {

bool affects(std::string_view changedKey, std::string_view key,
             const std::vector<std::string>& dependentKeys) {
    return changedKey == key ||
           std::find(dependentKeys.begin(), dependentKeys.end(), changedKey) != dependentKeys.end();
}

}  // namespace

// Tells the queue holding the operation about changes of its readiness and finish. The
// announcement has synchronised with OperationQueueCore::add before this reads the link's hooked
// flag.
void Operation::changeAnnounced(std::string_view changedKey) {
    if (!queueLink_.hooked.load(std::memory_order_acquire)) {
        return;
    }
    detail::OperationQueueCore& queue = *queueLink_.queue;
    if (affects(changedKey, isFinishedKey, queueLink_.finishedKeys) && isFinished()) {
        // The queue's reference is released on return, after the queue is done with it.
        if (std::shared_ptr<Operation> released = queue.operationFinished(*this)) {
            return;
        }
    }
    if (affects(changedKey, isReadyKey, queueLink_.readyKeys)) {
        queue.pump();
    }
}

BlockOperation::BlockOperation(Task block) : firstBlock_(std::move(block)) {}

void BlockOperation::addExecutionBlock(Task block) {
    KEL_PRECONDITION(!isExecuting() && !isFinished(),
                     "BlockOperation::addExecutionBlock after the operation started");
    std::lock_guard lock(mutex_);
    if (!firstBlock_ && moreBlocks_.empty()) {
        firstBlock_ = std::move(block);
    } else {
        moreBlocks_.push_back(std::move(block));
    }
}

void BlockOperation::main() {
    Task first;
    std::vector<Task> more;
    {
        std::lock_guard lock(mutex_);
        first = std::move(firstBlock_);
        more.swap(moreBlocks_);
    }
    if (first) {
        first();
    }
    for (Task& block : more) {
        if (block) {
            block();
        }
    }
}

}  // namespace kel

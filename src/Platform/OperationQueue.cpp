#include "kel/Platform/OperationQueue.hpp"

#include <condition_variable>
#include <list>
#include <mutex>
#include <utility>

#include "DispatchRuntime.hpp"
#include "kel/Platform/FatalError.hpp"

namespace kel {
namespace detail {

class OperationQueueCore : public std::enable_shared_from_this<OperationQueueCore> {
  public:
    struct Entry {
        enum class Phase : std::uint8_t { waiting, started, finished };

        explicit Entry(std::shared_ptr<Operation> op) : operation(std::move(op)) {}

        std::shared_ptr<Operation> operation;
        // The fields below are guarded by the core's mutex_.
        Phase phase = Phase::waiting;
        std::list<std::shared_ptr<Entry>>::iterator position;
        KeyValueObservation readyObservation;
        KeyValueObservation finishedObservation;
    };

    void add(std::shared_ptr<Operation> operation);
    void pump();
    void finishedChanged(const std::shared_ptr<Entry>& entry);
    std::vector<std::shared_ptr<Operation>> operations() const;
    void waitUntilEmpty();

    mutable std::mutex mutex_;  // guards everything below and the entries' mutable fields
    std::condition_variable emptied_;
    std::string name_ = "kel.OperationQueue";
    int limit_ = OperationQueue::defaultMaxConcurrentOperationCount;
    std::optional<DispatchQueue> underlying_;
    std::optional<DispatchQueue> ownQueue_;  // made on first use, labelled with name_
    bool suspended_ = false;
    std::list<std::shared_ptr<Entry>> waiting_;  // not started yet, in the order added
    std::list<std::shared_ptr<Entry>> started_;  // started, not finished yet
};

void OperationQueueCore::add(std::shared_ptr<Operation> operation) {
    KEL_PRECONDITION(operation != nullptr, "OperationQueue::addOperation needs an operation");
    KEL_PRECONDITION(!operation->isExecuting() && !operation->isFinished(),
                     "OperationQueue::addOperation: the operation has already run");
    KEL_PRECONDITION(!operation->enqueued_.exchange(true, std::memory_order_acq_rel),
                     "OperationQueue::addOperation: the operation is already in a queue");
    auto entry = std::make_shared<Entry>(std::move(operation));
    {
        std::lock_guard lock(mutex_);
        waiting_.push_back(entry);
        entry->position = std::prev(waiting_.end());
        // The observations keep this core alive while the operation is in it, so a queue
        // released by its owner still runs what was added.
        auto self = shared_from_this();
        entry->finishedObservation = entry->operation->observe(
            std::string(Operation::isFinishedKey),
            [self, entry](std::string_view) { self->finishedChanged(entry); });
        entry->readyObservation = entry->operation->observe(
            std::string(Operation::isReadyKey), [self](std::string_view) { self->pump(); });
    }
    if (entry->operation->isFinished()) {
        finishedChanged(entry);  // finished (started elsewhere) before it was observed
    }
    pump();
}

void OperationQueueCore::pump() {
    std::vector<std::shared_ptr<Entry>> toStart;
    DispatchQueue* queue = nullptr;
    {
        std::lock_guard lock(mutex_);
        if (suspended_) {
            return;
        }
        auto it = waiting_.begin();
        while (it != waiting_.end() &&
               (limit_ < 0 || started_.size() < static_cast<std::size_t>(limit_))) {
            std::shared_ptr<Entry> entry = *it;
            if (!entry->operation->isReady()) {
                ++it;
                continue;
            }
            entry->phase = Entry::Phase::started;
            started_.push_back(entry);
            toStart.push_back(entry);
            it = waiting_.erase(it);
            entry->position = std::prev(started_.end());
        }
        if (toStart.empty()) {
            return;
        }
        if (underlying_) {
            queue = &*underlying_;
        } else {
            if (!ownQueue_) {
                ownQueue_.emplace(name_, DispatchQoS::default_,
                                  DispatchQueue::Attributes::concurrent);
            }
            queue = &*ownQueue_;
        }
        // Copy the handle: the optional may be reassigned once the lock is released.
        DispatchQueue target = *queue;
        for (auto& entry : toStart) {
            target.async([entry = std::move(entry)] { entry->operation->start(); });
        }
    }
}

void OperationQueueCore::finishedChanged(const std::shared_ptr<Entry>& entry) {
    if (!entry->operation->isFinished()) {
        return;
    }
    KeyValueObservation ready;
    KeyValueObservation finished;
    {
        std::lock_guard lock(mutex_);
        if (entry->phase == Entry::Phase::finished) {
            return;
        }
        (entry->phase == Entry::Phase::started ? started_ : waiting_).erase(entry->position);
        entry->phase = Entry::Phase::finished;
        ready = std::move(entry->readyObservation);
        finished = std::move(entry->finishedObservation);
        if (waiting_.empty() && started_.empty()) {
            emptied_.notify_all();
        }
    }
    // Invalidated outside the lock (they take the operation's registry lock).
    ready.invalidate();
    finished.invalidate();
    pump();
}

std::vector<std::shared_ptr<Operation>> OperationQueueCore::operations() const {
    std::vector<std::shared_ptr<Operation>> result;
    std::lock_guard lock(mutex_);
    result.reserve(waiting_.size() + started_.size());
    for (const auto& entry : started_) {
        result.push_back(entry->operation);
    }
    for (const auto& entry : waiting_) {
        result.push_back(entry->operation);
    }
    return result;
}

void OperationQueueCore::waitUntilEmpty() {
    BlockingScope blocking;
    std::unique_lock lock(mutex_);
    emptied_.wait(lock, [this] { return waiting_.empty() && started_.empty(); });
}

}  // namespace detail

OperationQueue::OperationQueue() : core_(std::make_shared<detail::OperationQueueCore>()) {}

OperationQueue::~OperationQueue() = default;

std::string OperationQueue::name() const {
    std::lock_guard lock(core_->mutex_);
    return core_->name_;
}

void OperationQueue::setName(std::string name) {
    std::lock_guard lock(core_->mutex_);
    core_->name_ = std::move(name);
}

int OperationQueue::maxConcurrentOperationCount() const {
    std::lock_guard lock(core_->mutex_);
    return core_->limit_;
}

void OperationQueue::setMaxConcurrentOperationCount(int count) {
    KEL_PRECONDITION(count == -1 || count >= 1,
                     "OperationQueue::maxConcurrentOperationCount must be -1 or at least 1");
    {
        std::lock_guard lock(core_->mutex_);
        core_->limit_ = count;
    }
    core_->pump();
}

std::optional<DispatchQueue> OperationQueue::underlyingQueue() const {
    std::lock_guard lock(core_->mutex_);
    return core_->underlying_;
}

void OperationQueue::setUnderlyingQueue(std::optional<DispatchQueue> queue) {
    std::lock_guard lock(core_->mutex_);
    core_->underlying_ = std::move(queue);
}

void OperationQueue::addOperation(std::shared_ptr<Operation> operation) {
    core_->add(std::move(operation));
}

void OperationQueue::addOperation(Task block) {
    KEL_PRECONDITION(static_cast<bool>(block), "OperationQueue::addOperation needs a block");
    core_->add(BlockOperation::make(std::move(block)));
}

void OperationQueue::addOperations(const std::vector<std::shared_ptr<Operation>>& operations,
                                   bool waitUntilFinished) {
    for (const auto& operation : operations) {
        core_->add(operation);
    }
    if (waitUntilFinished) {
        for (const auto& operation : operations) {
            operation->waitUntilFinished();
        }
    }
}

std::vector<std::shared_ptr<Operation>> OperationQueue::operations() const {
    return core_->operations();
}

std::size_t OperationQueue::operationCount() const {
    std::lock_guard lock(core_->mutex_);
    return core_->waiting_.size() + core_->started_.size();
}

void OperationQueue::cancelAllOperations() {
    for (const auto& operation : core_->operations()) {
        operation->cancel();
    }
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
    core_->waitUntilEmpty();
}

bool OperationQueue::isSuspended() const {
    std::lock_guard lock(core_->mutex_);
    return core_->suspended_;
}

void OperationQueue::setSuspended(bool suspended) {
    {
        std::lock_guard lock(core_->mutex_);
        core_->suspended_ = suspended;
    }
    core_->pump();
}

}  // namespace kel

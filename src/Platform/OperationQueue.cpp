#include "kel/Platform/OperationQueue.hpp"

#include <chrono>
#include <utility>

#include "Dispatch/WorkerPool.hpp"
#include "OperationQueueCore.hpp"
#include "kel/Platform/FatalError.hpp"

namespace kel {
namespace detail {

OperationQueueCore::~OperationQueueCore() {
    // Blocks still waiting when the last owner lets go (a suspended queue) never run. Started
    // ones keep the core alive through their work items, and pending ones through the queued
    // drainer, so none of those is left here.
    for (List* list : {&waiting_, &pending_}) {
        for (QueueEntry* link = list->front(); link != nullptr;) {
            QueueEntry* next = link->nextInList();
            if (link->operation == nullptr) {
                delete static_cast<LightBlock*>(link);
            }
            link = next;
        }
    }
}

void OperationQueueCore::hookLocked(const std::shared_ptr<Operation>& operation,
                                    OperationQueueLink::Phase phase) {
    Operation& op = *operation;
    op.queueLink_.enqueued.store(true, std::memory_order_relaxed);
    op.queueLink_.queue = shared_from_this();
    op.queueLink_.readyKeys = op.keyPathsForValuesAffectingIsReady();
    op.queueLink_.finishedKeys = op.keyPathsForValuesAffectingIsFinished();
    op.queueLink_.hooked.store(true, std::memory_order_release);
    op.queueLink_.phase = phase;
    op.queueLink_.self = operation;
}

void OperationQueueCore::addBlock(Task block) {
    auto* light = new LightBlock;
    light->block = std::move(block);
    std::unique_lock lock(mutex_);
    if (drainsLocked()) {
        pending_.pushBack(*light);
        if (drainersQueued_ != 0) {
            return;  // the queued drainer takes it
        }
        ++drainersQueued_;
        DispatchQueue target = targetLocked();
        lock.unlock();
        dispatchDrainer(std::move(target));
        return;
    }
    if (limit_ >= 0 || suspended_ || !waiting_.empty()) {
        waiting_.pushBack(*light);
        pumpLocked();
        return;
    }
    // Nothing can hold it back: it starts at once. The dispatch happens after the unlock, so
    // that finishing blocks do not wait for the lock while the pool wakes a thread for this one.
    // Blocks from one thread still start in the order added; blocks added at the same moment by
    // several threads had no order to keep.
    started_.pushBack(*light);
    DispatchQueue target = targetLocked();
    lock.unlock();
    target.async([core = shared_from_this(), light] { core->runBlock(light); });
}

void OperationQueueCore::settingsChangedLocked() {
    draining_ = limit_ < 0 && !suspended_ && (!underlying_ || underlying_->isConcurrent());
}

void OperationQueueCore::dispatchDrainer(DispatchQueue target) {
    target.async([core = shared_from_this()] { core->drain(); });
}

LightBlock* OperationQueueCore::takePendingLocked(bool& queueDrainer) {
    QueueEntry* front = pending_.front();
    if (front == nullptr || !drainsLocked()) {
        return nullptr;
    }
    pending_.erase(*front);
    started_.pushBack(*front);
    // The block about to run may block: the rest must not wait for it.
    if (!pending_.empty() && drainersQueued_ == 0) {
        ++drainersQueued_;
        queueDrainer = true;
    }
    return static_cast<LightBlock*>(front);
}

void OperationQueueCore::drain() {
    bool queueDrainer = false;
    LightBlock* light = nullptr;
    std::optional<DispatchQueue> target;
    {
        std::lock_guard lock(mutex_);
        --drainersQueued_;
        light = takePendingLocked(queueDrainer);
        if (queueDrainer) {
            target = targetLocked();
        }
    }
    if (target) {
        dispatchDrainer(std::move(*target));
    }
    if (light != nullptr) {
        runBlock(light);
    }
}

std::shared_ptr<Operation> OperationQueueCore::standInLocked(LightBlock* light, List& list) {
    auto operation = std::make_shared<BlockOperation>();
    // A started block belongs to its worker, which reads it without the lock: only a waiting
    // or pending one is touched here.
    if (&list != &started_) {
        // Not started: the operation takes the block and runs as any other, in the block's
        // place if it was waiting, at the end of the waiting list if it was pending.
        operation->addExecutionBlock(std::move(light->block));
        hookLocked(operation, OperationQueueLink::Phase::waiting);
        if (&list == &waiting_) {
            waiting_.replace(*light, operation->queueLink_.entry);
        } else {
            pending_.erase(*light);
            waiting_.pushBack(operation->queueLink_.entry);
        }
        delete light;
    } else {
        // Running: the operation is executing until runBlock reports it finished. Nobody can
        // have observed it yet, so its state is set without announcements.
        operation->started_.store(true, std::memory_order_relaxed);
        operation->state_.store(Operation::State::executing, std::memory_order_release);
        hookLocked(operation, OperationQueueLink::Phase::started);
        started_.replace(*light, operation->queueLink_.entry);
        light->standIn = operation;
    }
    return operation;
}

void OperationQueueCore::runBlock(LightBlock* light) {
    // A worker that finishes a block goes on with the next block itself, when that is what the
    // queue would start next (the next waiting block of a limited queue, the next pending one
    // of a draining queue), instead of dispatching it to another worker: blocks then cost one
    // dispatch per batch, not per block. Batches are bounded in count and in time, so that a
    // long queue does not keep the worker from the rest of the pool's work, and the worker
    // finishes a pool item well within the pool's starvation interval.
    constexpr int batchLimit = 128;
    constexpr auto batchTime = std::chrono::microseconds(500);
    const auto batchEnd = std::chrono::steady_clock::now() + batchTime;
    for (int batch = 1;; ++batch) {
        {
            Task block = std::move(light->block);
            block();
        }  // what the block captured is released before it is reported finished
        const bool batchOpen =
            batch < batchLimit && (batch % 8 != 0 || std::chrono::steady_clock::now() < batchEnd);
        std::shared_ptr<Operation> standIn;
        LightBlock* next = nullptr;
        bool queueDrainer = false;
        std::optional<DispatchQueue> drainerTarget;
        {
            std::lock_guard lock(mutex_);
            if (light->standIn) {
                standIn = std::move(light->standIn);
            } else {
                started_.erase(*light);
                QueueEntry* front = waiting_.front();
                if (emptyLocked()) {
                    emptied_.notify_all();
                } else {
                    // A closed batch leaves pending blocks to the drainer queued for them.
                    if (batchOpen && drainsLocked()) {
                        next = takePendingLocked(queueDrainer);
                        if (queueDrainer) {
                            drainerTarget = targetLocked();
                        }
                    } else if (batchOpen && !suspended_ && front != nullptr &&
                               front->operation == nullptr &&
                               (limit_ < 0 || started_.size() < static_cast<std::size_t>(limit_))) {
                        waiting_.erase(*front);
                        started_.pushBack(*front);
                        next = static_cast<LightBlock*>(front);
                    }
                    pumpLocked();
                }
            }
        }
        delete light;
        if (drainerTarget) {
            dispatchDrainer(std::move(*drainerTarget));
        }
        if (standIn) {
            standIn->markFinished();
        }
        if (next == nullptr) {
            return;
        }
        light = next;
    }
}

void OperationQueueCore::add(std::shared_ptr<Operation> operation) {
    KEL_PRECONDITION(operation != nullptr, "OperationQueue::addOperation needs an operation");
    KEL_PRECONDITION(!operation->isExecuting() && !operation->isFinished(),
                     "OperationQueue::addOperation: the operation has already run");
    KEL_PRECONDITION(!operation->queueLink_.enqueued.exchange(true, std::memory_order_acq_rel),
                     "OperationQueue::addOperation: the operation is already in a queue");
    // Only this queue writes these, once; the subclass is fully constructed by now, so its
    // dependent keys are known.
    Operation& op = *operation;
    op.queueLink_.queue = shared_from_this();
    op.queueLink_.readyKeys = op.keyPathsForValuesAffectingIsReady();
    op.queueLink_.finishedKeys = op.keyPathsForValuesAffectingIsFinished();
    op.queueLink_.hooked.store(true, std::memory_order_relaxed);
    // Either a concurrent announcement sees queueLink_.hooked, or the checks below see its change.
    op.synchronizeWithAnnouncements();
    std::unique_lock lock(mutex_);
    op.queueLink_.phase = OperationQueueLink::Phase::waiting;
    op.queueLink_.self = std::move(operation);
    waiting_.pushBack(op.queueLink_.entry);
    // Announcements made before the operation was in the lists were ignored: a finish among
    // them is caught here, a readiness change by the start pass below.
    if (!op.isFinished()) {
        pumpLocked();
        return;
    }
    lock.unlock();
    // Holds the queue's reference until operationFinished has returned.
    std::shared_ptr<Operation> released = operationFinished(op);
}

void OperationQueueCore::pump() {
    std::lock_guard lock(mutex_);
    pumpLocked();
}

DispatchQueue& OperationQueueCore::targetLocked() {
    if (underlying_) {
        return *underlying_;
    }
    if (!ownQueue_) {
        ownQueue_.emplace(name_, DispatchQoS::default_, DispatchQueue::Attributes::concurrent);
    }
    return *ownQueue_;
}

void OperationQueueCore::pumpLocked() {
    if (!pending_.empty() && !drainsLocked()) {
        // The queue no longer drains: its pending blocks wait, first in line, as other blocks.
        waiting_.prependAll(pending_);
    }
    if (suspended_) {
        return;
    }
    DispatchQueue* target = nullptr;
    QueueEntry* next = waiting_.front();
    while (next != nullptr && (limit_ < 0 || started_.size() < static_cast<std::size_t>(limit_))) {
        QueueEntry& link = *next;
        next = link.nextInList();
        Operation* op = link.operation;
        if (op != nullptr && !op->isReady()) {
            continue;
        }
        waiting_.erase(link);
        started_.pushBack(link);
        if (target == nullptr) {
            target = &targetLocked();
        }
        // Dispatched under the lock so that operations start in the order they were taken.
        if (op != nullptr) {
            op->queueLink_.phase = OperationQueueLink::Phase::started;
            target->async([operation = op->queueLink_.self] { operation->start(); });
        } else {
            target->async([core = shared_from_this(), light = static_cast<LightBlock*>(&link)] {
                core->runBlock(light);
            });
        }
    }
}

std::shared_ptr<Operation> OperationQueueCore::operationFinished(Operation& operation) {
    std::lock_guard lock(mutex_);
    switch (operation.queueLink_.phase) {
        case OperationQueueLink::Phase::waiting:
            waiting_.erase(operation.queueLink_.entry);
            break;
        case OperationQueueLink::Phase::started:
            started_.erase(operation.queueLink_.entry);
            break;
        case OperationQueueLink::Phase::none:
        case OperationQueueLink::Phase::finished:
            return nullptr;
    }
    operation.queueLink_.phase = OperationQueueLink::Phase::finished;
    operation.queueLink_.hooked.store(false, std::memory_order_relaxed);
    std::shared_ptr<Operation> released = std::move(operation.queueLink_.self);
    if (emptyLocked()) {
        emptied_.notify_all();
    } else {
        pumpLocked();
    }
    return released;
}

std::vector<std::shared_ptr<Operation>> OperationQueueCore::operations() {
    std::vector<std::shared_ptr<Operation>> result;
    std::lock_guard lock(mutex_);
    result.reserve(waiting_.size() + started_.size() + pending_.size());
    // Pending blocks come last: their operations join the end of the waiting list.
    const bool hadPending = !pending_.empty();
    for (List* list : {&started_, &waiting_, &pending_}) {
        for (QueueEntry* link = list->front(); link != nullptr;) {
            QueueEntry* next = link->nextInList();
            result.push_back(link->operation != nullptr
                                 ? link->operation->queueLink_.self
                                 : standInLocked(static_cast<LightBlock*>(link), *list));
            link = next;
        }
    }
    if (hadPending) {
        pumpLocked();  // they are ready: start them as operations
    }
    return result;
}

void OperationQueueCore::waitUntilEmpty() {
    BlockingScope blocking;
    std::unique_lock lock(mutex_);
    emptied_.wait(lock, [this] { return emptyLocked(); });
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
        core_->settingsChangedLocked();
    }
    core_->pump();
}

std::optional<DispatchQueue> OperationQueue::underlyingQueue() const {
    std::lock_guard lock(core_->mutex_);
    return core_->underlying_;
}

void OperationQueue::setUnderlyingQueue(std::optional<DispatchQueue> queue) {
    {
        std::lock_guard lock(core_->mutex_);
        core_->underlying_ = std::move(queue);
        core_->settingsChangedLocked();
    }
    core_->pump();  // a serial target ends draining
}

void OperationQueue::addOperation(std::shared_ptr<Operation> operation) {
    core_->add(std::move(operation));
}

void OperationQueue::addOperation(Task block) {
    KEL_PRECONDITION(static_cast<bool>(block), "OperationQueue::addOperation needs a block");
    core_->addBlock(std::move(block));
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
    return core_->waiting_.size() + core_->started_.size() + core_->pending_.size();
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
        core_->settingsChangedLocked();
    }
    core_->pump();
}

}  // namespace kel

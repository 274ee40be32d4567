#include "QueueCore.hpp"

#include <exception>
#include <utility>

#include "Runtime.hpp"
#include "ThreadName.hpp"
#include "kel/Platform/FatalError.hpp"
#include "kel/Platform/MainThread.hpp"

namespace kel::detail {

namespace {

// Items one pool worker runs from a serial queue before giving the thread to other queues.
constexpr int drainBatch = 64;

}  // namespace

QueueCore::QueueCore(std::string label_, DispatchQoS qos_, QueueKind kind_,
                     std::shared_ptr<QueueCore> target_)
    : label(std::move(label_)), qos(qos_), kind(kind_), target(std::move(target_)) {}

void QueueCore::async(Task work) {
    switch (kind) {
        case QueueKind::main:
            runtime().mainLoop.push(std::move(work));
            return;
        case QueueKind::concurrent:
            if (target) {
                target->async([self = shared_from_this(), work = std::move(work)]() mutable {
                    CurrentQueueScope scope(self.get());
                    runWork(work);
                });
            } else {
                runtime().pool.push(WorkerPool::Item{std::move(work), shared_from_this()});
            }
            return;
        case QueueKind::serial: {
            bool becameOwner;
            {
                std::lock_guard lock(mutex_);
                items_.push(SerialItem{std::move(work), nullptr});
                becameOwner = countPushedLocked();
            }
            if (becameOwner) {
                scheduleDrain();
            }
            return;
        }
    }
}

void QueueCore::runPoolItem(WorkerPool::Item& item) noexcept {
    if (!item.task) {
        item.queue->drain();
        return;
    }
    nameThread(item.queue->label);
    CurrentQueueScope scope(item.queue.get());
    runWork(item.task);
}

void QueueCore::deliverTimer(const std::shared_ptr<QueueCore>& queue, Task work) {
    queue->async(std::move(work));
}

bool QueueCore::countPushedLocked() noexcept {
    std::uint64_t old = state_.load(std::memory_order_relaxed);
    while (!state_.compare_exchange_weak(old, (old + itemUnit) | ownedBit,
                                         std::memory_order_acq_rel)) {
    }
    return (old & ownedBit) == 0;
}

void QueueCore::scheduleDrain() {
    if (target) {
        target->async([self = shared_from_this()] { self->drain(); });
    } else {
        runtime().pool.push(WorkerPool::Item{Task(), shared_from_this()});
    }
}

void QueueCore::drain() {
    nameThread(label);
    CurrentQueueScope scope(this);
    // Items are taken a few at a time, so that the drainer takes the mutex less often than
    // the submitters; a sync caller's turn always ends a batch.
    constexpr std::size_t takeAtOnce = 16;
    SerialItem taken[takeAtOnce];
    for (int ran = 0;;) {
        std::size_t count = 0;
        {
            std::lock_guard lock(mutex_);
            if (ran >= drainBatch && !items_.empty()) {
                break;
            }
            while (count < takeAtOnce && !items_.empty()) {
                taken[count] = items_.pop();
                if (taken[count++].waiter != nullptr) {
                    break;
                }
            }
            if (count != 0) {
                state_.fetch_sub(itemUnit * count, std::memory_order_acq_rel);
            }
        }
        if (count == 0) {
            if (tryLetGo()) {
                return;
            }
            continue;  // an item was counted after we looked: it is ours to run
        }
        for (std::size_t i = 0; i < count; ++i) {
            if (taken[i].waiter != nullptr) {
                taken[i].waiter->notify();  // the queue now belongs to the sync caller
                return;
            }
            runWork(taken[i].task);
            taken[i].task.reset();  // release what the item captured before running the next
        }
        ran += static_cast<int>(count);
    }
    // Let other queues have the thread; the queue stays owned and is drained again later.
    scheduleDrain();
}

void QueueCore::waitForSyncTurn() {
    Signal turn;
    bool becameOwner;
    {
        std::lock_guard lock(mutex_);
        items_.push(SerialItem{Task(), &turn});
        becameOwner = countPushedLocked();
    }
    if (becameOwner) {
        scheduleDrain();  // the owner let go meanwhile; a drainer hands the queue to us in turn
    }
    BlockingScope blocking;
    turn.wait();
}

void QueueCore::handOnAfterSync() {
    // Still the owner, with items counted. Only the owner pops, and items are counted under
    // the mutex after being pushed, so they are there.
    Signal* next = nullptr;
    {
        std::lock_guard lock(mutex_);
        if (items_.front().waiter != nullptr) {
            next = items_.pop().waiter;
            state_.fetch_sub(itemUnit, std::memory_order_acq_rel);
        }
    }
    if (next != nullptr) {
        next->notify();  // straight to the next sync caller
    } else {
        scheduleDrain();
    }
}

void QueueCore::syncOnCurrentQueue() {
    fatalError("DispatchQueue::sync on the queue the caller is running on would deadlock");
}

void QueueCore::syncOnMain(void (*invoke)(void*), void* context) {
    if (isMainThread()) {
        fatalError("DispatchQueue::sync on the main queue from the main thread would deadlock");
    }
    struct Call {
        void (*invoke)(void*);
        void* context;
        std::exception_ptr error;
        Signal done;
    } call{invoke, context, nullptr, {}};
    async([&call] {
        try {
            call.invoke(call.context);
        } catch (...) {
            call.error = std::current_exception();
        }
        call.done.notify();
    });
    {
        BlockingScope blocking;
        call.done.wait();
    }
    if (call.error) {
        std::rethrow_exception(call.error);
    }
}

bool QueueCore::isCurrentOnThisThread() const noexcept {
    if (kind == QueueKind::main) {
        return isMainThread();
    }
    return CurrentQueueScope::contains(this);
}

}  // namespace kel::detail

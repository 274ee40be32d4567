// kel::detail::QueueCore — the state behind a DispatchQueue handle.
//
// A serial queue is a FIFO of work (a Ring) that the worker pool drains one worker at a time:
// the queue itself is the pool's work item. A concurrent queue hands each item to the pool
// directly. The main queue hands its items to the main loop. A queue with a target runs its
// items as items of the target.
//
// A serial queue's ownership lives in one atomic state word (see the constants below). Taking
// an idle queue for sync and giving it back are one compare-and-swap each, inline; everything
// else (waiting for a turn, handing the queue on) is out of line.
//
// Thread rules: every member may be called from any thread; mutex_ guards items_, and state_ is
// changed only as its comment says.
//
// Ownership: shared by the queue's handles and by every work item submitted to it, so a queue
// whose last handle is gone still runs them.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "CurrentQueueScope.hpp"
#include "Ring.hpp"
#include "Signal.hpp"
#include "WorkerPool.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/Task.hpp"

namespace kel::detail {

enum class QueueKind : std::uint8_t { serial, concurrent, main };

// Runs a work item; an exception escaping it ends the process, as with std::thread.
inline void runWork(Task& task) noexcept {
    task();
}

class QueueCore : public std::enable_shared_from_this<QueueCore> {
  public:
    QueueCore(std::string label, DispatchQoS qos, QueueKind kind,
              std::shared_ptr<QueueCore> target);

    const std::string label;
    const DispatchQoS qos;
    const QueueKind kind;
    const std::shared_ptr<QueueCore> target;

    void async(Task work);

    // Runs invoke(context) on this queue and waits; what it throws reaches the caller.
    void syncInvoke(void (*invoke)(void*), void* context) {
        switch (kind) {
            case QueueKind::serial:
                syncOnSerial(invoke, context);
                return;
            case QueueKind::concurrent:
                syncOnConcurrent(invoke, context);
                return;
            case QueueKind::main:
                syncOnMain(invoke, context);
                return;
        }
    }

    // True if the calling thread runs an item of this queue (directly or through a target).
    bool isCurrentOnThisThread() const noexcept;

    // Runs up to a batch of this serial queue's items on the calling pool worker.
    void drain();

    // The worker pool's runner: drains a serial queue or runs a concurrent queue's item.
    static void runPoolItem(WorkerPool::Item& item) noexcept;
    // The timer thread's deliverer: submits a due timer's work to its queue.
    static void deliverTimer(const std::shared_ptr<QueueCore>& queue, Task work);

    // The serial queue's state word: the number of items in items_, in units of itemUnit, with
    // the ownedBit. The owner, a drainer on the pool or a sync caller, runs or hands on every
    // counted item. Items are counted under mutex_ when pushed and uncounted when popped, and
    // every count sets ownedBit, so pending items always have an owner. An idle queue is taken
    // (idleState -> ownedBit) and given back (ownedBit -> idleState) by sync with one
    // compare-and-swap each.
    static constexpr std::uint64_t idleState = 0;
    static constexpr std::uint64_t ownedBit = 1;
    static constexpr std::uint64_t itemUnit = 2;

  private:
    // A serial queue's entry: work to run, or a sync caller waiting for its turn.
    struct SerialItem {
        Task task;
        Signal* waiter = nullptr;  // set for a sync caller: the queue is handed over to it
    };
    // Gives a serial queue back after a sync caller's work, however that work ends.
    struct SyncRelease {
        QueueCore* queue;
        ~SyncRelease() {
            if (!queue->tryLetGo()) {
                queue->handOnAfterSync();
            }
        }
    };

    void syncOnSerial(void (*invoke)(void*), void* context) {
        if (CurrentQueueScope::contains(this)) {
            syncOnCurrentQueue();
        }
        if (!tryTakeIdle()) {
            waitForSyncTurn();
        }
        SyncRelease release{this};
        syncOnConcurrent(invoke, context);
    }
    // Runs the call on the calling thread, marked as running on this queue (and its target).
    void syncOnConcurrent(void (*invoke)(void*), void* context) {
        CurrentQueueScope scope(this);
        if (target) {
            target->syncInvoke(invoke, context);
        } else {
            invoke(context);
        }
    }
    // Runs the call on the main loop and waits for it there (never from the main thread).
    void syncOnMain(void (*invoke)(void*), void* context);
    [[noreturn]] static void syncOnCurrentQueue();

    // Fast paths: take an idle serial queue, give back one that has nothing counted.
    bool tryTakeIdle() noexcept {
        std::uint64_t expected = idleState;
        return state_.compare_exchange_strong(expected, ownedBit, std::memory_order_acq_rel);
    }
    bool tryLetGo() noexcept {
        std::uint64_t expected = ownedBit;
        return state_.compare_exchange_strong(expected, idleState, std::memory_order_acq_rel);
    }
    // Slow paths: queue up for the turn (earlier items first), and give the queue to the next
    // sync caller or back to the pool when items were counted meanwhile.
    void waitForSyncTurn();
    void handOnAfterSync();

    void scheduleDrain();
    // Counts an item just pushed (mutex_ held) and claims the queue if nobody owns it; true if
    // the caller became the owner and must see that the queue gets drained.
    bool countPushedLocked() noexcept;

    std::mutex mutex_;        // guards items_
    Ring<SerialItem> items_;  // waiting work, in submission order
    std::atomic<std::uint64_t> state_{idleState};
};

}  // namespace kel::detail

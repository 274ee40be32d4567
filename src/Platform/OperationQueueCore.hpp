// kel::detail::OperationQueueCore — the shared state behind an OperationQueue.
//
// The core keeps what it holds in intrusive lists (waiting, then started) threaded through
// QueueEntry links, so adding and finishing allocate nothing beyond the dispatch of the work.
// Operations report readiness and finish to it directly from their change announcements
// (Operation::changeAnnounced), not through observations.
//
// A block added with addOperation(Task) gets no Operation at first: nobody else can reach it,
// so it has no dependencies, no observers and nothing to announce, and the queue runs it as a
// LightBlock, a list link and the block. It still takes its place in the lists, so it counts
// against the concurrency limit, starts in the order added, is held back while the queue is
// suspended and is waited for like any operation. Only when someone asks for operations() (or
// cancels them all, which asks) does the queue make the BlockOperation that stands for it: a
// waiting block is handed over to a real BlockOperation in its place; a running one gets an
// executing BlockOperation that the queue reports finished when the block returns.
//
// On a queue without a limit, not suspended, whose target is concurrent, blocks go to a third
// list, pending_, served by drainers: work items that take pending blocks one after another in
// bounded batches. While blocks are pending, one drainer is always queued on the target (a
// drainer that takes a block while others remain queues the next one first), so a block that
// blocks never holds the rest back: the queued drainer runs on another worker, and the pool's
// starvation detection adds workers when all of them block. The pool thus gets one submission
// per batch instead of one per block. When the queue leaves that mode (suspended, given a limit
// or a serial target), pending blocks move to the front of waiting_ and run as before.
//
// Thread rules: every member locks mutex_ itself unless its name ends in Locked.
//
// Ownership: shared by the OperationQueue, by every operation ever added to it, by every
// started block's work item and by every queued drainer, so a queue released by its owner
// still runs what was added.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kel/Concurrency/UnfairLock.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/Operation.hpp"
#include "kel/Platform/OperationQueue.hpp"
#include "kel/Platform/Task.hpp"
#include "kel/Platform/detail/IntrusiveList.hpp"
#include "kel/Platform/detail/OperationQueueLink.hpp"

namespace kel::detail {

// A block in the lists without an operation (its link's operation stays null).
struct LightBlock : QueueEntry {
    Task block;  // the worker's once started (read without the lock); the lock's while waiting
    std::shared_ptr<Operation> standIn;  // guarded by the queue's lock; set while running only
};

class OperationQueueCore : public std::enable_shared_from_this<OperationQueueCore> {
  public:
    using List = IntrusiveList<QueueEntry>;

    ~OperationQueueCore();

    void add(std::shared_ptr<Operation> operation);
    void addBlock(Task block);
    void pump();
    // Called after limit_, suspended_ or underlying_ changed.
    void settingsChangedLocked();
    // Takes a finished operation out of the queue and starts what its slot allows. Returns the
    // queue's reference to the operation, for the caller to release after it is done with it;
    // empty when the operation was not (or no longer) in the queue.
    std::shared_ptr<Operation> operationFinished(Operation& operation);
    // Every operation in the queue, making those that stand for blocks.
    std::vector<std::shared_ptr<Operation>> operations();
    void waitUntilEmpty();

    // Guards everything below and the operations' queue links. Held for a few pointer writes
    // by the adding thread and the finishing workers at once, so a spinning lock: a sleeping
    // one makes them queue up in the kernel.
    mutable UnfairLock mutex_{UnfairLock::Options::dataSynchronization};
    std::condition_variable_any emptied_;
    std::string name_ = "kel.OperationQueue";
    int limit_ = OperationQueue::defaultMaxConcurrentOperationCount;
    std::optional<DispatchQueue> underlying_;
    std::optional<DispatchQueue> ownQueue_;  // made on first use, labelled with name_
    bool suspended_ = false;
    List waiting_;  // not started yet, in the order added
    List started_;  // started, not finished yet
    List pending_;  // blocks waiting for a drainer, in the order added (see above)
    std::size_t drainersQueued_ = 0;  // drainers dispatched that have not taken a block yet
    bool draining_ = true;  // no limit, not suspended, a concurrent target (the own queue is)

  private:
    void pumpLocked();
    DispatchQueue& targetLocked();
    // Hooks an operation to this queue, as add does, in the given phase.
    void hookLocked(const std::shared_ptr<Operation>& operation, OperationQueueLink::Phase phase);
    // Runs a started block on the calling worker and reports it finished.
    void runBlock(LightBlock* light);
    // A drainer's work item: runs pending blocks in a bounded batch.
    void drain();
    // Whether blocks added now go to pending_ for drainers.
    bool drainsLocked() const noexcept { return draining_; }
    // Starts the first pending block, if the queue still drains. Sets `queueDrainer` when
    // blocks remain and no drainer is queued for them (the caller dispatches it after unlocking).
    LightBlock* takePendingLocked(bool& queueDrainer);
    void dispatchDrainer(DispatchQueue target);
    bool emptyLocked() const noexcept {
        return waiting_.empty() && started_.empty() && pending_.empty();
    }
    // The operation that stands for a block from now on; `list` is the one holding it.
    std::shared_ptr<Operation> standInLocked(LightBlock* light, List& list);
};

}  // namespace kel::detail

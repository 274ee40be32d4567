// kel::detail::OperationQueueCore — the shared state behind an OperationQueue.
//
// The core keeps what it holds in two intrusive lists (waiting, then started) threaded through
// QueueLinks, so adding and finishing allocate nothing beyond the dispatch of the work. Operations
// report readiness and finish to it directly from their change announcements
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
// Thread rules: every member locks mutex_ itself unless its name ends in Locked.
//
// Ownership: shared by the OperationQueue, by every operation ever added to it and by every
// started block's work item, so a queue released by its owner still runs what was added.
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

namespace kel::detail {

// A block in the lists without an operation (its link's operation stays null).
struct LightBlock : QueueLink {
    Task block;  // the worker's once started (read without the lock); the lock's while waiting
    std::shared_ptr<Operation> standIn;  // guarded by the queue's lock; set while running only
};

class OperationQueueCore : public std::enable_shared_from_this<OperationQueueCore> {
  public:
    // A doubly linked list of QueueLinks.
    class List {
      public:
        void pushBack(QueueLink& link) noexcept;
        void erase(QueueLink& link) noexcept;
        // Puts `replacement` where `link` is and takes `link` out.
        void replace(QueueLink& link, QueueLink& replacement) noexcept;
        QueueLink* front() const noexcept { return head_; }
        std::size_t size() const noexcept { return size_; }
        bool empty() const noexcept { return size_ == 0; }

      private:
        QueueLink* head_ = nullptr;
        QueueLink* tail_ = nullptr;
        std::size_t size_ = 0;
    };

    ~OperationQueueCore();

    void add(std::shared_ptr<Operation> operation);
    void addBlock(Task block);
    void pump();
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

  private:
    void pumpLocked();
    DispatchQueue& targetLocked();
    // Hooks an operation to this queue, as add does, in the given phase.
    void hookLocked(const std::shared_ptr<Operation>& operation, Operation::QueuePhase phase);
    // Runs a started block on the calling worker and reports it finished.
    void runBlock(LightBlock* light);
    // The operation that stands for a block from now on.
    std::shared_ptr<Operation> standInLocked(LightBlock* light, bool started);
};

}  // namespace kel::detail

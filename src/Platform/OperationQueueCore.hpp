// kel::detail::OperationQueueCore — the shared state behind an OperationQueue.
//
// The core keeps the operations it holds in two intrusive lists threaded through the
// operations themselves (waiting, then started), so adding and finishing allocate nothing
// beyond the dispatch of start(). Operations report readiness and finish to it directly from
// their change announcements (Operation::changeAnnounced), not through observations.
//
// Thread rules: every member locks mutex_ itself unless its name ends in Locked.
//
// Ownership: shared by the OperationQueue and by every operation ever added to it, so a queue
// released by its owner still runs what was added.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/Operation.hpp"
#include "kel/Platform/OperationQueue.hpp"

namespace kel::detail {

class OperationQueueCore : public std::enable_shared_from_this<OperationQueueCore> {
  public:
    // A doubly linked list of operations through their queuePrevious_ / queueNext_ links.
    class List {
      public:
        void pushBack(Operation& operation) noexcept;
        void erase(Operation& operation) noexcept;
        Operation* front() const noexcept { return head_; }
        std::size_t size() const noexcept { return size_; }
        bool empty() const noexcept { return size_ == 0; }

      private:
        Operation* head_ = nullptr;
        Operation* tail_ = nullptr;
        std::size_t size_ = 0;
    };

    void add(std::shared_ptr<Operation> operation);
    void pump();
    // Takes a finished operation out of the queue and starts what its slot allows. Returns the
    // queue's reference to the operation, for the caller to release after it is done with it;
    // empty when the operation was not (or no longer) in the queue.
    std::shared_ptr<Operation> operationFinished(Operation& operation);
    std::vector<std::shared_ptr<Operation>> operations() const;
    void waitUntilEmpty();

    mutable std::mutex mutex_;  // guards everything below and the operations' queue links
    std::condition_variable emptied_;
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
};

}  // namespace kel::detail

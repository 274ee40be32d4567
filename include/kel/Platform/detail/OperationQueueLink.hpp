// kel::detail::OperationQueueLink — what an operation queue keeps inside each operation it holds.
//
// An Operation carries one of these as a private member, so that adding it to a queue allocates
// nothing: the queue's lists are threaded through the link's entry, the queue's reference to the
// operation lives in it, and the operation reports its readiness and finish to the queue named
// in it. Only the operation queue's core reads or writes it (Operation::changeAnnounced reads
// hooked, queue and the key lists).
//
// Thread rules: enqueued and hooked are atomics. queue and the key lists are written once, by
// the queue that takes the operation, before hooked is set, and only read afterwards. phase,
// entry and self are guarded by that queue's lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kel/Platform/detail/IntrusiveList.hpp"

namespace kel {
class Operation;
}

namespace kel::detail {

class OperationQueueCore;

// A place in an operation queue's lists: an operation, or a block the queue runs without one.
struct QueueEntry : IntrusiveListNode<QueueEntry> {
    explicit QueueEntry(Operation* operation_ = nullptr) noexcept : operation(operation_) {}
    Operation* operation;  // null for a block without an operation
};

struct OperationQueueLink {
    // Where the operation is in its queue's lists.
    enum class Phase : std::uint8_t { none, waiting, started, finished };

    explicit OperationQueueLink(Operation* operation) noexcept : entry(operation) {}
    OperationQueueLink(const OperationQueueLink&) = delete;
    OperationQueueLink& operator=(const OperationQueueLink&) = delete;

    std::atomic<bool> enqueued{false};  // claimed by the queue it is added to
    std::shared_ptr<OperationQueueCore> queue;
    std::vector<std::string> readyKeys;     // keys a subclass made "isReady" depend on
    std::vector<std::string> finishedKeys;  // keys a subclass made "isFinished" depend on
    std::atomic<bool> hooked{false};        // set while the queue holds the operation
    Phase phase = Phase::none;
    QueueEntry entry;
    std::shared_ptr<Operation> self;  // the queue's reference while the operation is in it
};

}  // namespace kel::detail

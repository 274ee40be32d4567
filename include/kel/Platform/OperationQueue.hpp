// kel::OperationQueue — runs operations when they become ready, up to a concurrency limit.
//
//     auto queue = std::make_shared<kel::OperationQueue>();
//     queue->setMaxConcurrentOperationCount(2);
//     auto download = kel::BlockOperation::make([] { fetch(); });
//     auto parse = kel::BlockOperation::make([] { parse(); });
//     parse->addDependency(download);  // parse starts once download has finished
//     parse->setCompletionBlock([] { report(); });
//     queue->addOperations({download, parse}, /*waitUntilFinished=*/false);
//     queue->addOperation([] { cleanUp(); });  // a plain block
//     queue->waitUntilAllOperationsAreFinished();
//
// Added operations wait until they are ready (their dependencies have finished, or they are
// cancelled); the queue starts ready ones in the order they were added, at most
// maxConcurrentOperationCount at a time (-1: no limit), each by calling start() on the
// underlying dispatch queue (by default a concurrent queue of the pool labelled with the queue's
// name). A slot is free again when the operation reports finished through its "isFinished" key,
// so asynchronous operations that finish later on another thread hold their slot until then;
// one that never reports finished keeps its slot (and stays in operations()) for good.
//
// Guarantees. Ordering: ready operations are handed to the underlying queue in the order they
// were added (on a serial underlying queue they start in that order); one that is not ready is
// passed over, not waited for. With maxConcurrentOperationCount 1 operations run one at
// a time (a limit of N: never more than N between start and reported finish). Blocks added
// from one thread start in the order added. A dependent starts only after each of its
// dependencies has reported finished, on whatever queue those ran; cancelling an operation
// makes it ready at once, and it finishes without running main(). A suspended queue starts
// nothing; operations already started go on. Visibility: everything the adding thread did
// before addOperation happens-before the operation starts; everything a dependency did before
// reporting finished happens-before its dependents start; an operation's work happens-before
// its completion block runs and before waitUntilFinished or waitUntilAllOperationsAreFinished
// returns.
//
// Thread rules: every member may be called from any thread.
//
// Ownership: a reference type, non-copyable, usually held by std::shared_ptr. The queue holds
// each operation from addOperation until it finishes; operations already added keep running
// after the queue object itself is destroyed.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kel/Export.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/Operation.hpp"
#include "kel/Platform/Task.hpp"

namespace kel {

namespace detail {
class OperationQueueCore;
}

class KEL_EXPORT OperationQueue {
  public:
    static constexpr int defaultMaxConcurrentOperationCount = -1;

    OperationQueue();
    ~OperationQueue();
    OperationQueue(const OperationQueue&) = delete;
    OperationQueue& operator=(const OperationQueue&) = delete;

    std::string name() const;
    void setName(std::string name);

    // -1 for no limit; otherwise at least 1.
    int maxConcurrentOperationCount() const;
    void setMaxConcurrentOperationCount(int count);

    // The dispatch queue on which operations are started; empty for the queue's own.
    std::optional<DispatchQueue> underlyingQueue() const;
    void setUnderlyingQueue(std::optional<DispatchQueue> queue);

    // Adding an operation that is already in a queue, executing or finished is a fatal error.
    void addOperation(std::shared_ptr<Operation> operation);
    // Wraps the block in a BlockOperation and adds it.
    void addOperation(Task block);
    void addOperations(const std::vector<std::shared_ptr<Operation>>& operations,
                       bool waitUntilFinished);

    // Operations added and not yet finished, in the order they were added.
    std::vector<std::shared_ptr<Operation>> operations() const;
    std::size_t operationCount() const;

    void cancelAllOperations();
    // Blocks until every operation added so far (and any added meanwhile) has finished.
    void waitUntilAllOperationsAreFinished();

    // A suspended queue starts no operation; those running go on.
    bool isSuspended() const;
    void setSuspended(bool suspended);

  private:
    std::shared_ptr<detail::OperationQueueCore> core_;
};

}  // namespace kel

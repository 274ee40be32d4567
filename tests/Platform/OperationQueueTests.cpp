#include "kel/Platform/OperationQueue.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Watchdog.hpp"
#include "kel/Platform/DispatchGroup.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/Operation.hpp"

namespace {

using kel::BlockOperation;
using kel::DispatchQueue;
using kel::KeyValueObservation;
using kel::Operation;
using kel::OperationQueue;

// Counts how many callers are inside at once and the most ever seen.
struct ConcurrencyProbe {
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    void enter() {
        int now = inside.fetch_add(1) + 1;
        int seen = most.load();
        while (now > seen && !most.compare_exchange_weak(seen, now)) {
        }
    }
    void leave() { inside.fetch_sub(1); }
};

// An asynchronous operation in the style of the library's own: one "state" key on which
// isReady and isFinished depend (the keys a queue follows), finished later on a pool thread.
class DeferredOperation : public Operation {
  public:
    explicit DeferredOperation(ConcurrencyProbe& probe) : probe_(probe) {}

    bool isAsynchronous() const override { return true; }
    bool isExecuting() const override { return state_.load() == State::executing; }
    bool isFinished() const override { return state_.load() == State::finished; }
    bool isReady() const override { return state_.load() == State::ready && Operation::isReady(); }
    std::vector<std::string> keyPathsForValuesAffectingIsReady() const override {
        return {"state"};
    }
    std::vector<std::string> keyPathsForValuesAffectingIsFinished() const override {
        return {"state"};
    }

    void start() override {
        if (isCancelled()) {
            setState(State::finished);
            return;
        }
        setState(State::executing);
        probe_.enter();
        DispatchQueue::global().async([self = shared_from_this(), this] {
            probe_.leave();
            setState(State::finished);
        });
    }

  private:
    enum class State { ready, executing, finished };
    void setState(State state) {
        willChangeValueForKey("state");
        state_.store(state);
        didChangeValueForKey("state");
    }

    ConcurrencyProbe& probe_;
    std::atomic<State> state_{State::ready};
};

// The queue follows its operations without observing them; observers that users add to a
// queued operation must still hear every change, in order, on the thread that makes it.
TEST(OperationLifecycle, RunsEveryBlockInOrderAndObserversHearExecutingThenFinished) {
    OperationQueue queue;
    queue.setSuspended(true);
    auto operation = std::make_shared<BlockOperation>();
    std::mutex mutex;
    std::vector<std::string> events;  // guarded by mutex
    auto record = [&](std::string_view event) {
        std::lock_guard lock(mutex);
        events.emplace_back(event);
    };
    operation->addExecutionBlock([&] { record("block1"); });
    operation->addExecutionBlock([&] { record("block2"); });
    queue.addOperation(operation);
    auto recordValue = [&](std::string_view key) {
        bool value = key == "isExecuting"  ? operation->isExecuting()
                     : key == "isFinished" ? operation->isFinished()
                                           : operation->isCancelled();
        record(std::string(key) + (value ? "=1" : "=0"));
    };
    KeyValueObservation executing = operation->observe("isExecuting", recordValue);
    KeyValueObservation finished = operation->observe("isFinished", recordValue);
    KeyValueObservation cancelled = operation->observe("isCancelled", recordValue);
    kel::DispatchGroup completed;
    completed.enter();
    operation->setCompletionBlock([&record, completed] {
        record("completion");
        completed.leave();
    });
    queue.setSuspended(false);
    ASSERT_TRUE(completed.wait(kel::test::watchdogDeadline()));
    operation->cancel();
    std::lock_guard lock(mutex);
    EXPECT_EQ(events,
              (std::vector<std::string>{"isExecuting=1", "block1", "block2", "isExecuting=0",
                                        "isFinished=1", "completion", "isCancelled=1"}));
}

TEST(OperationLifecycle, DependenciesGateReadinessUntilFinishedEvenConcurrentlyRemovedOrCancelled) {
    auto first = std::make_shared<Operation>();
    auto second = std::make_shared<Operation>();
    auto dependent = std::make_shared<Operation>();
    int readyChanges = 0;
    KeyValueObservation observation =
        dependent->observe("isReady", [&](std::string_view) { ++readyChanges; });
    dependent->addDependency(first);
    dependent->addDependency(second);
    EXPECT_FALSE(dependent->isReady());
    first->start();
    EXPECT_FALSE(dependent->isReady());
    dependent->removeDependency(second);
    EXPECT_TRUE(dependent->isReady());
    EXPECT_EQ(readyChanges, 4);  // two adds, one finish, one removal

    // Cancellation makes an operation ready; started, it finishes without running its block.
    bool ran = false;
    int completions = 0;
    auto cancelled = BlockOperation::make([&] { ran = true; });
    cancelled->setCompletionBlock([&] { ++completions; });
    cancelled->addDependency(std::make_shared<Operation>());
    cancelled->cancel();
    cancelled->cancel();
    EXPECT_TRUE(cancelled->isReady());
    cancelled->start();
    EXPECT_FALSE(ran);
    EXPECT_TRUE(cancelled->isFinished());
    EXPECT_EQ(completions, 1);

    // A dependency added while the dependency finishes on another thread is counted exactly
    // once, whichever side sees the other first.
    for (int round = 0; round < 300; ++round) {
        auto dependency = std::make_shared<Operation>();
        auto dependent = std::make_shared<Operation>();
        std::thread finisher([&] { dependency->start(); });
        dependent->addDependency(dependency);
        finisher.join();
        ASSERT_TRUE(dependent->isReady()) << "round " << round;
    }
}

// The first operations can only finish if `together` of them run at the same time (they meet
// through a group, whose wait lets the pool grow past the processor count); the probe shows
// that the limit is never exceeded. With a limit of one, operations also start in order.
TEST(OperationQueueLimits, RunsUpToTheLimitAtOnceAndNoMore) {
    for (int limit : {1, 3, OperationQueue::defaultMaxConcurrentOperationCount}) {
        const int together = limit > 0 ? limit : 8;
        OperationQueue queue;
        queue.setMaxConcurrentOperationCount(limit);
        kel::DispatchGroup meeting;
        for (int i = 0; i < together; ++i) {
            meeting.enter();
        }
        ConcurrencyProbe probe;
        std::mutex mutex;
        std::vector<int> order;  // guarded by mutex
        for (int i = 0; i < 100; ++i) {
            queue.addOperation([&, i] {
                probe.enter();
                {
                    std::lock_guard lock(mutex);
                    order.push_back(i);
                }
                if (i < together) {
                    meeting.leave();
                    meeting.wait();
                }
                probe.leave();
            });
        }
        queue.waitUntilAllOperationsAreFinished();
        EXPECT_EQ(queue.operationCount(), 0u);
        if (limit > 0) {
            EXPECT_EQ(probe.most.load(), limit);
        }
        if (limit == 1) {
            EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
        }
    }
}

TEST(OperationQueueLimits, AsynchronousOperationsHoldTheirSlotAndCancelledOnesNeverRunMain) {
    auto queue = std::make_shared<OperationQueue>();
    queue->setMaxConcurrentOperationCount(2);
    ConcurrencyProbe probe;
    std::vector<std::shared_ptr<DeferredOperation>> operations;
    for (int i = 0; i < 100; ++i) {
        operations.push_back(std::make_shared<DeferredOperation>(probe));
        queue->addOperation(operations.back());
    }
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_LE(probe.most.load(), 2);
    for (const auto& operation : operations) {
        EXPECT_TRUE(operation->isFinished());
    }

    // Operations cancelled before they start never run their main part but leave the queue.
    queue->setSuspended(true);
    std::atomic<int> ran{0};
    std::atomic<int> completions{0};
    for (int i = 0; i < 50; ++i) {
        auto operation = BlockOperation::make([&] { ran.fetch_add(1); });
        operation->setCompletionBlock([&] { completions.fetch_add(1); });
        queue->addOperation(operation);
    }
    auto deferred = std::make_shared<DeferredOperation>(probe);
    queue->addOperation(deferred);
    queue->cancelAllOperations();
    queue->setSuspended(false);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(ran.load(), 0) << "cancelled blocks do not run";
    EXPECT_EQ(completions.load(), 50) << "cancelled operations still complete";
    EXPECT_TRUE(deferred->isFinished());
    EXPECT_EQ(queue->operationCount(), 0u);
}

// Blocks added without an operation are operations as soon as anyone asks: a running one is
// executing until its block returns, waiting ones keep their order and can be cancelled.
TEST(OperationQueueScheduling, BlocksAreOperationsOnceAsked) {
    OperationQueue queue;
    queue.setMaxConcurrentOperationCount(1);
    kel::DispatchGroup running;
    kel::DispatchGroup release;
    running.enter();
    release.enter();
    std::vector<int> ran;  // written by the queue's operations, one at a time
    queue.addOperation([&] {
        ran.push_back(0);
        running.leave();
        release.wait();
    });
    for (int i = 1; i <= 3; ++i) {
        queue.addOperation([&, i] { ran.push_back(i); });
    }
    running.wait();
    auto operations = queue.operations();
    ASSERT_EQ(operations.size(), 4u);
    EXPECT_TRUE(operations[0]->isExecuting());
    EXPECT_EQ(queue.operations(), operations);  // asked again: the same operations
    bool finishedHeard = false;
    KeyValueObservation observation = operations[0]->observe(
        std::string(Operation::isFinishedKey), [&](std::string_view) { finishedHeard = true; });
    operations[2]->cancel();
    release.leave();
    operations[0]->waitUntilFinished();
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(finishedHeard);
    EXPECT_EQ(ran, (std::vector<int>{0, 1, 3}));
    for (const auto& operation : operations) {
        EXPECT_TRUE(operation->isFinished());
    }
    EXPECT_EQ(queue.operationCount(), 0u);
}

// Without a limit, blocks waiting for a worker move between lists as the queue is suspended,
// resumed and asked for its operations while they stream in: each still runs exactly once.
TEST(OperationQueueScheduling, UnlimitedQueueRunsEveryBlockOnceThroughSuspensionAndAsking) {
    OperationQueue queue;
    constexpr int count = 3000;
    std::vector<std::atomic<int>> runs(count);
    std::size_t asked = 0;
    for (int i = 0; i < count; ++i) {
        queue.addOperation([&runs, i] { runs[i].fetch_add(1, std::memory_order_relaxed); });
        if (i == count / 3) {
            queue.setSuspended(true);
            asked += queue.operations().size();
        } else if (i == count / 2) {
            queue.setSuspended(false);
            asked += queue.operations().size();
        }
    }
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_GT(asked, 0u);
    EXPECT_EQ(queue.operationCount(), 0u);
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(runs[i].load(), 1) << "block " << i;
    }
}

TEST(OperationDeathTest, MisuseIsFatal) {
    EXPECT_DEATH(
        {
            auto operation = std::make_shared<Operation>();
            operation->start();
            operation->start();
        },
        "Fatal error: Operation::start called on an operation that has already been started");
    EXPECT_DEATH(
        {
            auto operation = std::make_shared<Operation>();
            operation->addDependency(std::make_shared<Operation>());
            operation->start();
        },
        "Fatal error: Operation::start called on an operation that is not ready");
    EXPECT_DEATH(
        {
            OperationQueue queue;
            queue.setSuspended(true);
            auto operation = std::make_shared<Operation>();
            queue.addOperation(operation);
            queue.addOperation(operation);
        },
        "Fatal error: OperationQueue::addOperation: the operation is already in a queue");
}

}  // namespace

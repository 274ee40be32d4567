#include "kel/Platform/OperationQueue.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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
// isReady, isExecuting and isFinished depend, finished later from a pool thread.
class DeferredOperation : public Operation {
  public:
    explicit DeferredOperation(ConcurrencyProbe* probe = nullptr) : probe_(probe) {}

    bool isAsynchronous() const override { return true; }
    bool isExecuting() const override { return state_.load() == State::executing; }
    bool isFinished() const override { return state_.load() == State::finished; }
    bool isReady() const override { return state_.load() == State::ready && Operation::isReady(); }
    std::vector<std::string> keyPathsForValuesAffectingIsReady() const override {
        return {"state"};
    }
    std::vector<std::string> keyPathsForValuesAffectingIsExecuting() const override {
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
        if (probe_ != nullptr) {
            probe_->enter();
        }
        auto self = std::static_pointer_cast<DeferredOperation>(shared_from_this());
        DispatchQueue::global().async([self] {
            self->finishedOnThread = std::this_thread::get_id();
            if (self->probe_ != nullptr) {
                self->probe_->leave();
            }
            self->setState(State::finished);
        });
    }

    std::thread::id finishedOnThread;

  private:
    enum class State { ready, executing, finished };
    void setState(State state) {
        willChangeValueForKey("state");
        state_.store(state);
        didChangeValueForKey("state");
    }

    ConcurrencyProbe* probe_;
    std::atomic<State> state_{State::ready};
};

TEST(OperationLifecycle, StartRunsMainAndAnnouncesExecutingThenFinished) {
    std::vector<std::string> events;
    auto operation = BlockOperation::make([&] { events.emplace_back("main"); });
    auto record = [&](std::string_view key) {
        events.push_back(std::string(key) + (key == "isExecuting"
                                                 ? (operation->isExecuting() ? "=1" : "=0")
                                                 : (operation->isFinished() ? "=1" : "=0")));
    };
    KeyValueObservation executing = operation->observe("isExecuting", record);
    KeyValueObservation finished = operation->observe("isFinished", record);
    operation->setCompletionBlock([&] { events.emplace_back("completion"); });
    EXPECT_TRUE(operation->isReady());
    EXPECT_FALSE(operation->isAsynchronous());
    operation->start();
    EXPECT_EQ(events, (std::vector<std::string>{"isExecuting=1", "main", "isExecuting=0",
                                                "isFinished=1", "completion"}));
    EXPECT_TRUE(operation->isFinished());
    EXPECT_FALSE(operation->isExecuting());
}

TEST(OperationLifecycle, CancelledBeforeStartFinishesWithoutRunningMain) {
    bool ran = false;
    int completions = 0;
    auto operation = BlockOperation::make([&] { ran = true; });
    operation->setCompletionBlock([&] { ++completions; });
    auto blocker = std::make_shared<Operation>();
    operation->addDependency(blocker);
    EXPECT_FALSE(operation->isReady());
    operation->cancel();
    operation->cancel();
    EXPECT_TRUE(operation->isCancelled());
    EXPECT_TRUE(operation->isReady());  // cancellation overrides unfinished dependencies
    operation->start();
    EXPECT_FALSE(ran);
    EXPECT_TRUE(operation->isFinished());
    EXPECT_EQ(completions, 1);
}

TEST(OperationLifecycle, DependenciesGateReadinessAndCanBeRemoved) {
    auto first = std::make_shared<Operation>();
    auto second = std::make_shared<Operation>();
    auto dependent = std::make_shared<Operation>();
    int readyChanges = 0;
    KeyValueObservation observation =
        dependent->observe("isReady", [&](std::string_view) { ++readyChanges; });
    dependent->addDependency(first);
    dependent->addDependency(second);
    EXPECT_EQ(dependent->dependencies().size(), 2u);
    EXPECT_FALSE(dependent->isReady());
    first->start();
    EXPECT_FALSE(dependent->isReady());
    dependent->removeDependency(second);
    EXPECT_TRUE(dependent->isReady());
    EXPECT_EQ(readyChanges, 4);  // two adds, one finish, one removal

    auto finished = std::make_shared<Operation>();
    finished->start();
    auto late = std::make_shared<Operation>();
    late->addDependency(finished);  // an already finished dependency does not hold it back
    EXPECT_TRUE(late->isReady());
}

TEST(OperationLifecycle, WaitUntilFinishedReturnsAfterAnotherThreadFinishesIt) {
    auto operation = std::make_shared<DeferredOperation>();
    std::thread starter([&] { operation->start(); });
    operation->waitUntilFinished();
    EXPECT_TRUE(operation->isFinished());
    starter.join();
}

// A dependency added while the dependency finishes on another thread is counted exactly once,
// whichever side sees the other first.
TEST(OperationLifecycle, DependencyFinishingDuringAddDependencyIsNotMissed) {
    for (int round = 0; round < 300; ++round) {
        auto dependency = std::make_shared<Operation>();
        auto dependent = std::make_shared<Operation>();
        std::thread finisher([&] { dependency->start(); });
        dependent->addDependency(dependency);
        finisher.join();
        ASSERT_TRUE(dependent->isReady()) << "round " << round;
    }
}

TEST(OperationLifecycle, BlockOperationRunsEveryBlockInTheOrderAdded) {
    std::vector<int> order;
    auto operation = std::make_shared<BlockOperation>();
    operation->addExecutionBlock([&] { order.push_back(1); });
    operation->addExecutionBlock([&] { order.push_back(2); });
    auto seeded = BlockOperation::make(nullptr);
    seeded->addExecutionBlock([&] { order.push_back(3); });
    seeded->addExecutionBlock([&] { order.push_back(4); });
    operation->start();
    seeded->start();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
}

// The queue follows its operations without observing them; observers that users add to a
// queued operation must still hear every change, on the thread that makes it.
TEST(OperationQueueScheduling, ObserversOfAQueuedOperationHearEveryChange) {
    OperationQueue queue;
    queue.setSuspended(true);
    auto operation = BlockOperation::make([] {});
    std::mutex mutex;
    std::vector<std::string> events;  // guarded by mutex
    auto record = [&](std::string_view key) {
        std::lock_guard lock(mutex);
        events.emplace_back(key);
    };
    queue.addOperation(operation);
    KeyValueObservation executing = operation->observe("isExecuting", record);
    KeyValueObservation finished = operation->observe("isFinished", record);
    KeyValueObservation cancelled = operation->observe("isCancelled", record);
    queue.setSuspended(false);
    queue.waitUntilAllOperationsAreFinished();
    operation->cancel();
    std::lock_guard lock(mutex);
    EXPECT_EQ(events, (std::vector<std::string>{"isExecuting", "isExecuting", "isFinished",
                                                "isCancelled"}));
}

TEST(OperationQueueLimits, LimitOfOneRunsOperationsOneAtATimeInOrder) {
    OperationQueue queue;
    queue.setMaxConcurrentOperationCount(1);
    ConcurrencyProbe probe;
    std::vector<int> order;  // serialised by the limit of one
    std::mutex orderMutex;   // for TSan's sake only: the limit already serialises the writes
    for (int i = 0; i < 300; ++i) {
        queue.addOperation([&, i] {
            probe.enter();
            std::lock_guard lock(orderMutex);
            order.push_back(i);
            probe.leave();
        });
    }
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(probe.most.load(), 1);
    ASSERT_EQ(order.size(), 300u);
    for (int i = 0; i < 300; ++i) {
        EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    }
    EXPECT_EQ(queue.operationCount(), 0u);
}

TEST(OperationQueueLimits, LimitOfNRunsNAtOnceAndNoMore) {
    constexpr int limit = 3;
    OperationQueue queue;
    queue.setMaxConcurrentOperationCount(limit);
    // The first `limit` operations can only finish if they all run at the same time. They
    // meet through a group, whose wait lets the pool grow past the processor count.
    kel::DispatchGroup together;
    for (int i = 0; i < limit; ++i) {
        together.enter();
    }
    ConcurrencyProbe probe;
    for (int i = 0; i < 60; ++i) {
        queue.addOperation([&, i] {
            probe.enter();
            if (i < limit) {
                together.leave();
                together.wait();
            }
            probe.leave();
        });
    }
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(probe.most.load(), limit);
}

TEST(OperationQueueLimits, AsynchronousOperationsHoldTheirSlotUntilTheyFinishElsewhere) {
    auto queue = std::make_shared<OperationQueue>();
    queue->setMaxConcurrentOperationCount(2);
    ConcurrencyProbe probe;
    std::vector<std::shared_ptr<DeferredOperation>> operations;
    for (int i = 0; i < 100; ++i) {
        operations.push_back(std::make_shared<DeferredOperation>(&probe));
        queue->addOperation(operations.back());
    }
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_LE(probe.most.load(), 2);
    for (const auto& operation : operations) {
        EXPECT_TRUE(operation->isFinished());
        EXPECT_NE(operation->finishedOnThread, std::thread::id());
    }
}

TEST(OperationQueueScheduling, DependenciesOrderOperationsAcrossQueues) {
    OperationQueue first;
    OperationQueue second;
    std::mutex mutex;
    std::vector<int> order;  // guarded by mutex
    std::vector<std::shared_ptr<Operation>> chain;
    for (int i = 0; i < 20; ++i) {
        chain.push_back(BlockOperation::make([&, i] {
            std::lock_guard lock(mutex);
            order.push_back(i);
        }));
        if (i > 0) {
            chain[static_cast<std::size_t>(i)]->addDependency(
                chain[static_cast<std::size_t>(i) - 1]);
        }
    }
    // Added last-first, alternating queues: only the dependencies impose the order.
    for (int i = 19; i >= 0; --i) {
        (i % 2 == 0 ? first : second).addOperation(chain[static_cast<std::size_t>(i)]);
    }
    first.waitUntilAllOperationsAreFinished();
    second.waitUntilAllOperationsAreFinished();
    std::lock_guard lock(mutex);
    ASSERT_EQ(order.size(), 20u);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    }
}

TEST(OperationQueueScheduling, CancelledBeforeStartNeverRunMainButLeaveTheQueue) {
    OperationQueue queue;
    queue.setSuspended(true);
    std::atomic<int> ran{0};
    std::atomic<int> completions{0};
    for (int i = 0; i < 50; ++i) {
        auto operation = BlockOperation::make([&] { ran.fetch_add(1); });
        operation->setCompletionBlock([&] { completions.fetch_add(1); });
        queue.addOperation(operation);
    }
    auto deferred = std::make_shared<DeferredOperation>();
    queue.addOperation(deferred);
    EXPECT_EQ(queue.operationCount(), 51u);
    queue.cancelAllOperations();
    queue.setSuspended(false);
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(ran.load(), 0);
    EXPECT_EQ(completions.load(), 50);
    EXPECT_TRUE(deferred->isFinished());
    EXPECT_EQ(queue.operationCount(), 0u);
}

TEST(OperationQueueScheduling, StartsOnTheUnderlyingQueueAndOutlivesItsOwner) {
    DispatchQueue underlying("test.underlying");
    std::atomic<int> onUnderlying{0};
    kel::DispatchGroup group;
    {
        OperationQueue queue;
        queue.setName("test.operations");
        EXPECT_EQ(queue.name(), "test.operations");
        EXPECT_EQ(queue.maxConcurrentOperationCount(),
                  OperationQueue::defaultMaxConcurrentOperationCount);
        queue.setUnderlyingQueue(underlying);
        EXPECT_EQ(queue.underlyingQueue(), underlying);
        queue.setSuspended(true);
        for (int i = 0; i < 20; ++i) {
            group.enter();
            auto operation = BlockOperation::make([&] {
                if (underlying.isCurrent()) {
                    onUnderlying.fetch_add(1);
                }
            });
            operation->setCompletionBlock([group] { group.leave(); });
            queue.addOperation(operation);
        }
        queue.setSuspended(false);
    }  // the queue object is gone; what it holds still runs
    ASSERT_TRUE(group.wait(kel::DispatchTime::now() + 30.0));
    EXPECT_EQ(onUnderlying.load(), 20);
}

TEST(OperationQueueScheduling, WaitingInsideOperationsDoesNotStarveThePool) {
    // Every operation of the first queue waits for one of the second; the pool must grow.
    OperationQueue waiters;
    OperationQueue workers;
    workers.setSuspended(true);
    std::vector<std::shared_ptr<Operation>> work;
    for (int i = 0; i < 24; ++i) {
        work.push_back(std::make_shared<BlockOperation>());
        auto target = work.back();
        waiters.addOperation([target] { target->waitUntilFinished(); });
    }
    workers.addOperations(work, false);
    workers.setSuspended(false);
    waiters.waitUntilAllOperationsAreFinished();
    for (const auto& operation : work) {
        EXPECT_TRUE(operation->isFinished());
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

#include "kel/Concurrency/TaskScheduler.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Watchdog.hpp"
#include "kel/Platform/DispatchGroup.hpp"

namespace {

using kel::Result;

// A gate one thread opens and others wait on; a wait that times out is a fault and aborts.
struct Gate {
    kel::DispatchGroup group;
    Gate() { group.enter(); }
    void open() const { group.leave(); }
    void wait() const {
        if (!group.wait(kel::test::watchdogDeadline())) {
            ADD_FAILURE() << "gate not opened in time";
            std::abort();
        }
    }
};

// An operation whose job the test finishes: perform keeps the completion and opens `performed`,
// so the test decides when, and on which thread, the job completes.
class ManualOperation final : public kel::AsyncOperation<int> {
  public:
    std::atomic<int> performCalls = 0;
    Gate performed;

    void finish(Result<int> result) {
        performed.wait();
        // Moved out first: the completion may hold the last reference to this operation.
        CompletionHandler completion = std::move(pending_);
        completion(std::move(result));
    }

  protected:
    void perform(CompletionHandler completion) override {
        ++performCalls;
        pending_ = std::move(completion);
        performed.open();
    }

  private:
    CompletionHandler pending_;  // written before `performed` opens, read after
};

TEST(AsyncOperationCancellation, CancelledBeforeStartReportsOnceAndNeverPerforms) {
    auto operation = std::make_shared<ManualOperation>();
    std::vector<Result<int>> reports;
    operation->completion = [&](Result<int> result) { reports.push_back(result); };
    operation->cancel();
    operation->start();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(kel::errorAs<kel::AsyncOperationError>(reports[0].error()),
              kel::AsyncOperationError::cancelled);
    EXPECT_EQ(operation->performCalls, 0);
    EXPECT_FALSE(operation->isExecuting() || operation->isFinished());  // the state is left alone
}

// Not ready once started, though its dependency is done; released by its owner, the operation
// lives until its job completes on another thread.
TEST(AsyncOperationState, NotReadyOnceStartedAndKeptAliveByItsPendingJob) {
    auto dependency = kel::BlockOperation::make([] {});
    dependency->start();
    auto operation = std::make_shared<ManualOperation>();
    operation->addDependency(dependency);
    ManualOperation& raw = *operation;
    std::weak_ptr<ManualOperation> watcher = operation;
    bool finishedWhenReported = false;
    raw.completion = [&](Result<int> result) {
        finishedWhenReported =
            result.value() == 1 && raw.isFinished() && !raw.isExecuting() && !raw.isReady();
    };
    EXPECT_TRUE(raw.isReady());
    raw.start();
    EXPECT_TRUE(raw.isExecuting());
    EXPECT_FALSE(raw.isReady());

    operation.reset();
    ASSERT_FALSE(watcher.expired());
    std::thread([&] { raw.finish(Result<int>::success(1)); }).join();
    EXPECT_TRUE(finishedWhenReported);
    EXPECT_TRUE(watcher.expired());
}

TEST(TaskSchedulerQueues, AreNamedAndLimitedAfterTheScheduler) {
    kel::TaskScheduler scheduler("x");
    const kel::DispatchQueue& dispatch = scheduler.concurrentDispatchQueue();
    EXPECT_EQ(dispatch.label(), "x.TaskScheduler.concurrentDQ");
    const kel::OperationQueue &concurrent = *scheduler.concurrentOperationQueue(),
                              &serial = *scheduler.serialOperationQueue();
    EXPECT_EQ(concurrent.name(), "x.TaskScheduler.concurrentOQ");
    EXPECT_EQ(concurrent.maxConcurrentOperationCount(), -1);
    EXPECT_EQ(concurrent.underlyingQueue(), dispatch);
    EXPECT_EQ(serial.name(), "x.TaskScheduler.serialOQ");
    EXPECT_EQ(serial.maxConcurrentOperationCount(), 1);
}

// A block and an operation each wait for the delayed block, so they can only finish if all
// three run side by side on the concurrent queue.
TEST(TaskSchedulerSchedule, RunsConcurrentlyAndDelayedWorkNoEarlierThanAsked) {
    kel::TaskScheduler scheduler("concurrent");
    Gate delayedRan;
    std::atomic<int> onQueue = 0;
    auto waitForDelayed = [&] {
        onQueue += scheduler.concurrentDispatchQueue().isCurrent();
        delayedRan.wait();
    };
    const auto asked = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point started;
    scheduler.schedule(waitForDelayed);
    scheduler.schedule(kel::BlockOperation::make(waitForDelayed));
    scheduler.scheduleAfter(0.05, [&] {
        started = std::chrono::steady_clock::now();
        onQueue += scheduler.concurrentDispatchQueue().isCurrent();
        delayedRan.open();
    });
    delayedRan.wait();
    scheduler.concurrentOperationQueue()->waitUntilAllOperationsAreFinished();
    EXPECT_GE(started - asked, std::chrono::milliseconds(50));
    EXPECT_EQ(onQueue, 3);
}

TEST(TaskSchedulerLowPriority, RunsOneItemAtATimeInSubmissionOrder) {
    kel::TaskScheduler scheduler("serial");
    // No lock on purpose: only the queue orders these writes, so items that overlapped would
    // also show up under ThreadSanitizer.
    std::vector<int> order, expected(200);
    std::iota(expected.begin(), expected.end(), 0);
    for (int i : expected) {
        auto append = [&order, i] { order.push_back(i); };
        i % 2 ? scheduler.scheduleLowPriority(kel::BlockOperation::make(append))
              : scheduler.scheduleLowPriority(append);
    }
    scheduler.serialOperationQueue()->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(order, expected);
}

TEST(TaskSchedulerLowPriority, AnOperationCompletingOnAnotherThreadFreesTheSlot) {
    kel::TaskScheduler scheduler("async.serial");
    auto first = std::make_shared<ManualOperation>(), second = std::make_shared<ManualOperation>();
    std::atomic<bool> firstFinishedBeforeNext = false;
    scheduler.scheduleLowPriority(first);
    scheduler.scheduleLowPriority(
        kel::BlockOperation::make([&] { firstFinishedBeforeNext = first->isFinished(); }));
    scheduler.scheduleLowPriority(second);

    std::thread([&] { first->finish(Result<int>::success(1)); }).join();
    second->performed.wait();  // aborts if the slot was never freed
    EXPECT_TRUE(firstFinishedBeforeNext);
    second->finish(Result<int>::success(2));
    scheduler.serialOperationQueue()->waitUntilAllOperationsAreFinished();
}

// The job's completion, here on the test's thread, settles the promise at once: fulfilled with
// the value, cancelled by an AsyncOperationError (which an operation cancelled before it started
// reports), rejected by any other error.
TEST(TaskSchedulerPromise, SettlesByTheOperationsOutcome) {
    kel::TaskScheduler scheduler("promise");
    auto settle = [&](Result<int> result) {
        auto operation = std::make_shared<ManualOperation>();
        auto promise = scheduler.promise(operation);
        operation->finish(std::move(result));
        return promise.resolution();
    };
    auto fulfilled = settle(Result<int>::success(5));
    ASSERT_TRUE(fulfilled && fulfilled->isResolved());
    EXPECT_EQ(fulfilled->value(), 5);
    auto rejected = settle(Result<int>::failed(kel::makeError(std::runtime_error("offline"))));
    ASSERT_TRUE(rejected && rejected->isRejected());
    EXPECT_EQ(kel::errorDescription(rejected->error()), "offline");
    auto cancelled =
        settle(Result<int>::failed(kel::makeError(kel::AsyncOperationError::cancelled)));
    EXPECT_TRUE(cancelled && cancelled->isCancelled());
}

// The class-wide forms run on the shared scheduler's queues.
TEST(TaskSchedulerShared, ClassWideFormsActOnTheSharedScheduler) {
    const kel::TaskScheduler& shared = kel::TaskScheduler::shared();
    std::atomic<int> onSharedQueues = 0;
    kel::DispatchGroup ran;
    auto onConcurrent = [&] {
        ran.enter();
        return [&] {
            onSharedQueues += shared.concurrentDispatchQueue().isCurrent();
            ran.leave();
        };
    };
    kel::TaskScheduler::sharedSchedule(onConcurrent());
    kel::TaskScheduler::sharedSchedule(kel::BlockOperation::make(onConcurrent()));
    kel::TaskScheduler::sharedScheduleAfter(0.01, onConcurrent());
    std::atomic<bool> serialRan = false;
    ran.enter();
    kel::TaskScheduler::sharedScheduleLowPriority([&] {
        serialRan = true;
        ran.leave();
    });
    auto operation = std::make_shared<ManualOperation>();
    auto promise = kel::TaskScheduler::sharedPromise(operation);
    operation->finish(Result<int>::success(3));
    ASSERT_TRUE(ran.wait(kel::test::watchdogDeadline()));
    EXPECT_EQ(onSharedQueues, 3);
    EXPECT_TRUE(serialRan);
    EXPECT_EQ(promise.value(), 3);
}

}  // namespace

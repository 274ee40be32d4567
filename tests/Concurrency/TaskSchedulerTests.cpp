#include "kel/Concurrency/TaskScheduler.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "SchedulerTestSupport.hpp"
#include "kel/Promises/DeferredPromise.hpp"

namespace {

using kel::schedulertest::await;
using kel::schedulertest::Gate;

TEST(TaskSchedulerQueues, AreNamedAndConfiguredAfterTheScheduler) {
    kel::TaskScheduler scheduler("x");
    EXPECT_EQ(scheduler.concurrentDispatchQueue().label(), "x.TaskScheduler.concurrentDQ");
    EXPECT_TRUE(scheduler.concurrentDispatchQueue().isConcurrent());
    EXPECT_EQ(scheduler.concurrentDispatchQueue().qos(), kel::DispatchQoS::default_);
    EXPECT_EQ(scheduler.callbackQueue(), scheduler.concurrentDispatchQueue());

    EXPECT_EQ(scheduler.concurrentOperationQueue()->name(), "x.TaskScheduler.concurrentOQ");
    EXPECT_EQ(scheduler.concurrentOperationQueue()->maxConcurrentOperationCount(), -1);
    EXPECT_EQ(scheduler.concurrentOperationQueue()->underlyingQueue(),
              scheduler.concurrentDispatchQueue());

    EXPECT_EQ(scheduler.serialOperationQueue()->name(), "x.TaskScheduler.serialOQ");
    EXPECT_EQ(scheduler.serialOperationQueue()->maxConcurrentOperationCount(), 1);
}

TEST(TaskSchedulerQueues, SharedSchedulerIsOneInstanceNamedDefault) {
    std::vector<kel::TaskScheduler*> seen(8);
    std::vector<std::thread> threads;
    for (auto& slot : seen) {
        threads.emplace_back([&slot] { slot = &kel::TaskScheduler::shared(); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(std::all_of(seen.begin(), seen.end(), [&](auto* s) { return s == seen[0]; }));
    EXPECT_EQ(seen[0]->concurrentDispatchQueue().label(), "default.TaskScheduler.concurrentDQ");
    EXPECT_EQ(seen[0]->serialOperationQueue()->name(), "default.TaskScheduler.serialOQ");
}

TEST(TaskSchedulerSchedule, BlocksAndOperationsRunConcurrentlyOnTheDispatchQueue) {
    kel::TaskScheduler scheduler("concurrent");
    // Each waits for the other: a scheduler that ran them one at a time would never finish.
    Gate firstRunning;
    Gate secondRunning;
    std::atomic<bool> onQueue = true;
    scheduler.schedule([&] {
        onQueue = onQueue && scheduler.concurrentDispatchQueue().isCurrent();
        firstRunning.open();
        secondRunning.wait();
    });
    scheduler.schedule(kel::BlockOperation::make([&] {
        onQueue = onQueue && scheduler.concurrentDispatchQueue().isCurrent();
        secondRunning.open();
        firstRunning.wait();
    }));
    scheduler.concurrentOperationQueue()->waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(onQueue);
}

TEST(TaskSchedulerLowPriority, RunsOneItemAtATimeInSubmissionOrder) {
    kel::TaskScheduler scheduler("serial");
    constexpr int items = 200;
    // Written without a lock on purpose: only the queue's serialisation orders these writes,
    // so overlapping items would also show up under ThreadSanitizer.
    std::vector<int> order;
    int running = 0;
    bool overlapped = false;
    auto record = [&](int i) {
        overlapped = overlapped || running != 0;
        ++running;
        order.push_back(i);
        --running;
    };
    for (int i = 0; i < items; ++i) {
        if (i % 2 == 0) {
            scheduler.scheduleLowPriority([&record, i] { record(i); });
        } else {
            scheduler.scheduleLowPriority(kel::BlockOperation::make([&record, i] { record(i); }));
        }
    }
    scheduler.serialOperationQueue()->waitUntilAllOperationsAreFinished();
    ASSERT_EQ(order.size(), static_cast<std::size_t>(items));
    for (int i = 0; i < items; ++i) {
        EXPECT_EQ(order[i], i);
    }
    EXPECT_FALSE(overlapped);
}

TEST(TaskSchedulerAfter, RunsNoEarlierThanAskedOnTheConcurrentQueue) {
    kel::TaskScheduler scheduler("after");
    constexpr double delay = 0.05;
    Gate ran;
    std::atomic<bool> onQueue = false;
    auto asked = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point started;
    scheduler.scheduleAfter(delay, [&] {
        started = std::chrono::steady_clock::now();
        onQueue = scheduler.concurrentDispatchQueue().isCurrent();
        ran.open();
    });
    ran.wait();
    EXPECT_GE(std::chrono::duration<double>(started - asked).count(), delay);
    EXPECT_TRUE(onQueue);
}

// An operation that completes at once from the thread the queue starts it on.
template <class T>
class ImmediateOperation final : public kel::AsyncOperation<T> {
  public:
    explicit ImmediateOperation(kel::Result<T> result) : result_(std::move(result)) {}

  protected:
    void perform(typename kel::AsyncOperation<T>::CompletionHandler completion) override {
        completion(result_);
    }

  private:
    kel::Result<T> result_;
};

TEST(TaskSchedulerPromise, SettlesByTheOperationsOutcome) {
    kel::TaskScheduler scheduler("promise");

    auto fulfilled = await(
        scheduler.promise(std::make_shared<ImmediateOperation<int>>(kel::Result<int>::success(5))));
    ASSERT_TRUE(fulfilled.isResolved());
    EXPECT_EQ(fulfilled.value(), 5);

    auto rejected = await(scheduler.promise(std::make_shared<ImmediateOperation<int>>(
        kel::Result<int>::failed(kel::makeError(std::runtime_error("offline"))))));
    ASSERT_TRUE(rejected.isRejected());
    EXPECT_EQ(kel::errorDescription(rejected.error()), "offline");

    // An AsyncOperationError from the job itself cancels, just as cancellation before start.
    auto reportedCancel = await(scheduler.promise(std::make_shared<ImmediateOperation<void>>(
        kel::Result<void>::failed(kel::makeError(kel::AsyncOperationError::cancelled)))));
    EXPECT_TRUE(reportedCancel.isCancelled());

    auto cancelledFirst = std::make_shared<ImmediateOperation<int>>(kel::Result<int>::success(1));
    cancelledFirst->cancel();
    EXPECT_TRUE(await(scheduler.promise(cancelledFirst)).isCancelled());
}

TEST(TaskSchedulerPromise, FromOperationSchedulesAtOnceThroughTheGivenCallable) {
    auto operation = std::make_shared<ImmediateOperation<int>>(kel::Result<int>::success(3));
    int scheduled = 0;
    auto promise = kel::Promise<int>::fromOperation(
        operation, [&](std::shared_ptr<kel::AsyncOperation<int>> given) {
            ++scheduled;
            EXPECT_EQ(given, operation);
            ASSERT_TRUE(static_cast<bool>(given->completion));
            given->start();
        });
    EXPECT_EQ(scheduled, 1);
    auto resolution = promise.resolution();
    ASSERT_TRUE(resolution.has_value());
    EXPECT_EQ(resolution->value(), 3);
}

TEST(TaskSchedulerPromise, SharedFormRunsOnTheSharedScheduler) {
    std::atomic<bool> onShared = false;
    class Probe final : public kel::AsyncOperation<int> {
      public:
        explicit Probe(std::atomic<bool>& onShared) : onShared_(onShared) {}

      protected:
        void perform(CompletionHandler completion) override {
            onShared_ = kel::TaskScheduler::shared().concurrentDispatchQueue().isCurrent();
            completion(kel::Result<int>::success(0));
        }

      private:
        std::atomic<bool>& onShared_;
    };
    EXPECT_TRUE(await(kel::TaskScheduler::shared().promise(std::make_shared<Probe>(onShared)))
                    .isResolved());
    EXPECT_TRUE(onShared);
}

}  // namespace

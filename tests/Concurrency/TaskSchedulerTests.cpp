#include "kel/Concurrency/TaskScheduler.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "SchedulerTestSupport.hpp"

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

    std::vector<kel::TaskScheduler*> shared(4);
    std::vector<std::thread> threads;
    for (auto& slot : shared) {
        threads.emplace_back([&slot] { slot = &kel::TaskScheduler::shared(); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(shared, std::vector<kel::TaskScheduler*>(4, shared[0]));
    EXPECT_EQ(shared[0]->serialOperationQueue()->name(), "default.TaskScheduler.serialOQ");
}

TEST(TaskSchedulerSchedule, BlocksAndOperationsRunConcurrentlyOnTheDispatchQueue) {
    kel::TaskScheduler scheduler("concurrent");
    // Each waits for the other, so run one at a time they would never finish.
    Gate firstRunning, secondRunning;
    std::atomic<int> onQueue = 0;
    scheduler.schedule([&] {
        onQueue += scheduler.concurrentDispatchQueue().isCurrent();
        firstRunning.open();
        secondRunning.wait();
    });
    scheduler.schedule(kel::BlockOperation::make([&] {
        onQueue += scheduler.concurrentDispatchQueue().isCurrent();
        secondRunning.open();
        firstRunning.wait();
    }));
    scheduler.concurrentOperationQueue()->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(onQueue, 2);
}

TEST(TaskSchedulerLowPriority, RunsOneItemAtATimeInSubmissionOrder) {
    kel::TaskScheduler scheduler("serial");
    // No lock on purpose: only the queue orders these writes, so overlapping items would also
    // show up under ThreadSanitizer.
    std::vector<int> order;
    int running = 0;
    bool overlapped = false;
    auto record = [&](int i) {
        overlapped = overlapped || running++ != 0;
        order.push_back(i);
        --running;
    };
    std::vector<int> expected;
    for (int i = 0; i < 200; ++i) {
        expected.push_back(i);
        if (i % 2 == 0) {
            scheduler.scheduleLowPriority([&record, i] { record(i); });
        } else {
            scheduler.scheduleLowPriority(kel::BlockOperation::make([&record, i] { record(i); }));
        }
    }
    scheduler.serialOperationQueue()->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(order, expected);
    EXPECT_FALSE(overlapped);
}

TEST(TaskSchedulerAfter, RunsNoEarlierThanAskedOnTheConcurrentQueue) {
    kel::TaskScheduler scheduler("after");
    Gate ran;
    std::atomic<bool> onQueue = false;
    auto asked = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point started;
    scheduler.scheduleAfter(0.05, [&] {
        started = std::chrono::steady_clock::now();
        onQueue = scheduler.concurrentDispatchQueue().isCurrent();
        ran.open();
    });
    ran.wait();
    EXPECT_GE(started - asked, std::chrono::milliseconds(50));
    EXPECT_TRUE(onQueue);
}

// An operation that completes at once, on the thread the queue starts it on.
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

template <class T>
auto immediate(kel::Result<T> result) {
    return std::make_shared<ImmediateOperation<T>>(std::move(result));
}

TEST(TaskSchedulerPromise, SettlesByTheOperationsOutcome) {
    kel::TaskScheduler scheduler("promise");
    auto fulfilled = await(scheduler.promise(immediate(kel::Result<int>::success(5))));
    ASSERT_TRUE(fulfilled.isResolved());
    EXPECT_EQ(fulfilled.value(), 5);

    auto rejected = await(scheduler.promise(
        immediate(kel::Result<int>::failed(kel::makeError(std::runtime_error("offline"))))));
    ASSERT_TRUE(rejected.isRejected());
    EXPECT_EQ(kel::errorDescription(rejected.error()), "offline");

    // An AsyncOperationError cancels, whether the job reports it or the operation was
    // cancelled before it started.
    EXPECT_TRUE(await(scheduler.promise(immediate(kel::Result<void>::failed(
                          kel::makeError(kel::AsyncOperationError::cancelled)))))
                    .isCancelled());
    // Cancelled before it starts, an operation keeps its queue slot for good (it never reports
    // finished), so this case starts it by hand through fromOperation's scheduling callable.
    auto cancelledFirst = immediate(kel::Result<int>::success(1));
    cancelledFirst->cancel();
    int scheduled = 0;
    auto cancelled = kel::Promise<int>::fromOperation(
        cancelledFirst, [&](const std::shared_ptr<kel::AsyncOperation<int>>& operation) {
            ++scheduled;
            operation->start();
        });
    EXPECT_EQ(scheduled, 1);
    ASSERT_TRUE(cancelled.resolution().has_value());
    EXPECT_TRUE(cancelled.resolution()->isCancelled());
}

}  // namespace

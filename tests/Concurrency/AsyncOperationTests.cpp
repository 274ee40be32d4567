#include "kel/Concurrency/AsyncOperation.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "SchedulerTestSupport.hpp"
#include "kel/Concurrency/TaskScheduler.hpp"

namespace {

// An operation whose job the test finishes: perform keeps its completion and opens a gate, so
// the test decides when, and on which thread, the job completes.
class ManualOperation final : public kel::AsyncOperation<int> {
  public:
    std::atomic<int> performCalls = 0;
    kel::schedulertest::Gate performed;

    void finish(int value) {
        performed.wait();
        CompletionHandler handler;
        {
            std::lock_guard lock(mutex_);
            handler = std::move(pending_);
        }
        handler(kel::Result<int>::success(value));
    }

  protected:
    void perform(CompletionHandler completion) override {
        ++performCalls;
        {
            std::lock_guard lock(mutex_);
            pending_ = std::move(completion);
        }
        performed.open();
    }

  private:
    std::mutex mutex_;
    CompletionHandler pending_;  // guarded by mutex_
};

void finishOnAnotherThread(ManualOperation& operation, int value) {
    std::thread([&] { operation.finish(value); }).join();
}

TEST(AsyncOperationIdentity, IdIsSixteenCharactersDrawnFromTheWholeAlphabet) {
    const std::string alphabet = "ABCDEF0123456789";
    std::set<std::string> ids;
    std::set<char> used;
    for (int i = 0; i < 500; ++i) {
        std::string id = ManualOperation().operationID();
        ASSERT_EQ(id.size(), 16u);
        ASSERT_EQ(id.find_first_not_of(alphabet), std::string::npos) << id;
        used.insert(id.begin(), id.end());
        ids.insert(id);
    }
    EXPECT_EQ(ids.size(), 500u);
    EXPECT_EQ(used.size(), alphabet.size());  // 8000 draws reach every symbol
}

TEST(AsyncOperationCancellation, CancelledBeforeStartReportsOnceAndNeverPerforms) {
    auto operation = std::make_shared<ManualOperation>();
    int reports = 0;
    operation->completion = [&](kel::Result<int> result) {
        ++reports;
        ASSERT_FALSE(result.isSuccess());
        EXPECT_EQ(kel::errorAs<kel::AsyncOperationError>(result.error()),
                  kel::AsyncOperationError::cancelled);
    };
    operation->cancel();
    operation->start();
    EXPECT_EQ(reports, 1);
    EXPECT_EQ(operation->performCalls, 0);
    EXPECT_FALSE(operation->isExecuting());  // the state is left as it was
    EXPECT_FALSE(operation->isFinished());
}

TEST(AsyncOperationState, ReadinessFollowsTheStateAndEveryChangeIsObserved) {
    auto dependency = kel::BlockOperation::make([] {});
    dependency->start();
    auto operation = std::make_shared<ManualOperation>();
    operation->addDependency(dependency);
    std::atomic<int> executingChanges = 0, finishedChanges = 0, readyChanges = 0;
    auto executing = operation->observe(std::string(kel::Operation::isExecutingKey),
                                        [&](std::string_view) { ++executingChanges; });
    auto finished = operation->observe(std::string(kel::Operation::isFinishedKey),
                                       [&](std::string_view) { ++finishedChanges; });
    auto ready = operation->observe(std::string(kel::Operation::isReadyKey),
                                    [&](std::string_view) { ++readyChanges; });
    EXPECT_TRUE(operation->isReady());

    operation->start();
    EXPECT_TRUE(operation->isExecuting());
    EXPECT_FALSE(operation->isReady());  // dependencies are done, but it has started

    finishOnAnotherThread(*operation, 1);
    EXPECT_TRUE(operation->isFinished());
    EXPECT_FALSE(operation->isExecuting());
    EXPECT_FALSE(operation->isReady());
    // ready -> executing -> finished: two changes, heard through each readiness key.
    EXPECT_EQ(executingChanges, 2);
    EXPECT_EQ(finishedChanges, 2);
    EXPECT_EQ(readyChanges, 2);
}

TEST(AsyncOperationLifetime, PendingJobKeepsTheOperationAlive) {
    auto operation = std::make_shared<ManualOperation>();
    std::weak_ptr<ManualOperation> watcher = operation;
    std::optional<int> delivered;
    operation->completion = [&](kel::Result<int> result) { delivered = result.value(); };
    operation->start();
    ManualOperation& raw = *operation;
    operation.reset();
    ASSERT_FALSE(watcher.expired());
    raw.finish(7);
    EXPECT_EQ(delivered, 7);
    EXPECT_TRUE(watcher.expired());
}

TEST(AsyncOperationQueueing, CompletionOnAnotherThreadFreesTheSerialSlot) {
    kel::TaskScheduler scheduler("async.serial");
    auto first = std::make_shared<ManualOperation>();
    auto second = std::make_shared<ManualOperation>();
    std::atomic<bool> firstFinishedBeforeNext = false;
    scheduler.scheduleLowPriority(first);
    scheduler.scheduleLowPriority(
        kel::BlockOperation::make([&] { firstFinishedBeforeNext = first->isFinished(); }));
    scheduler.scheduleLowPriority(second);

    first->performed.wait();
    finishOnAnotherThread(*first, 1);
    second->performed.wait();  // hangs (and the gate aborts) if the slot was never freed
    EXPECT_TRUE(firstFinishedBeforeNext);
    second->finish(2);
    scheduler.serialOperationQueue()->waitUntilAllOperationsAreFinished();
}

}  // namespace

#include "kel/Concurrency/AsyncOperation.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "SchedulerTestSupport.hpp"
#include "kel/Concurrency/TaskScheduler.hpp"

namespace {

using kel::schedulertest::Gate;

// An operation whose job is finished by the test: perform keeps the completion it is given
// and opens a gate, so the test decides when, and on which thread, the job completes.
class ManualOperation final : public kel::AsyncOperation<int> {
  public:
    std::atomic<int> performCalls = 0;
    Gate performed;

    // Completes the job with value; waits for perform first.
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

TEST(AsyncOperationIdentity, IdIsSixteenCharactersOfTheAlphabetAndFresh) {
    const std::string alphabet = "ABCDEF0123456789";
    std::set<std::string> ids;
    std::set<char> used;
    for (int i = 0; i < 500; ++i) {
        ManualOperation operation;
        const std::string& id = operation.operationID();
        ASSERT_EQ(id.size(), 16u);
        for (char c : id) {
            ASSERT_NE(alphabet.find(c), std::string::npos) << id;
            used.insert(c);
        }
        EXPECT_TRUE(ids.insert(id).second) << "repeated id " << id;
    }
    // 8000 draws over 16 symbols: every symbol shows up unless the draw is broken.
    EXPECT_EQ(used.size(), alphabet.size());
}

TEST(AsyncOperationCancellation, CancelledBeforeStartReportsOnceAndNeverPerforms) {
    auto operation = std::make_shared<ManualOperation>();
    std::vector<kel::Error> reported;
    operation->completion = [&](kel::Result<int> result) {
        ASSERT_FALSE(result.isSuccess());
        reported.push_back(result.error());
    };
    operation->cancel();
    operation->start();

    ASSERT_EQ(reported.size(), 1u);
    auto error = kel::errorAs<kel::AsyncOperationError>(reported.front());
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(*error, kel::AsyncOperationError::cancelled);
    EXPECT_EQ(operation->performCalls, 0);
    // The state is left alone: the operation reports neither executing nor finished.
    EXPECT_FALSE(operation->isExecuting());
    EXPECT_FALSE(operation->isFinished());
}

TEST(AsyncOperationState, ReadinessFollowsTheStateWhateverTheDependencies) {
    auto dependency = kel::BlockOperation::make([] {});
    dependency->start();
    auto operation = std::make_shared<ManualOperation>();
    operation->addDependency(dependency);
    EXPECT_TRUE(operation->isAsynchronous());
    EXPECT_TRUE(operation->isReady());

    operation->start();
    EXPECT_TRUE(operation->isExecuting());
    EXPECT_FALSE(operation->isReady());
    EXPECT_FALSE(operation->isFinished());

    std::thread completer([&] { operation->finish(1); });
    completer.join();
    EXPECT_TRUE(operation->isFinished());
    EXPECT_FALSE(operation->isExecuting());
    EXPECT_FALSE(operation->isReady());
}

TEST(AsyncOperationState, UnfinishedDependencyKeepsItUnready) {
    auto dependency = std::make_shared<ManualOperation>();
    auto operation = std::make_shared<ManualOperation>();
    operation->addDependency(dependency);
    EXPECT_FALSE(operation->isReady());
    dependency->start();
    dependency->finish(0);
    EXPECT_TRUE(operation->isReady());
}

TEST(AsyncOperationState, ObserversOfTheReadinessKeysHearEachStateChange) {
    auto operation = std::make_shared<ManualOperation>();
    std::atomic<int> executingChanges = 0;
    std::atomic<int> finishedChanges = 0;
    std::atomic<int> readyChanges = 0;
    std::atomic<bool> sawFinished = false;
    auto executing = operation->observe(std::string(kel::Operation::isExecutingKey),
                                        [&](std::string_view) { ++executingChanges; });
    auto finished =
        operation->observe(std::string(kel::Operation::isFinishedKey), [&](std::string_view) {
            ++finishedChanges;
            sawFinished = sawFinished || operation->isFinished();
        });
    auto ready = operation->observe(std::string(kel::Operation::isReadyKey),
                                    [&](std::string_view) { ++readyChanges; });

    operation->start();
    std::thread completer([&] { operation->finish(1); });
    completer.join();

    // ready -> executing -> finished: two changes, each heard through every readiness key.
    EXPECT_EQ(executingChanges, 2);
    EXPECT_EQ(finishedChanges, 2);
    EXPECT_EQ(readyChanges, 2);
    EXPECT_TRUE(sawFinished);
}

TEST(AsyncOperationLifetime, PendingCompletionKeepsTheOperationAlive) {
    auto operation = std::make_shared<ManualOperation>();
    std::weak_ptr<ManualOperation> watcher = operation;
    std::optional<int> delivered;
    operation->completion = [&](kel::Result<int> result) { delivered = result.value(); };
    operation->start();
    ManualOperation* raw = operation.get();
    operation.reset();

    ASSERT_FALSE(watcher.expired()) << "released while its job was still running";
    raw->finish(7);
    EXPECT_EQ(delivered, 7);
    EXPECT_TRUE(watcher.expired());
}

TEST(AsyncOperationQueueing, CompletionOnAnotherThreadFreesTheSerialSlot) {
    kel::TaskScheduler scheduler("async.serial");
    auto first = std::make_shared<ManualOperation>();
    auto second = std::make_shared<ManualOperation>();
    std::atomic<bool> firstFinishedBeforeSecondStarted = false;
    second->completion = [](kel::Result<int>) {};
    scheduler.scheduleLowPriority(first);
    scheduler.scheduleLowPriority(
        kel::BlockOperation::make([&] { firstFinishedBeforeSecondStarted = first->isFinished(); }));
    scheduler.scheduleLowPriority(second);

    // The first job has been handed its completion but holds the only slot until it calls it.
    first->performed.wait();
    EXPECT_EQ(second->performCalls, 0);
    std::thread completer([&] { first->finish(1); });
    completer.join();

    second->performed.wait();
    EXPECT_TRUE(firstFinishedBeforeSecondStarted);
    second->finish(2);
    scheduler.serialOperationQueue()->waitUntilAllOperationsAreFinished();
}

}  // namespace

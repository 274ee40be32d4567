#include "kel/Concurrency/Synchronizer.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "SchedulerTestSupport.hpp"
#include "kel/Promises/DeferredPromise.hpp"

namespace {

using kel::schedulertest::await;

// A group notification that had fired would have been submitted to the queue synchronously, so
// once this returns the queue has run it.
void drain(const kel::DispatchQueue& queue) {
    queue.sync([] {});
}

TEST(SynchronizerJobs, ResultWaitsOnTheQueueUntilEveryOverlappingJobHasSettled) {
    kel::Synchronizer synchronizer;
    kel::DispatchQueue queue("synchronizer.test");
    kel::DeferredPromise<void> first, second;
    std::atomic<bool> onQueue = false;
    auto firstResult = synchronizer.synchronize(queue, [&] { return first.promise; });
    auto secondResult =
        synchronizer.synchronize(queue, [&] { return second.promise; }).then(kel::zalgo(), [&] {
            onQueue = queue.isCurrent();
        });

    second.resolve();
    drain(queue);
    EXPECT_FALSE(secondResult.resolution().has_value()) << "fulfilled while the first job ran";
    first.resolve();
    EXPECT_TRUE(await(firstResult).isResolved());
    EXPECT_TRUE(await(secondResult).isResolved());
    EXPECT_TRUE(onQueue);
}

TEST(SynchronizerFailures, FailedJobsLeaveTheirResultsPendingButLeaveTheGroup) {
    kel::Synchronizer synchronizer;
    kel::DispatchQueue queue("synchronizer.failures");
    kel::DeferredPromise<void> rejected;
    std::optional<kel::Promise<void>::Cancel> cancel;
    kel::Promise<void> cancelled([&](auto, auto, auto c) { cancel.emplace(c); });

    auto rejectedResult = synchronizer.synchronize(queue, [&] { return rejected.promise; });
    auto cancelledResult = synchronizer.synchronize(queue, [&] { return cancelled; });
    EXPECT_THROW(synchronizer.synchronize(
                     queue, []() -> kel::Promise<void> { throw std::runtime_error("no job"); }),
                 std::runtime_error);
    rejected.reject(std::runtime_error("job failed"));
    (*cancel)();

    auto later = synchronizer.synchronize(queue, [] { return kel::Promise<void>::fulfilled(); });
    EXPECT_TRUE(await(later).isResolved());
    drain(queue);
    EXPECT_FALSE(rejectedResult.resolution().has_value());
    EXPECT_FALSE(cancelledResult.resolution().has_value());
}

TEST(SynchronizerJobs, JobsFromManyThreadsAllComplete) {
    kel::Synchronizer synchronizer;
    auto queue = kel::DispatchQueue::global();
    std::vector<std::vector<kel::Promise<void>>> results(4);
    std::vector<std::thread> threads;
    for (auto& perThread : results) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                perThread.push_back(synchronizer.synchronize(queue, [&] {
                    return kel::Promise<void>(
                        [&](auto fulfill, auto) { queue.async([fulfill] { fulfill(); }); });
                }));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (auto& perThread : results) {
        for (auto& result : perThread) {
            EXPECT_TRUE(await(result).isResolved());
        }
    }
}

}  // namespace

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

// Runs every item already submitted to a serial queue; a notification that had fired would have
// been submitted synchronously, before this returns.
void drain(const kel::DispatchQueue& queue) {
    queue.sync([] {});
}

TEST(SynchronizerJobs, ResultWaitsUntilEveryOverlappingJobHasSettled) {
    kel::Synchronizer synchronizer;
    kel::DispatchQueue queue("synchronizer.test");
    kel::DeferredPromise<void> first;
    kel::DeferredPromise<void> second;

    auto firstResult = synchronizer.synchronize(queue, [&] { return first.promise; });
    auto secondResult = synchronizer.synchronize(queue, [&] { return second.promise; });

    second.resolve();
    drain(queue);
    EXPECT_FALSE(secondResult.resolution().has_value()) << "fulfilled while the first job ran";

    first.resolve();
    EXPECT_TRUE(await(firstResult).isResolved());
    EXPECT_TRUE(await(secondResult).isResolved());
}

TEST(SynchronizerJobs, ResultIsFulfilledOnTheGivenQueue) {
    kel::Synchronizer synchronizer;
    kel::DispatchQueue queue("synchronizer.target");
    kel::DeferredPromise<void> job;
    std::atomic<bool> onQueue = false;
    // The handler is registered before the job settles, so it runs where the result is
    // fulfilled rather than on this thread.
    auto result =
        synchronizer.synchronize(queue, [&] { return job.promise; }).then(kel::zalgo(), [&] {
            onQueue = queue.isCurrent();
        });
    job.resolve();
    await(result);
    EXPECT_TRUE(onQueue);
}

TEST(SynchronizerFailures, RejectedOrCancelledJobLeavesItsResultPendingButFreesTheGroup) {
    kel::Synchronizer synchronizer;
    kel::DispatchQueue queue("synchronizer.failures");
    kel::DeferredPromise<void> rejected;
    std::optional<kel::Promise<void>::Cancel> cancel;
    kel::Promise<void> cancelled([&](auto, auto, auto c) { cancel.emplace(c); });

    auto rejectedResult = synchronizer.synchronize(queue, [&] { return rejected.promise; });
    auto cancelledResult = synchronizer.synchronize(queue, [&] { return cancelled; });
    rejected.reject(std::runtime_error("job failed"));
    (*cancel)();

    // Both jobs left the group: a later job completes.
    auto later = synchronizer.synchronize(queue, [] { return kel::Promise<void>::fulfilled(); });
    EXPECT_TRUE(await(later).isResolved());
    drain(queue);
    EXPECT_FALSE(rejectedResult.resolution().has_value());
    EXPECT_FALSE(cancelledResult.resolution().has_value());
}

TEST(SynchronizerFailures, ThrowingClosureLeavesTheGroupAndPropagates) {
    kel::Synchronizer synchronizer;
    kel::DispatchQueue queue("synchronizer.throwing");
    EXPECT_THROW(synchronizer.synchronize(
                     queue, []() -> kel::Promise<void> { throw std::runtime_error("no job"); }),
                 std::runtime_error);
    auto later = synchronizer.synchronize(queue, [] { return kel::Promise<void>::fulfilled(); });
    EXPECT_TRUE(await(later).isResolved());
}

TEST(SynchronizerJobs, JobsFromManyThreadsAllComplete) {
    kel::Synchronizer synchronizer;
    auto queue = kel::DispatchQueue::global();
    constexpr int threads = 4;
    constexpr int jobsPerThread = 50;
    std::vector<kel::Promise<void>> results[threads];
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < jobsPerThread; ++i) {
                results[t].push_back(synchronizer.synchronize(queue, [&] {
                    return kel::Promise<void>(
                        [&](auto fulfill, auto) { queue.async([fulfill] { fulfill(); }); });
                }));
            }
        });
    }
    for (auto& worker : workers) {
        worker.join();
    }
    for (auto& perThread : results) {
        for (auto& result : perThread) {
            EXPECT_TRUE(await(result).isResolved());
        }
    }
    EXPECT_TRUE(synchronizer.group().wait(kel::DispatchTime::now() + 20.0));
}

}  // namespace

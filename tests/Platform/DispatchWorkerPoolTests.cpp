#include <gtest/gtest.h>

#include <chrono>
#include <latch>
#include <memory>

#include "Dispatch/WorkerPool.hpp"
#include "Watchdog.hpp"

namespace {

using kel::detail::BlockingScope;
using kel::detail::WorkerPool;
using namespace std::chrono_literals;

void runTask(WorkerPool::Item& item) noexcept {
    item.task();
}

// Workers are detached threads that use the pool until the process ends: pools are leaked.
WorkerPool& newPool(WorkerPool::Options options) {
    return *new WorkerPool(options, runTask);
}

void runAndWait(WorkerPool& pool) {
    auto ran = std::make_shared<std::latch>(1);
    pool.push(WorkerPool::Item{[ran] { ran->count_down(); }, nullptr});
    ran->wait();
}

TEST(DispatchWorkerPoolTests, ExtraWorkerStartedForBlockedWorkLeavesAfterItsIdleTime) {
    WorkerPool& pool = newPool({.softLimit = 1,
                                .hardLimit = 4,
                                .idleTimeout = std::chrono::hours(1),
                                .extraIdleTimeout = 1ms});
    auto blocked = std::make_shared<std::latch>(1);
    auto release = std::make_shared<std::latch>(1);
    pool.push(WorkerPool::Item{[blocked, release] {
                                   BlockingScope blocking;
                                   blocked->count_down();
                                   release->wait();
                               },
                               nullptr});
    blocked->wait();
    // The only regular worker is blocked: this needs a worker beyond the soft limit.
    runAndWait(pool);
    release->count_down();
    EXPECT_TRUE(pool.waitForThreadCountAtMost(1, kel::test::kWatchdogTimeout));
    // Both workers went idle while the pool was beyond its soft limit; the one left is a
    // regular worker again and keeps the long idle time.
    EXPECT_FALSE(pool.waitForThreadCountAtMost(0, 100ms));
    runAndWait(pool);
}

TEST(DispatchWorkerPoolTests, IdleWorkersLeaveAndNewWorkBringsThemBack) {
    WorkerPool& pool = newPool({.softLimit = 2, .hardLimit = 4, .idleTimeout = 1ms});
    runAndWait(pool);
    ASSERT_TRUE(pool.waitForThreadCountAtMost(0, kel::test::kWatchdogTimeout));
    // A worker record freed by an exit is reused by the next thread.
    runAndWait(pool);
    EXPECT_TRUE(pool.waitForThreadCountAtMost(0, kel::test::kWatchdogTimeout));
}

}  // namespace

#include "kel/Platform/RunLoop.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "kel/Platform/DispatchGroup.hpp"
#include "kel/Platform/DispatchQueue.hpp"

namespace {

using kel::DispatchQueue;
using kel::DispatchTime;
using kel::RunLoop;
using namespace std::chrono_literals;

TEST(MainThread, IsTheInitialThreadOnly) {
    EXPECT_TRUE(kel::isMainThread());
    bool onOther = true;
    std::thread([&] { onOther = kel::isMainThread(); }).join();
    EXPECT_FALSE(onOther);
    bool onWorker = DispatchQueue::global().sync([] { return kel::isMainThread(); });
    EXPECT_TRUE(onWorker);  // sync on a concurrent queue runs on the caller: the main thread
    bool onPool = true;
    kel::DispatchGroup group;
    DispatchQueue::global().async(group, [&] { onPool = kel::isMainThread(); });
    ASSERT_TRUE(group.wait(DispatchTime::now() + 30.0));
    EXPECT_FALSE(onPool);
}

TEST(MainQueue, RunsOnlyInsideTheRunLoopOnTheMainThreadInOrder) {
    std::vector<int> order;  // touched only on the main thread
    std::atomic<bool> wrongThread{false};
    std::atomic<bool> submitted{false};
    std::thread producer([&] {
        for (int i = 0; i < 100; ++i) {
            DispatchQueue::main().async([&, i] {
                if (!kel::isMainThread() || !DispatchQueue::main().isCurrent()) {
                    wrongThread = true;
                }
                order.push_back(i);
            });
        }
        submitted = true;
    });
    producer.join();
    EXPECT_TRUE(order.empty());  // nothing runs until the main thread pumps the loop
    EXPECT_TRUE(RunLoop::runUntil([&] { return order.size() == 100; }, 30s));
    EXPECT_FALSE(wrongThread.load());
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    }
}

TEST(MainQueue, SyncFromAnotherThreadRunsOnTheMainThread) {
    std::atomic<int> result{0};
    std::thread caller(
        [&] { result = DispatchQueue::main().sync([] { return kel::isMainThread() ? 1 : 2; }); });
    EXPECT_TRUE(RunLoop::runUntil([&] { return result.load() != 0; }, 30s));
    caller.join();
    EXPECT_EQ(result.load(), 1);
}

TEST(MainQueue, SyncValueOnTheMainThreadCallsDirectly) {
    int value = DispatchQueue::main().syncValue([] { return 5; });
    EXPECT_EQ(value, 5);
    DispatchQueue serial("test.syncValue");
    EXPECT_EQ(serial.syncValue([&] { return serial.isCurrent(); }), true);
}

TEST(MainQueue, AsyncAfterFiresInsideTheRunLoop) {
    bool fired = false;
    DispatchQueue::main().asyncAfter(DispatchTime::now() + 0.01,
                                     [&] { fired = kel::isMainThread(); });
    EXPECT_TRUE(RunLoop::runUntil([&] { return fired; }, 30s));
}

TEST(RunLoopControl, StopEndsTheInnermostRun) {
    std::vector<int> order;
    DispatchQueue::main().async([&] {
        order.push_back(1);
        DispatchQueue::main().async([&] {
            order.push_back(2);
            RunLoop::stop();  // ends the inner run
        });
        RunLoop::run();
        order.push_back(3);
        RunLoop::stop();  // ends the outer run
    });
    RunLoop::run();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(RunLoopControl, StopFromAnotherThreadWakesTheLoop) {
    std::thread stopper;
    DispatchQueue::main().async([&] { stopper = std::thread([] { RunLoop::stop(); }); });
    RunLoop::run();
    stopper.join();
}

TEST(RunLoopControl, RunUntilReportsTheTimeoutAndRunForReturns) {
    EXPECT_FALSE(RunLoop::runUntil([] { return false; }, 5ms));
    bool ran = false;
    DispatchQueue::main().async([&] { ran = true; });
    RunLoop::runFor(1ms);
    EXPECT_TRUE(ran);
}

TEST(RunLoopDeathTest, RunningOffTheMainThreadIsFatal) {
    EXPECT_DEATH(std::thread([] { RunLoop::runFor(1ms); }).join(),
                 "Fatal error: RunLoop::runFor must be called on the main thread");
    EXPECT_DEATH(std::thread([] { RunLoop::run(); }).join(),
                 "Fatal error: RunLoop::run must be called on the main thread");
}

}  // namespace

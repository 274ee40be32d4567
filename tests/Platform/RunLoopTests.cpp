#include "kel/Platform/RunLoop.hpp"

#include <gtest/gtest.h>

#include "Watchdog.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "kel/Platform/DispatchQueue.hpp"

namespace {

using kel::DispatchQueue;
using kel::DispatchTime;
using kel::RunLoop;
using namespace std::chrono_literals;

TEST(MainQueue, RunsOnlyInsideTheRunLoopOnTheMainThreadInOrder) {
    std::vector<int> order;  // touched only on the main thread
    std::atomic<bool> wrongThread{false};
    std::thread producer([&] {
        for (int i = 0; i < 100; ++i) {
            DispatchQueue::main().async([&, i] {
                if (!kel::isMainThread() || !DispatchQueue::main().isCurrent()) {
                    wrongThread = true;
                }
                order.push_back(i);
            });
        }
    });
    producer.join();
    EXPECT_TRUE(order.empty());  // nothing runs until the main thread pumps the loop
    EXPECT_TRUE(kel::test::pumpUntil([&] { return order.size() == 100; }));
    EXPECT_FALSE(wrongThread.load());
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(MainQueue, SyncFromAnotherThreadAndTimersRunOnTheMainThread) {
    std::atomic<int> result{0};
    std::thread caller(
        [&] { result = DispatchQueue::main().sync([] { return kel::isMainThread() ? 1 : 2; }); });
    bool fired = false;
    DispatchQueue::main().asyncAfter(DispatchTime::now() + 0.01,
                                     [&] { fired = kel::isMainThread(); });
    EXPECT_TRUE(kel::test::pumpUntil([&] { return result.load() != 0 && fired; }));
    caller.join();
    EXPECT_EQ(result.load(), 1);
    // On the main thread, syncValue calls directly where sync would deadlock.
    EXPECT_EQ(DispatchQueue::main().syncValue([] { return 5; }), 5);
}

TEST(RunLoopControl, StopEndsTheInnermostRunFromAnyThreadAndTimedRunsReturn) {
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

    // A stop from another thread wakes the loop.
    std::thread stopper;
    DispatchQueue::main().async([&] { stopper = std::thread([] { RunLoop::stop(); }); });
    RunLoop::run();
    stopper.join();

    // runUntil reports its timeout; runFor returns.
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

#include "kel/Platform/DispatchGroup.hpp"

#include <gtest/gtest.h>

#include "Watchdog.hpp"

#include <atomic>
#include <chrono>
#include <latch>
#include <thread>
#include <vector>

#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/RunLoop.hpp"

namespace {

using kel::DispatchGroup;
using kel::DispatchQueue;
using kel::DispatchTime;
using namespace std::chrono_literals;

TEST(DispatchGroupNotify, RunsExactlyOnceAfterTheLastLeaveFromManyThreads) {
    constexpr int rounds = 200;
    constexpr int leavers = 4;
    std::atomic<int> notified{0};
    std::atomic<int> notifiedTooEarly{0};
    DispatchGroup finished;
    for (int round = 0; round < rounds; ++round) {
        DispatchGroup group;
        std::atomic<int> left{0};
        for (int i = 0; i < leavers; ++i) {
            group.enter();
        }
        finished.enter();
        group.notify(DispatchQueue::global(), [&notified, &notifiedTooEarly, &left, finished] {
            if (left.load() != leavers) {
                notifiedTooEarly.fetch_add(1);
            }
            notified.fetch_add(1);
            finished.leave();
        });
        std::latch start(leavers);
        std::vector<std::jthread> threads;  // joined at the end of the round
        for (int i = 0; i < leavers; ++i) {
            threads.emplace_back([&] {
                start.arrive_and_wait();
                left.fetch_add(1);
                group.leave();
            });
        }
        // Wait inside the round: `left` lives on this stack frame.
        ASSERT_TRUE(finished.wait(kel::test::watchdogDeadline()));
    }
    EXPECT_EQ(notified.load(), rounds);
    EXPECT_EQ(notifiedTooEarly.load(), 0);
}

TEST(DispatchGroupNotifyAndWait, NotifyIsSubmittedOnceEmptyAndWaitTimesOutWhileBusy) {
    DispatchGroup group;
    int notified = 0;  // touched only on the main thread
    group.notify(DispatchQueue::main(), [&] {
        EXPECT_TRUE(kel::isMainThread());
        ++notified;
    });
    EXPECT_EQ(notified, 0);  // an empty group submits the block, it does not call it inline
    EXPECT_TRUE(kel::test::pumpUntil([&] { return notified == 1; }));

    // wait times out while the group is busy and returns once it is empty.
    EXPECT_TRUE(group.wait(DispatchTime::now()));
    group.enter();
    EXPECT_FALSE(group.wait(DispatchTime::now() + 0.005));
    std::thread leaver([&] { group.leave(); });
    EXPECT_TRUE(group.wait());
    leaver.join();
}

TEST(DispatchGroupDeathTest, LeaveWithoutEnterIsFatal) {
    EXPECT_DEATH(DispatchGroup().leave(),
                 "Fatal error: DispatchGroup::leave\\(\\) called more times than enter\\(\\)");
}

}  // namespace

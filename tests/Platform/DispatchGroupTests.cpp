#include "kel/Platform/DispatchGroup.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/RunLoop.hpp"

namespace {

using kel::DispatchGroup;
using kel::DispatchQueue;
using kel::DispatchTime;

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
        std::vector<std::thread> threads;
        for (int i = 0; i < leavers; ++i) {
            threads.emplace_back([&] {
                start.arrive_and_wait();
                left.fetch_add(1);
                group.leave();
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        // Wait inside the round: `left` lives on this stack frame.
        ASSERT_TRUE(finished.wait(DispatchTime::now() + 30.0));
    }
    EXPECT_EQ(notified.load(), rounds);
    EXPECT_EQ(notifiedTooEarly.load(), 0);
}

TEST(DispatchGroupNotify, OnAnEmptyGroupRunsAtOnceOnItsQueue) {
    DispatchGroup group;
    bool ranOnMain = false;
    group.notify(DispatchQueue::main(), [&] { ranOnMain = kel::isMainThread(); });
    EXPECT_FALSE(ranOnMain);  // submitted, not called inline
    EXPECT_TRUE(kel::RunLoop::runUntil([&] { return ranOnMain; }, std::chrono::seconds(30)));
}

TEST(DispatchGroupNotify, WaitsForTheNextEmptyingWhenTheGroupIsReentered) {
    DispatchGroup group;
    group.enter();
    std::atomic<int> notified{0};
    DispatchGroup done;
    done.enter();
    group.notify(DispatchQueue::global(), [&] {
        notified.fetch_add(1);
        done.leave();
    });
    group.enter();
    group.leave();
    EXPECT_FALSE(done.wait(DispatchTime::now() + 0.01));
    group.leave();
    ASSERT_TRUE(done.wait(DispatchTime::now() + 30.0));
    EXPECT_EQ(notified.load(), 1);
}

TEST(DispatchGroupWait, TimesOutWhileBusyAndReturnsOnceEmpty) {
    DispatchGroup group;
    EXPECT_TRUE(group.wait(DispatchTime::now()));
    group.enter();
    EXPECT_FALSE(group.wait(DispatchTime::now() + 0.005));
    std::thread leaver([&] { group.leave(); });
    EXPECT_TRUE(group.wait());
    leaver.join();
}

TEST(DispatchGroupWait, AsyncWithGroupCountsEveryItem) {
    DispatchGroup group;
    DispatchQueue serial("test.group.serial");
    std::atomic<int> ran{0};
    for (int i = 0; i < 500; ++i) {
        serial.async(group, [&] { ran.fetch_add(1); });
        DispatchQueue::global().async(group, [&] { ran.fetch_add(1); });
    }
    ASSERT_TRUE(group.wait(DispatchTime::now() + 30.0));
    EXPECT_EQ(ran.load(), 1000);
}

TEST(DispatchGroupDeathTest, LeaveWithoutEnterIsFatal) {
    EXPECT_DEATH(DispatchGroup().leave(),
                 "Fatal error: DispatchGroup::leave\\(\\) called more times than enter\\(\\)");
}

}  // namespace

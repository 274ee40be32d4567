#include "kel/Platform/DispatchQueue.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Watchdog.hpp"
#include "kel/Platform/DispatchGroup.hpp"

namespace {

using kel::DispatchGroup;
using kel::DispatchQueue;
using kel::DispatchTime;

// Counts the times an item found another item already running beside it.
struct OverlapProbe {
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    void enter() {
        if (inside.fetch_add(1) != 0) {
            overlaps.fetch_add(1);
        }
    }
    void leave() { inside.fetch_sub(1); }
};

// Producers submit async items and, now and then, a sync: every item runs alone, each
// producer's items run in its submission order, and a sync runs after the producer's own
// earlier items.
TEST(SerialQueue, RunsItemsAndSyncsOneAtATimeInSubmissionOrderPerProducer) {
    constexpr int producers = 6;
    constexpr int perProducer = 3000;
    DispatchQueue queue("test.fifo");
    DispatchGroup group;
    std::vector<int> lastSeen(producers, -1);  // touched only on the queue
    OverlapProbe probe;
    std::atomic<int> outOfOrder{0};
    std::vector<std::jthread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
            for (int i = 0; i < perProducer; ++i) {
                queue.async(group, [&, p, i] {
                    probe.enter();
                    if (lastSeen[p] != i - 1) {
                        outOfOrder.fetch_add(1);
                    }
                    lastSeen[p] = i;
                    probe.leave();
                });
                if (i % 3 == 0) {
                    int seen = queue.sync([&] {
                        probe.enter();
                        int value = lastSeen[p];
                        probe.leave();
                        return value;
                    });
                    if (seen != i) {
                        outOfOrder.fetch_add(1);
                    }
                }
            }
        });
    }
    threads.clear();  // joins
    ASSERT_TRUE(group.wait(kel::test::watchdogDeadline()));
    EXPECT_EQ(probe.overlaps.load(), 0);
    EXPECT_EQ(outOfOrder.load(), 0);
    EXPECT_EQ(lastSeen, std::vector<int>(producers, perProducer - 1));
}

TEST(SerialQueue, SyncRunsOnTheCallerAfterEarlierItemsReturnsItsValueAndRethrows) {
    DispatchQueue queue("test.sync");
    std::vector<int> order;  // touched only on the queue
    std::latch release(1);
    queue.async([&] {
        release.wait();
        order.push_back(1);
    });
    queue.async([&] { order.push_back(2); });
    release.count_down();
    auto caller = std::this_thread::get_id();
    int value = queue.sync([&] {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        EXPECT_TRUE(queue.isCurrent());
        order.push_back(3);
        return 42;
    });
    EXPECT_EQ(value, 42);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    EXPECT_FALSE(queue.isCurrent());
    // A throwing sync reaches the caller and leaves the queue free for the next one.
    EXPECT_THROW(queue.sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
    EXPECT_EQ(queue.sync([] { return 7; }), 7);
}

TEST(SerialQueue, NestedSyncAcrossQueuesFromManyThreads) {
    DispatchQueue a("test.nested.a");
    DispatchQueue b("test.nested.b");
    DispatchQueue c("test.nested.c", kel::DispatchQoS::default_,
                    DispatchQueue::Attributes::concurrent);
    long total = 0;  // touched only on queue a
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                a.sync([&] {
                    b.sync([&] {
                        c.sync([&] {
                            EXPECT_TRUE(a.isCurrent() && b.isCurrent() && c.isCurrent());
                            ++total;
                        });
                    });
                });
                // And from the pool, in the same lock order: an item of a that syncs into b.
                a.async([&] { b.sync([&] { ++total; }); });
            }
        });
    }
    threads.clear();  // joins
    // a is serial: this sync runs after every item submitted to it.
    EXPECT_EQ(a.sync([&] { return total; }), 4 * 500 * 2);
}

TEST(SerialQueue, TargetQueueSerialisesItsSources) {
    DispatchQueue target("test.target");
    DispatchQueue first("test.source.1", kel::DispatchQoS::unspecified,
                        DispatchQueue::Attributes::none, target);
    DispatchQueue second("test.source.2", kel::DispatchQoS::unspecified,
                         DispatchQueue::Attributes::concurrent, target);
    OverlapProbe probe;
    DispatchGroup group;
    auto item = [&] {
        probe.enter();
        EXPECT_TRUE(target.isCurrent());
        probe.leave();
    };
    for (int i = 0; i < 500; ++i) {
        first.async(group, item);
        second.async(group, item);
        target.async(group, item);
    }
    first.sync(item);
    ASSERT_TRUE(group.wait(kel::test::watchdogDeadline()));
    EXPECT_EQ(probe.overlaps.load(), 0);
}

TEST(ConcurrentQueue, RunsItemsInParallelAndSyncOnTheCaller) {
    DispatchQueue queue("test.concurrent", kel::DispatchQoS::default_,
                        DispatchQueue::Attributes::concurrent);
    // Each item waits for the other: they can only both finish if they run at the same time.
    std::latch both(2);
    DispatchGroup group;
    for (int i = 0; i < 2; ++i) {
        queue.async(group, [&] { both.arrive_and_wait(); });
    }
    ASSERT_TRUE(group.wait(kel::test::watchdogDeadline()));
    auto caller = std::this_thread::get_id();
    EXPECT_TRUE(DispatchQueue::global().sync([&] {
        return std::this_thread::get_id() == caller && DispatchQueue::global().isCurrent();
    }));
}

TEST(DispatchPool, BlockedWorkersDoNotStarveTheWorkTheyWaitFor) {
    // Many more blockers than processors: every worker the pool starts blocks until work that
    // is queued behind the blockers has run. Only a pool that grows past blocked workers
    // finishes.
    constexpr int blockers = 40;
    DispatchGroup gate;
    gate.enter();
    DispatchQueue busy("test.busy");
    DispatchGroup done;
    std::atomic<int> released{0};
    for (int i = 0; i < blockers; ++i) {
        // Half wait on a group, half sync on a serial queue whose current item waits for it.
        DispatchQueue::global().async(done, [&, i] {
            if (i % 2 == 0) {
                gate.wait();
            } else {
                busy.sync([] {});
            }
            released.fetch_add(1);
        });
    }
    // These two are not counted by `done` and may still be inside the gate when the test ends:
    // they hold the gate by copy, so it outlives them.
    busy.async([gate] { gate.wait(); });
    DispatchQueue::global(kel::DispatchQoS::utility).async([gate] { gate.leave(); });
    ASSERT_TRUE(done.wait(kel::test::watchdogDeadline()));
    EXPECT_EQ(released.load(), blockers);
}

// Sixteen items that can only finish together, each blocked where the runtime cannot see it
// (a std::latch): the pool must notice that nothing finishes and add workers until all run.
TEST(DispatchPool, WorkBlockedOutsideTheRuntimeStillGetsThreads) {
    EXPECT_TRUE(kel::test::finishesWithin("sixteen items waiting on one latch", [] {
        constexpr int items = 16;
        auto together = std::make_shared<std::latch>(items);
        std::latch finished(items);
        for (int i = 0; i < items; ++i) {
            DispatchQueue::global().async([together, &finished] {
                together->arrive_and_wait();
                finished.count_down();
            });
        }
        finished.wait();
    }));
}

TEST(DispatchQueueIdentity, EqualityIsIdentityNotLabel) {
    DispatchQueue a("same.label");
    DispatchQueue copy = a;
    EXPECT_EQ(a, copy);
    EXPECT_FALSE(a == DispatchQueue("same.label"));
    EXPECT_EQ(DispatchQueue::global(), DispatchQueue::global(kel::DispatchQoS::default_));
    EXPECT_FALSE(DispatchQueue::global() == DispatchQueue::global(kel::DispatchQoS::background));
    // The promise library recognises its marker queues by identity.
    EXPECT_EQ(kel::zalgo().label(), "com.plumo.promise.zalgo");
    EXPECT_EQ(kel::zalgoIfMain().label(), "com.plumo.promise.zalgoIfMain");
    EXPECT_FALSE(kel::zalgo() == kel::zalgoIfMain());
}

TEST(AsyncAfter, RunsPastDeadlinesAndNeverEarly) {
    DispatchQueue queue("test.timers");
    std::atomic<bool> never{false};
    queue.asyncAfter(DispatchTime::distantFuture(), [&] { never = true; });
    DispatchGroup group;
    group.enter();
    queue.asyncAfter(DispatchTime::now() - 1.0, [&] { group.leave(); });
    std::atomic<int> early{0};
    DispatchTime start = DispatchTime::now() + 0.05;
    for (int i = 0; i < 60; ++i) {
        DispatchTime deadline = start + 0.002 * ((i * 37) % 20);  // scrambled, some shared
        group.enter();
        queue.asyncAfter(deadline, [&, deadline] {
            if (DispatchTime::now() < deadline) {
                early.fetch_add(1);
            }
            group.leave();
        });
    }
    ASSERT_TRUE(group.wait(kel::test::watchdogDeadline()));
    EXPECT_EQ(early.load(), 0);
    EXPECT_FALSE(never.load());
}

TEST(DispatchQueueDeathTest, SyncThatCouldOnlyDeadlockIsFatal) {
    EXPECT_DEATH(
        {
            DispatchQueue queue("test.self.sync");
            queue.sync([&] { queue.sync([] {}); });
        },
        "Fatal error: DispatchQueue::sync on the queue the caller is running on");
    EXPECT_DEATH(DispatchQueue::main().sync([] {}),
                 "Fatal error: DispatchQueue::sync on the main queue from the main thread");
}

}  // namespace

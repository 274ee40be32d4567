#include "kel/Platform/DispatchQueue.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "kel/Platform/DispatchGroup.hpp"
#include "kel/Platform/RunLoop.hpp"

namespace {

using kel::DispatchGroup;
using kel::DispatchQueue;
using kel::DispatchTime;

// Waits for a group, failing the test instead of hanging when something never runs.
void expectEmpties(const DispatchGroup& group) {
    ASSERT_TRUE(group.wait(DispatchTime::now() + 30.0)) << "work never finished";
}

TEST(SerialQueue, RunsItemsOneAtATimeInSubmissionOrderPerProducer) {
    constexpr int producers = 6;
    constexpr int perProducer = 3000;
    DispatchQueue queue("test.fifo");
    DispatchGroup group;
    std::vector<int> lastSeen(producers, -1);  // touched only by the queue's items
    std::atomic<int> inside{0};
    std::atomic<int> outOfOrder{0};
    std::atomic<int> overlapping{0};
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
            for (int i = 0; i < perProducer; ++i) {
                queue.async(group, [&, p, i] {
                    if (inside.fetch_add(1) != 0) {
                        overlapping.fetch_add(1);
                    }
                    if (lastSeen[p] != i - 1) {
                        outOfOrder.fetch_add(1);
                    }
                    lastSeen[p] = i;
                    inside.fetch_sub(1);
                });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    expectEmpties(group);
    EXPECT_EQ(overlapping.load(), 0);
    EXPECT_EQ(outOfOrder.load(), 0);
    for (int p = 0; p < producers; ++p) {
        EXPECT_EQ(lastSeen[p], perProducer - 1);
    }
}

TEST(SerialQueue, SyncRunsOnTheCallerAfterEarlierItemsAndReturnsItsValue) {
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
}

TEST(SerialQueue, SyncRethrowsAndTheQueueKeepsWorking) {
    DispatchQueue queue("test.sync.throw");
    EXPECT_THROW(queue.sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
    DispatchGroup group;
    bool ran = false;
    queue.async(group, [&] { ran = true; });
    expectEmpties(group);
    EXPECT_TRUE(ran);
    EXPECT_EQ(queue.sync([] { return 7; }), 7);
}

TEST(SerialQueue, SyncFromManyThreadsInterleavedWithAsyncIsExclusive) {
    DispatchQueue queue("test.sync.many");
    long counter = 0;  // guarded by being touched only on the queue
    std::atomic<int> inside{0};
    std::atomic<int> overlapping{0};
    DispatchGroup group;
    std::vector<std::thread> threads;
    constexpr int rounds = 1000;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            long previous = -1;
            for (int i = 0; i < rounds; ++i) {
                queue.async(group, [&] {
                    if (inside.fetch_add(1) != 0) {
                        overlapping.fetch_add(1);
                    }
                    ++counter;
                    inside.fetch_sub(1);
                });
                long seen = queue.sync([&] {
                    if (inside.fetch_add(1) != 0) {
                        overlapping.fetch_add(1);
                    }
                    long value = counter;
                    inside.fetch_sub(1);
                    return value;
                });
                // Our own async ran before our sync (FIFO), and the counter never goes back.
                EXPECT_GT(seen, previous);
                previous = seen;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    expectEmpties(group);
    EXPECT_EQ(overlapping.load(), 0);
    EXPECT_EQ(queue.sync([&] { return counter; }), 4 * rounds);
}

TEST(SerialQueue, NestedSyncAcrossQueuesFromManyThreads) {
    DispatchQueue a("test.nested.a");
    DispatchQueue b("test.nested.b");
    DispatchQueue c("test.nested.c", kel::DispatchQoS::default_,
                    DispatchQueue::Attributes::concurrent);
    long total = 0;  // touched only on queue a
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                a.sync([&] {
                    b.sync([&] {
                        c.sync([&] {
                            EXPECT_TRUE(a.isCurrent());
                            EXPECT_TRUE(b.isCurrent());
                            EXPECT_TRUE(c.isCurrent());
                            ++total;
                        });
                    });
                });
                // And from the pool, in the same lock order: an item of a that syncs into b.
                a.async([&] { b.sync([&] { ++total; }); });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    // a is serial: this sync runs after every item submitted to it.
    EXPECT_EQ(a.sync([&] { return total; }), 4 * 500 * 2);
}

TEST(SerialQueue, ReleasedQueueStillRunsSubmittedWork) {
    DispatchGroup group;
    std::atomic<int> ran{0};
    std::latch hold(1);
    {
        DispatchQueue queue("test.released");
        queue.async(group, [&] { hold.wait(); });
        for (int i = 0; i < 100; ++i) {
            queue.async(group, [&] { ran.fetch_add(1); });
        }
    }
    hold.count_down();
    expectEmpties(group);
    EXPECT_EQ(ran.load(), 100);
}

TEST(SerialQueue, TargetQueueSerialisesItsSources) {
    DispatchQueue target("test.target");
    DispatchQueue first("test.source.1", kel::DispatchQoS::unspecified,
                        DispatchQueue::Attributes::none, target);
    DispatchQueue second("test.source.2", kel::DispatchQoS::unspecified,
                         DispatchQueue::Attributes::concurrent, target);
    std::atomic<int> inside{0};
    std::atomic<int> overlapping{0};
    DispatchGroup group;
    auto item = [&] {
        if (inside.fetch_add(1) != 0) {
            overlapping.fetch_add(1);
        }
        EXPECT_TRUE(target.isCurrent());
        inside.fetch_sub(1);
    };
    for (int i = 0; i < 500; ++i) {
        first.async(group, item);
        second.async(group, item);
        target.async(group, item);
    }
    first.sync(item);
    expectEmpties(group);
    EXPECT_EQ(overlapping.load(), 0);
}

TEST(ConcurrentQueue, RunsItemsInParallel) {
    DispatchQueue queue("test.concurrent", kel::DispatchQoS::default_,
                        DispatchQueue::Attributes::concurrent);
    EXPECT_TRUE(queue.isConcurrent());
    // Each item waits for the other: they can only both finish if they run at the same time.
    std::latch both(2);
    DispatchGroup group;
    for (int i = 0; i < 2; ++i) {
        queue.async(group, [&] { both.arrive_and_wait(); });
    }
    expectEmpties(group);
}

TEST(ConcurrentQueue, SyncRunsOnTheCallerAndIsCurrentInside) {
    DispatchQueue queue = DispatchQueue::global();
    auto caller = std::this_thread::get_id();
    bool ran = queue.sync([&] {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        return queue.isCurrent();
    });
    EXPECT_TRUE(ran);
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
        if (i % 2 == 0) {
            DispatchQueue::global().async(done, [&] {
                gate.wait();
                released.fetch_add(1);
            });
        } else {
            // sync on a serial queue whose current item waits for the gate.
            DispatchQueue::global().async(done, [&] {
                busy.sync([] {});
                released.fetch_add(1);
            });
        }
    }
    busy.async([&] { gate.wait(); });
    DispatchQueue::global(kel::DispatchQoS::utility).async([&] { gate.leave(); });
    expectEmpties(done);
    EXPECT_EQ(released.load(), blockers);
}

TEST(DispatchQueueIdentity, HandlesShareOneQueueAndCompareByIdentity) {
    DispatchQueue a("same.label");
    DispatchQueue b("same.label");
    DispatchQueue copy = a;
    EXPECT_EQ(a, copy);
    EXPECT_FALSE(a == b);
    EXPECT_EQ(a.label(), "same.label");
    EXPECT_FALSE(a.isConcurrent());
    EXPECT_EQ(DispatchQueue::global(), DispatchQueue::global(kel::DispatchQoS::default_));
    EXPECT_FALSE(DispatchQueue::global() == DispatchQueue::global(kel::DispatchQoS::background));
    EXPECT_TRUE(DispatchQueue::global(kel::DispatchQoS::utility).isConcurrent());
    EXPECT_EQ(DispatchQueue::main(), DispatchQueue::main());
}

TEST(DispatchQueueIdentity, MarkerQueuesAreDistinctSerialQueuesWithTheirLabels) {
    EXPECT_EQ(kel::zalgo().label(), "com.plumo.promise.zalgo");
    EXPECT_EQ(kel::zalgoIfMain().label(), "com.plumo.promise.zalgoIfMain");
    EXPECT_EQ(&kel::zalgo(), &kel::zalgo());
    EXPECT_FALSE(kel::zalgo() == kel::zalgoIfMain());
    EXPECT_FALSE(kel::zalgo() == DispatchQueue::main());
    EXPECT_FALSE(kel::zalgo().isConcurrent());
    EXPECT_EQ(kel::zalgo().qos(), kel::DispatchQoS::unspecified);
}

TEST(AsyncAfter, RunsInDeadlineOrderAndNeverEarly) {
    DispatchQueue queue("test.timers");
    constexpr int count = 60;
    std::vector<int> order;  // touched only on the queue
    std::atomic<int> early{0};
    DispatchGroup group;
    DispatchTime start = DispatchTime::now();
    // Deadlines in a scrambled order, several sharing one deadline (those keep submission order).
    for (int i = 0; i < count; ++i) {
        int slot = (i * 37) % 20;
        DispatchTime deadline = start + 0.002 * slot;
        group.enter();
        queue.asyncAfter(deadline, [&, deadline, slot, i] {
            if (DispatchTime::now() < deadline) {
                early.fetch_add(1);
            }
            order.push_back(slot * 1000 + i);
            group.leave();
        });
    }
    expectEmpties(group);
    EXPECT_EQ(early.load(), 0);
    ASSERT_EQ(order.size(), static_cast<std::size_t>(count));
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(AsyncAfter, PastDeadlineRunsAndDistantFutureNeverDoes) {
    std::atomic<bool> never{false};
    DispatchQueue::global().asyncAfter(DispatchTime::distantFuture(), [&] { never = true; });
    DispatchGroup group;
    group.enter();
    DispatchQueue::global().asyncAfter(DispatchTime::now() - 1.0, [&] { group.leave(); });
    expectEmpties(group);
    EXPECT_FALSE(never.load());
}

TEST(DispatchQueueDeathTest, SyncOnTheCurrentSerialQueueIsFatal) {
    EXPECT_DEATH(
        {
            DispatchQueue queue("test.self.sync");
            queue.sync([&] { queue.sync([] {}); });
        },
        "Fatal error: DispatchQueue::sync on the queue the caller is running on");
}

TEST(DispatchQueueDeathTest, SyncOnTheMainQueueFromTheMainThreadIsFatal) {
    EXPECT_DEATH(DispatchQueue::main().sync([] {}),
                 "Fatal error: DispatchQueue::sync on the main queue from the main thread");
}

}  // namespace

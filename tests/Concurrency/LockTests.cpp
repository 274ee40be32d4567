#include "kel/Concurrency/Lock.hpp"
#include "kel/Concurrency/MutexLock.hpp"
#include "kel/Concurrency/UnfairLock.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <latch>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using kel::MutexLock;
using kel::UnfairLock;

template <class L>
std::unique_ptr<L> makeLock() {
    if constexpr (std::is_same_v<L, UnfairLock>) {
        return std::make_unique<UnfairLock>(UnfairLock::Options::dataSynchronization);
    } else {
        return std::make_unique<L>();
    }
}

template <class L>
class LockBehaviour : public ::testing::Test {};
using LockTypes = ::testing::Types<UnfairLock, MutexLock>;
TYPED_TEST_SUITE(LockBehaviour, LockTypes);

// Several threads, started together, each enter the critical section many times through one of
// the ways a caller can take the lock. A plain counter that loses no increment, and no thread
// ever finding another inside, show the exclusion; a lost wake-up would hang the test.
TYPED_TEST(LockBehaviour, ExcludesOtherThreadsThroughEveryEntryPoint) {
    auto lock = makeLock<TypeParam>();
    constexpr int threadCount = 8;
    constexpr int rounds = 20000;
    std::uint64_t counter = 0;  // guarded by *lock
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    std::latch start(threadCount);

    auto criticalSection = [&] {
        if (inside.fetch_add(1, std::memory_order_relaxed) != 0) {
            overlaps.fetch_add(1, std::memory_order_relaxed);
        }
        ++counter;
        inside.fetch_sub(1, std::memory_order_relaxed);
    };

    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            kel::Lock& viaInterface = *lock;
            for (int i = 0; i < rounds; ++i) {
                switch ((t + i) % 4) {
                    case 0:
                        viaInterface.lock();
                        criticalSection();
                        viaInterface.unlock();
                        break;
                    case 1:
                        viaInterface.sync(criticalSection);
                        break;
                    case 2:
                        lock->sync(criticalSection);
                        break;
                    default: {
                        std::lock_guard guard(*lock);
                        criticalSection();
                    }
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, std::uint64_t{threadCount} * rounds);
    EXPECT_EQ(overlaps.load(), 0);
}

// sync holds the lock only while its body runs, runs the body once, hands back its value, and
// releases the lock also when the body throws.
TYPED_TEST(LockBehaviour, SyncHoldsTheLockExactlyForTheBody) {
    auto lock = makeLock<TypeParam>();
    kel::Lock& viaInterface = *lock;
    int calls = 0;

    viaInterface.sync([&] {
        ++calls;
        EXPECT_FALSE(lock->try_lock());
    });
    EXPECT_EQ(calls, 1);
    ASSERT_TRUE(lock->try_lock());
    lock->unlock();

    EXPECT_EQ(lock->sync([&] { return ++calls * 10; }), 20);
    EXPECT_THROW(viaInterface.sync([] { throw std::runtime_error("body failed"); }),
                 std::runtime_error);
    ASSERT_TRUE(lock->try_lock());
    lock->unlock();
}

// Waiters that block (and, given the time, sleep) on a held lock are all let through once it is
// released: a lost wake-up would hang here.
TEST(UnfairLockContention, WaitersBlockedOnAHeldLockAllGetThrough) {
    UnfairLock lock({});
    constexpr int waiterCount = 6;
    std::vector<int> order;  // guarded by lock
    std::atomic<int> started{0};

    lock.lock();
    std::vector<std::thread> waiters;
    for (int w = 0; w < waiterCount; ++w) {
        waiters.emplace_back([&, w] {
            started.fetch_add(1);
            lock.sync([&] { order.push_back(w); });
        });
    }
    while (started.load() < waiterCount) {
        std::this_thread::yield();
    }
    lock.unlock();
    for (auto& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(order.size(), std::size_t{waiterCount});
}

TEST(UnfairLockOptions, OptionWordLooksOnlyAtBitZero) {
    struct Case {
        std::int64_t raw;
        std::uint32_t word;
    };
    for (const Case& c : {Case{0, 0}, Case{1, 0x00010000}, Case{2, 0}, Case{3, 0x00010000},
                          Case{0xFF, 0x00010000}, Case{-1, 0x00010000}, Case{0x100, 0}}) {
        UnfairLock lock{UnfairLock::Options(c.raw)};
        EXPECT_EQ(lock.optionWord(), c.word) << "raw value " << c.raw;
    }
    EXPECT_EQ(UnfairLock({}).optionWord(), 0u);
    UnfairLock listed{{UnfairLock::Options::dataSynchronization, UnfairLock::Options(2)}};
    EXPECT_EQ(listed.optionWord(), UnfairLock::dataSynchronizationWord);
}

}  // namespace

#include "kel/Concurrency/MutexLock.hpp"
#include "kel/Concurrency/UnfairLock.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <latch>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using kel::UnfairLock;

// sync holds the lock for exactly its body, also one that throws, and returns the body's value.
// Then eight threads enter a critical section many times, through the interface, the concrete
// type and std::lock_guard, starting while the lock is held so that the first entries wait (and
// sleep). A counter that loses no increment shows the exclusion; a lost wake-up hangs the test.
template <class L>
void checkExclusion(L& lock) {
    kel::Lock& viaInterface = lock;
    EXPECT_THROW(viaInterface.sync([] { throw std::runtime_error("body failed"); }),
                 std::runtime_error);
    EXPECT_EQ(lock.sync([&] { return lock.try_lock() ? 0 : 42; }), 42);
    ASSERT_TRUE(lock.try_lock());

    constexpr int threadCount = 8;
    constexpr int rounds = 20000;
    std::uint64_t counter = 0;  // guarded by lock
    auto critical = [&] { ++counter; };
    std::latch started(threadCount + 1);
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < threadCount; ++t) {
            threads.emplace_back([&, t] {
                started.arrive_and_wait();
                for (int i = t; i < t + rounds; ++i) {
                    if (i % 3 == 0) {
                        viaInterface.sync(critical);
                    } else if (i % 3 == 1) {
                        lock.sync(critical);
                    } else {
                        std::lock_guard guard(lock);
                        critical();
                    }
                }
            });
        }
        started.arrive_and_wait();
        lock.unlock();
    }
    EXPECT_EQ(counter, std::uint64_t{threadCount} * rounds);
}

TEST(LockExclusion, UnfairLockAndMutexLockAdmitOneHolderAtATime) {
    UnfairLock unfair(UnfairLock::Options::dataSynchronization);
    checkExclusion(unfair);
    kel::MutexLock mutex;
    checkExclusion(mutex);
}

TEST(UnfairLockOptions, OptionWordLooksOnlyAtBitZero) {
    using Options = UnfairLock::Options;
    EXPECT_EQ(UnfairLock(Options(0)).optionWord(), 0u);
    EXPECT_EQ(UnfairLock(Options(1)).optionWord(), 0x00010000u);
    EXPECT_EQ(UnfairLock(Options(-2)).optionWord(), 0u);
}

// Misuse stops the process with a message instead of hanging or corrupting the lock.
TEST(UnfairLockDeathTest, RelockingOnTheOwningThreadOrUnlockingFromAnotherStops) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char* notHeld = "UnfairLock unlocked by a thread that does not hold it";
    UnfairLock lock(UnfairLock::Options{});
    EXPECT_DEATH(lock.unlock(), notHeld);
    lock.lock();
    EXPECT_DEATH(lock.lock(), "UnfairLock locked twice by the same thread");
    EXPECT_DEATH(std::thread([&] { lock.unlock(); }).join(), notHeld);
    lock.unlock();
}

}  // namespace

// kel::UnfairLock — a small, fast, non-fair, non-recursive Lock of one 32-bit word.
//
// The lock word is 0 when free, 1 when held and 2 when held with (possibly) sleeping waiters.
// lock() takes a free lock with one compare-and-swap; under contention it spins briefly while
// the holder is expected to finish soon, then sleeps in the kernel on the word (futex) until an
// unlock() wakes one waiter. unlock() is one atomic exchange, plus a wake-up system call only
// when someone may be asleep. Waiters are not served in arrival order: a thread that arrives
// while the lock is free takes it even if others sleep, which keeps throughput high.
//
// Options: the data-synchronization option is recorded as the option word 0x00010000 (readable
// through optionWord()); it is a scheduling hint that this implementation accepts and ignores.
// Only bit 0 of the options' raw value is looked at.
//
// Misuse stops the process (fatalError): locking it again on the thread that holds it, and
// unlocking it from a thread that does not hold it. The holder's thread id is kept beside the
// lock word for this; it is written by the holder only, checked on the contended path and in
// unlock(), so the uncontended lock() stays one compare-and-swap and one plain store.
//
// Thread rules: lock() and unlock() from any thread, concurrently.
// Ownership: not copyable, not movable; keep it by value or through std::shared_ptr.
//
// Example:
//
//     kel::UnfairLock lock{kel::UnfairLock::Options::dataSynchronization};
//     std::vector<int> values;  // guarded by lock
//     lock.sync([&] { values.push_back(1); });
//     {
//         std::lock_guard guard(lock);  // a Lock is BasicLockable
//         values.push_back(2);
//     }
//
// Guarantees: mutual exclusion, and every unlock() happens-before the next successful lock()
// or try_lock() of the same lock (a release store paired with an acquire compare-and-swap),
// so a holder sees everything earlier holders wrote under the lock. A failed try_lock() orders
// nothing. There is no fairness and no FIFO order among waiters: a waiter may be overtaken any
// number of times, though it is never left asleep while the lock is free.
#pragma once

#include "kel/Concurrency/Lock.hpp"
#include "kel/Export.hpp"
#include "kel/Extensions/OptionSet.hpp"

#include <atomic>
#include <cstdint>
#include <utility>

namespace kel {

class KEL_EXPORT UnfairLock final : public Lock {
  public:
    // The options a lock is made with.
    struct Options : OptionSet<Options, std::int64_t> {
        using OptionSet::OptionSet;
        // A hint that the lock only guards data: its holder can always finish and release it
        // without help from another thread of the process.
        static const Options dataSynchronization;
    };

    // The option word for the data-synchronization option.
    static constexpr std::uint32_t dataSynchronizationWord = 0x00010000;

    explicit UnfairLock(Options options) noexcept
        : optionWord_((options.rawValue() & 1) != 0 ? dataSynchronizationWord : 0) {}

    void lock() noexcept override {
        std::uint32_t expected = unlocked;
        if (!word_.compare_exchange_strong(expected, locked, std::memory_order_acquire,
                                           std::memory_order_relaxed)) [[unlikely]] {
            lockContended();
        }
        owner_.store(currentThread(), std::memory_order_relaxed);
    }

    void unlock() noexcept override {
        if (owner_.load(std::memory_order_relaxed) != currentThread()) [[unlikely]] {
            unlockedByStranger();
        }
        owner_.store(0, std::memory_order_relaxed);
        if (word_.exchange(unlocked, std::memory_order_release) == contended) [[unlikely]] {
            wakeOne();
        }
    }

    // Takes the lock if it is free, without waiting; true if taken. With it the lock is
    // Lockable, so std::scoped_lock can take several locks at once.
    bool try_lock() noexcept {
        std::uint32_t expected = unlocked;
        if (!word_.compare_exchange_strong(expected, locked, std::memory_order_acquire,
                                           std::memory_order_relaxed)) {
            return false;
        }
        owner_.store(currentThread(), std::memory_order_relaxed);
        return true;
    }

    // sync through the concrete type: no virtual calls.
    template <class Body>
    decltype(auto) sync(Body&& body) {
        return syncOn(*this, std::forward<Body>(body));
    }

    // The option word chosen at construction: 0 or 0x00010000. Never changes.
    std::uint32_t optionWord() const noexcept { return optionWord_; }

  private:
    static constexpr std::uint32_t unlocked = 0;
    static constexpr std::uint32_t locked = 1;
    static constexpr std::uint32_t contended = 2;

    // The calling thread's kernel id (never 0), cached per thread.
    static std::int32_t currentThread() noexcept {
        return cachedThread != 0 ? cachedThread : cacheThread();
    }
    static std::int32_t cacheThread() noexcept;

    void lockContended() noexcept;
    std::uint32_t spinWhileLocked() const noexcept;
    void wakeOne() noexcept;
    [[noreturn]] static void unlockedByStranger() noexcept;

    __attribute__((
        tls_model("initial-exec"))) static inline thread_local std::int32_t cachedThread = 0;

    std::atomic<std::uint32_t> word_{unlocked};  // the lock word itself; futex address
    const std::uint32_t optionWord_;             // set once at construction
    std::atomic<std::int32_t> owner_{0};         // the holder's thread id, 0 when free
};

inline constexpr UnfairLock::Options UnfairLock::Options::dataSynchronization{1};

}  // namespace kel

#include "kel/Concurrency/UnfairLock.hpp"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "kel/Platform/FatalError.hpp"

namespace kel {

namespace {

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t) &&
                  std::atomic<std::uint32_t>::is_always_lock_free,
              "the futex system call needs a plain 32-bit lock word");
static_assert(sizeof(UnfairLock) <= sizeof(void*) + 4 * sizeof(std::uint32_t),
              "an UnfairLock is its virtual table pointer, its lock word, its option word and "
              "its holder");

// How many times a contended lock() looks at the word before going to sleep. About as long as
// a short critical section; beyond that a sleep is cheaper than burning the core.
constexpr int spinLimit = 100;

inline void cpuRelax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield" ::: "memory");
#endif
}

inline std::uint32_t* futexAddress(const std::atomic<std::uint32_t>& word) noexcept {
    return reinterpret_cast<std::uint32_t*>(const_cast<std::atomic<std::uint32_t>*>(&word));
}

// Sleeps while the word still holds `expected`. Returns early on a wake-up, a signal or when
// the word has already changed; the caller re-checks the word in every case.
inline void futexWait(const std::atomic<std::uint32_t>& word, std::uint32_t expected) noexcept {
    syscall(SYS_futex, futexAddress(word), FUTEX_WAIT_PRIVATE, expected, nullptr, nullptr, 0);
}

inline void futexWakeOne(const std::atomic<std::uint32_t>& word) noexcept {
    syscall(SYS_futex, futexAddress(word), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

}  // namespace

// Spins while the lock is held by a thread that nobody sleeps on, and gives the last state
// seen. Spinning stops at once when there are sleepers: then the lock is busy enough that
// joining them is the better use of the core.
std::uint32_t UnfairLock::spinWhileLocked() const noexcept {
    std::uint32_t state = word_.load(std::memory_order_relaxed);
    for (int spins = 0; state == locked && spins < spinLimit; ++spins) {
        cpuRelax();
        state = word_.load(std::memory_order_relaxed);
    }
    return state;
}

std::int32_t UnfairLock::cacheThread() noexcept {
    cachedThread = static_cast<std::int32_t>(::gettid());
    return cachedThread;
}

void UnfairLock::unlockedByStranger() noexcept {
    fatalError("UnfairLock unlocked by a thread that does not hold it");
}

void UnfairLock::lockContended() noexcept {
    // Only the holder writes its own id here, so seeing ours means this thread holds the lock.
    if (owner_.load(std::memory_order_relaxed) == currentThread()) {
        fatalError("UnfairLock locked twice by the same thread");
    }
    std::uint32_t state = spinWhileLocked();

    // Freed while spinning: take it as uncontended if no one else got there first.
    if (state == unlocked) {
        if (word_.compare_exchange_strong(state, locked, std::memory_order_acquire,
                                          std::memory_order_relaxed)) {
            return;
        }
    }

    for (;;) {
        // Mark the lock contended, so that its unlock() wakes a sleeper. If the exchange finds
        // it free we hold it, marked contended: at worst one needless wake-up follows.
        if (state != contended &&
            word_.exchange(contended, std::memory_order_acquire) == unlocked) {
            return;
        }
        futexWait(word_, contended);
        state = spinWhileLocked();
    }
}

void UnfairLock::wakeOne() noexcept {
    futexWakeOne(word_);
}

}  // namespace kel

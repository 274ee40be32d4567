// kel::Lock — the interface of the library's locks.
//
// A Lock excludes threads from a critical section: lock() waits until the calling thread holds
// it, unlock() releases it. Locks are not re-entrant and must be unlocked by the thread that
// locked them. sync(body) runs a body while holding the lock and gives back the body's value.
//
// Every Lock is BasicLockable, so std::lock_guard and std::unique_lock work with it. Code that
// holds a concrete lock type (UnfairLock, MutexLock, both final) calls it without a virtual
// call; code that only knows a Lock& pays one indirect call per operation.
//
// Thread rules: lock() and unlock() are called from any thread, concurrently.
// Ownership: locks are neither copyable nor movable (waiters refer to their address); owners
// keep them by value or through std::shared_ptr.
#pragma once

#include <utility>

#include "kel/Export.hpp"

namespace kel {

class KEL_EXPORT Lock {
  public:
    Lock() = default;
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    virtual ~Lock() = default;

    virtual void lock() = 0;
    virtual void unlock() = 0;

    // Locks, runs `body` once, unlocks, and returns what `body` returned. The lock is released
    // also when `body` throws.
    template <class Body>
    decltype(auto) sync(Body&& body) {
        return syncOn(*this, std::forward<Body>(body));
    }

  protected:
    // The shared form of sync, so that the concrete locks can offer it with their own,
    // non-virtual lock() and unlock().
    template <class L, class Body>
    static decltype(auto) syncOn(L& lock, Body&& body) {
        struct Unlocker {
            L& lock;
            ~Unlocker() { lock.unlock(); }
        };
        lock.lock();
        Unlocker unlocker{lock};
        return std::forward<Body>(body)();
    }
};

}  // namespace kel

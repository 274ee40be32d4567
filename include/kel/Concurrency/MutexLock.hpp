// kel::MutexLock — a Lock over a POSIX mutex.
//
// The pthread_mutex_t lives inline in the object, so its address is stable for the object's
// life. It has default attributes: a normal, non-recursive mutex. Locking it twice from one
// thread deadlocks; unlocking it from another thread than the one that locked it is undefined.
//
// The mutex is not destroyed when the lock is: glibc's normal mutexes own no resources, and a
// lock released while held is not guarded against (destroying a held mutex would be an error).
// Under ThreadSanitizer it is destroyed, so that the tool forgets it: otherwise a new lock at a
// reused address inherits the old one's lock-order history and false inversions are reported.
//
// Thread rules: lock() and unlock() from any thread, concurrently.
// Ownership: not copyable, not movable; keep it by value or through std::shared_ptr.
#pragma once

#include "kel/Concurrency/Lock.hpp"
#include "kel/Export.hpp"

#include <pthread.h>

#include <cstring>
#include <utility>

#if defined(__SANITIZE_THREAD__)
#define KEL_MUTEX_LOCK_DESTROYS 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KEL_MUTEX_LOCK_DESTROYS 1
#endif
#endif
#ifndef KEL_MUTEX_LOCK_DESTROYS
#define KEL_MUTEX_LOCK_DESTROYS 0
#endif

namespace kel {

class KEL_EXPORT MutexLock final : public Lock {
  public:
    MutexLock() noexcept {
        std::memset(&mutex_, 0, sizeof mutex_);
        pthread_mutex_init(&mutex_, nullptr);
    }
#if KEL_MUTEX_LOCK_DESTROYS
    ~MutexLock() override { pthread_mutex_destroy(&mutex_); }
#endif

    void lock() noexcept override { pthread_mutex_lock(&mutex_); }
    void unlock() noexcept override { pthread_mutex_unlock(&mutex_); }

    // Takes the lock if it is free, without waiting; true if taken. With it the lock is
    // Lockable, so std::scoped_lock can take several locks at once.
    bool try_lock() noexcept { return pthread_mutex_trylock(&mutex_) == 0; }

    // sync through the concrete type: no virtual calls.
    template <class Body>
    decltype(auto) sync(Body&& body) {
        return syncOn(*this, std::forward<Body>(body));
    }

  private:
    pthread_mutex_t mutex_;  // guarded by itself
};

}  // namespace kel

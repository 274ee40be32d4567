// Helpers for the scheduler tests: waiting for promises and gates from any thread and pumping
// the main queue, with a time-out that only a fault reaches (it aborts rather than hang).
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>

#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/RunLoop.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel::schedulertest {

inline constexpr std::chrono::seconds kTimeout{20};

// A flag that one thread opens and others wait on.
class Gate {
  public:
    void open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        opened_.notify_all();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        if (!opened_.wait_for(lock, kTimeout, [&] { return open_; })) {
            ADD_FAILURE() << "not reached in time";
            std::abort();
        }
    }

  private:
    std::mutex mutex_;
    std::condition_variable opened_;
    bool open_ = false;  // guarded by mutex_
};

// Blocks until the promise settles and returns how it settled.
template <class T>
Resolution<T> await(const Promise<T>& promise) {
    auto settled = std::make_shared<Gate>();
    promise.always(zalgo(), [settled] { settled->open(); });
    // Read after the gate's mutex is released: handlers take it under the promise's lock.
    settled->wait();
    return *promise.resolution();
}

inline void pumpUntil(const std::function<bool()>& predicate) {
    ASSERT_TRUE(RunLoop::runUntil(predicate, kTimeout)) << "condition not reached in time";
}

// Pumps the main queue until everything submitted to it so far has run.
inline void drainMainQueue() {
    bool reached = false;
    DispatchQueue::main().async([&reached] { reached = true; });
    pumpUntil([&] { return reached; });
}

}  // namespace kel::schedulertest

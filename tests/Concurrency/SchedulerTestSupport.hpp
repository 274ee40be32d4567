// Helpers for the scheduler tests: waiting for promises from any thread and pumping the main
// queue, with a generous time-out that only a fault can reach.
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

// Blocks until the promise settles and returns how it settled; stops the test binary if it
// does not, since a hung promise would otherwise hang the suite.
template <class T>
Resolution<T> await(const Promise<T>& promise) {
    struct Signal {
        std::mutex mutex;
        std::condition_variable settled;
        bool done = false;  // guarded by mutex
    };
    auto signal = std::make_shared<Signal>();
    promise.always(zalgo(), [signal] {
        std::lock_guard lock(signal->mutex);
        signal->done = true;
        signal->settled.notify_all();
    });
    {
        // Released before reading the resolution: handlers take this mutex under the
        // promise's lock, so taking the promise's lock under it would invert the order.
        std::unique_lock lock(signal->mutex);
        if (!signal->settled.wait_for(lock, kTimeout, [&] { return signal->done; })) {
            ADD_FAILURE() << "promise did not settle in time";
            std::abort();
        }
    }
    return *promise.resolution();
}

// Pumps the main queue until predicate() holds; fails the test on time-out.
inline void pumpUntil(const std::function<bool()>& predicate) {
    ASSERT_TRUE(RunLoop::runUntil(predicate, kTimeout)) << "condition not reached in time";
}

// Pumps the main queue until everything submitted to it so far has run.
inline void drainMainQueue() {
    bool reached = false;
    DispatchQueue::main().async([&reached] { reached = true; });
    pumpUntil([&] { return reached; });
}

// A gate that one thread opens and others wait on.
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
            ADD_FAILURE() << "gate not opened in time";
            std::abort();
        }
    }

  private:
    std::mutex mutex_;
    std::condition_variable opened_;
    bool open_ = false;  // guarded by mutex_
};

}  // namespace kel::schedulertest

// kel::detail::Signal — a one-shot signal a blocked thread waits on.
//
// notify() holds the mutex while it signals, so the waiter (which usually owns the Signal on its
// stack) cannot return and destroy it earlier.
//
// Thread rules: one thread waits, another notifies, once; mutex_ guards done_.
#pragma once

#include <condition_variable>
#include <mutex>

namespace kel::detail {

class Signal {
  public:
    void notify() {
        std::lock_guard lock(mutex_);
        done_ = true;
        changed_.notify_one();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return done_; });
    }

  private:
    std::mutex mutex_;  // guards done_
    std::condition_variable changed_;
    bool done_ = false;
};

}  // namespace kel::detail

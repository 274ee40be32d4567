// kel::bench::Countdown — counts finished work items; the waiter sleeps until all have arrived.
//
// Thread rules: arrive() from any thread, concurrently; reset() and wait() from the thread that
// submits the work, with no arrivals outstanding during reset().
#pragma once

#include <atomic>
#include <cstdint>

namespace kel::bench {

class Countdown {
  public:
    explicit Countdown(std::int64_t count = 0) : remaining_(count) {}

    void reset(std::int64_t count) { remaining_.store(count, std::memory_order_relaxed); }

    void arrive() {
        if (remaining_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            remaining_.notify_all();
        }
    }

    void wait() {
        for (auto seen = remaining_.load(std::memory_order_acquire); seen != 0;
             seen = remaining_.load(std::memory_order_acquire)) {
            remaining_.wait(seen, std::memory_order_acquire);
        }
    }

  private:
    std::atomic<std::int64_t> remaining_;
};

}  // namespace kel::bench

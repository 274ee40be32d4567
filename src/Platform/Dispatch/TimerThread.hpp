// kel::detail::TimerThread — the one thread that hands asyncAfter work to its queue on time.
//
// Timers wait in a min-heap on (deadline, submission sequence): the earliest deadline fires
// first, and timers with equal deadlines fire in the order they were scheduled. The thread sleeps
// until the earliest deadline; scheduling a timer that becomes the earliest wakes it, so a new,
// nearer deadline is never held up by the one it was waiting for. A deadline already passed is
// delivered at once on the scheduling thread, unless a timer due no later is still in the heap
// or being handed on: then it waits its turn in the heap, so that it never overtakes one. The
// thread starts with the first timer.
//
// The timer thread does not know what a queue is: a due timer is handed to the deliverer given
// at construction (the dispatch runtime's submits the work to the timer's queue).
//
// Thread rules: schedule may be called from any thread; mutex_ guards the heap.
//
// Ownership: the thread is detached and uses the object until the process ends, so a timer
// thread is never destroyed once started.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "kel/Platform/DispatchTime.hpp"
#include "kel/Platform/Task.hpp"

namespace kel::detail {

class QueueCore;

class TimerThread {
  public:
    // Hands a due timer's work to its queue; called without the timer thread's lock.
    using Deliverer = void (*)(const std::shared_ptr<QueueCore>& queue, Task work);

    // longestWait bounds one sleep, so that far deadlines never overflow the clock arithmetic
    // of the wait.
    explicit TimerThread(Deliverer deliver,
                         std::chrono::steady_clock::duration longestWait = std::chrono::hours(1));
    TimerThread(const TimerThread&) = delete;
    TimerThread& operator=(const TimerThread&) = delete;

    void schedule(DispatchTime deadline, Task work, std::shared_ptr<QueueCore> queue);

  private:
    struct Timer {
        DispatchTime deadline;
        std::uint64_t sequence;
        Task work;
        std::shared_ptr<QueueCore> queue;
    };
    struct Later {
        bool operator()(const Timer& a, const Timer& b) const noexcept {
            return a.deadline != b.deadline ? a.deadline > b.deadline : a.sequence > b.sequence;
        }
    };
    void run();

    const Deliverer deliver_;
    const std::chrono::steady_clock::duration longestWait_;
    std::mutex mutex_;  // guards everything below
    std::condition_variable changed_;
    std::vector<Timer> heap_;  // a min-heap on (deadline, sequence)
    std::uint64_t nextSequence_ = 0;
    bool started_ = false;
    bool handingOn_ = false;  // the thread is delivering a timer it took from the heap
};

}  // namespace kel::detail

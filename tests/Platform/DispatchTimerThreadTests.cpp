#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <latch>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "Dispatch/TimerThread.hpp"
#include "Watchdog.hpp"

namespace {

using kel::DispatchTime;
using kel::Task;
using kel::detail::QueueCore;
using kel::detail::TimerThread;
using namespace std::chrono_literals;

// Runs a due timer's work on the timer thread itself: the tests need no queue.
void runOnTimerThread(const std::shared_ptr<QueueCore>&, Task work) {
    work();
}

// A timer thread's thread is detached and outlives the test: the object is leaked on purpose.
TimerThread& newTimerThread() {
    return *new TimerThread(runOnTimerThread);
}

// Schedules `work` with no queue: it runs on the timer thread.
void at(TimerThread& timers, DispatchTime deadline, Task work) {
    timers.schedule(deadline, std::move(work), nullptr);
}

struct FiredLog {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<int> fired;

    void add(int value) {
        std::lock_guard lock(mutex);
        fired.push_back(value);
        changed.notify_all();
    }
    bool waitForCount(std::size_t count) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, kel::test::kWatchdogTimeout,
                                [&] { return fired.size() >= count; });
    }
};

TEST(DispatchTimerThreadTests, FiresEarlierDeadlinesFirstAndEqualOnesInSchedulingOrder) {
    TimerThread& timers = newTimerThread();
    auto log = std::make_shared<FiredLog>();
    // Hold the timer thread inside a first timer while the others are scheduled, so that it
    // finds them all in its heap.
    auto entered = std::make_shared<std::latch>(1);
    auto release = std::make_shared<std::latch>(1);
    at(timers, DispatchTime::now() + 0.001, [entered, release] {
        entered->count_down();
        release->wait();
    });
    entered->wait();
    const DispatchTime base = DispatchTime::now() + 0.2;
    const std::vector<std::pair<double, int>> timersToSchedule = {
        {0.03, 9}, {0, 1}, {0.02, 8}, {0, 2}, {0, 3}, {0.01, 7}, {0, 4}, {0, 5}, {0, 6},
    };
    for (const auto& [offset, id] : timersToSchedule) {
        at(timers, base + offset, [log, id = id] { log->add(id); });
    }
    // Once all of them are due, one more with the earliest deadline: already passed, it still
    // takes its turn after the equal deadlines scheduled before it.
    while (DispatchTime::now() <= base + 0.03) {
        std::this_thread::sleep_for(5ms);
    }
    at(timers, base, [log] { log->add(10); });
    release->count_down();
    ASSERT_TRUE(log->waitForCount(timersToSchedule.size() + 1));
    std::lock_guard lock(log->mutex);
    EXPECT_EQ(log->fired, (std::vector<int>{1, 2, 3, 4, 5, 6, 10, 7, 8, 9}));
}

TEST(DispatchTimerThreadTests, NearerDeadlineWakesTheThreadWaitingForALaterOne) {
    TimerThread& timers = newTimerThread();
    auto log = std::make_shared<FiredLog>();
    at(timers, DispatchTime::now() + 3600.0, [] {});
    // Once this one has fired, the thread goes back to sleep until the far deadline.
    at(timers, DispatchTime::now() + 0.001, [log] { log->add(0); });
    ASSERT_TRUE(log->waitForCount(1));
    at(timers, DispatchTime::now() + 0.005, [log] { log->add(1); });
    EXPECT_TRUE(log->waitForCount(2)) << "the sleeping timer thread was not woken";
}

}  // namespace

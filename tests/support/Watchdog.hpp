// Waits that only a fault ends, all bounded by one generous time-out, kWatchdogTimeout: a test
// that waits for an outcome fails instead of hanging when the outcome never comes.
//
// finishesWithin is the watchdog for code that could deadlock: the scenario runs on a helper
// thread and the test fails when it has not finished in time.
// A scenario that misses its deadline is reported as a test failure and its thread is left
// behind, detached and stuck: there is no way to stop a deadlocked thread, and leaving it lets
// the rest of the suite run. Such a scenario must not touch the test's locals after a deadline
// passed, which a deadlocked one never does.
#pragma once

#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/DispatchTime.hpp"
#include "kel/Platform/RunLoop.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace kel::test {

// Long enough for a loaded machine under a sanitizer; reached only when something is wrong.
inline constexpr std::chrono::seconds kWatchdogTimeout{20};

// kWatchdogTimeout from now, for the waits of DispatchGroup and the dispatch runtime.
inline DispatchTime watchdogDeadline() {
    return DispatchTime::now() + kWatchdogTimeout;
}

// Pumps the main queue on the calling (main) thread until `predicate` holds; false when the
// time-out passed first.
[[nodiscard]] inline bool pumpUntil(const std::function<bool()>& predicate) {
    return RunLoop::runUntil(predicate, kWatchdogTimeout);
}

// Pumps the main queue until everything submitted to it so far has run.
inline void drainMainQueue() {
    bool reached = false;
    DispatchQueue::main().async([&reached] { reached = true; });
    ASSERT_TRUE(pumpUntil([&] { return reached; })) << "the main queue did not drain in time";
}

// Runs scenario on a helper thread and waits for it; true if it finished within the deadline.
// On a missed deadline records a failure naming `what`.
inline bool finishesWithin(const std::string& what, std::function<void()> scenario,
                           std::chrono::milliseconds deadline = kWatchdogTimeout) {
    struct Shared {
        std::mutex mutex;
        std::condition_variable finished;
        bool done = false;  // guarded by mutex
    };
    auto shared = std::make_shared<Shared>();
    std::thread helper([shared, scenario = std::move(scenario)] {
        scenario();
        std::lock_guard lock(shared->mutex);
        shared->done = true;
        shared->finished.notify_all();
    });
    std::unique_lock lock(shared->mutex);
    if (shared->finished.wait_for(lock, deadline, [&] { return shared->done; })) {
        lock.unlock();
        helper.join();
        return true;
    }
    helper.detach();
    ADD_FAILURE() << what << " did not finish within " << deadline.count()
                  << " ms: it is probably deadlocked";
    return false;
}

}  // namespace kel::test

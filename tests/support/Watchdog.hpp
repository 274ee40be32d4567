// A watchdog for tests of code that could deadlock: the scenario runs on a helper thread and the
// test fails, instead of hanging, when it has not finished by a generous deadline.
//
// A scenario that misses its deadline is reported as a test failure and its thread is left
// behind, detached and stuck: there is no way to stop a deadlocked thread, and leaving it lets
// the rest of the suite run. Such a scenario must not touch the test's locals after a deadline
// passed, which a deadlocked one never does.
#pragma once

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

inline constexpr std::chrono::seconds kWatchdogDeadline{20};

// Runs scenario on a helper thread and waits for it; true if it finished within the deadline.
// On a missed deadline records a failure naming `what`.
inline bool finishesWithin(const std::string& what, std::function<void()> scenario,
                           std::chrono::milliseconds deadline = kWatchdogDeadline) {
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

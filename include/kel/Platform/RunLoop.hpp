// kel::RunLoop — runs the main queue on the main thread.
//
// The main thread is the process's initial thread. Work submitted to DispatchQueue::main()
// runs only while the main thread is inside one of these functions. An application's main ends
// in RunLoop::run(); tests pump it with runUntil. Calling any of them off the main thread is a
// fatal error.
//
// Thread rules: run, runUntil and runFor on the main thread only; stop from any thread.
#pragma once

#include <chrono>
#include <functional>

#include "kel/Export.hpp"
#include "kel/Platform/MainThread.hpp"

namespace kel {

class KEL_EXPORT RunLoop {
  public:
    // Runs main-queue work until stop() is called.
    static void run();
    // Makes the innermost run() return after the item it is running.
    static void stop();
    // Runs main-queue work until predicate() is true (checked before each wait and after each
    // item, and at least every millisecond while idle, so it may depend on work of other
    // threads) or the timeout passes; returns the last value of predicate(). Ignores stop().
    static bool runUntil(const std::function<bool()>& predicate,
                         std::chrono::steady_clock::duration timeout);
    // Runs main-queue work for the given time.
    static void runFor(std::chrono::steady_clock::duration duration);
};

}  // namespace kel

// Helpers for tests whose results arrive on the main queue: they pump it on the test's main
// thread, with a time-out that only a fault reaches.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>

#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/RunLoop.hpp"

namespace kel::schedulertest {

inline void pumpUntil(const std::function<bool()>& predicate) {
    ASSERT_TRUE(RunLoop::runUntil(predicate, std::chrono::seconds(20)))
        << "condition not reached in time";
}

// Pumps the main queue until everything submitted to it so far has run.
inline void drainMainQueue() {
    bool reached = false;
    DispatchQueue::main().async([&reached] { reached = true; });
    pumpUntil([&] { return reached; });
}

}  // namespace kel::schedulertest

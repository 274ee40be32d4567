// Helpers shared by the promise tests: waiting for a settlement from any thread, pumping the
// main queue, and a value type that counts its copies.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>

#include "kel/Platform/RunLoop.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel::testing {

inline constexpr std::chrono::seconds kTimeout{20};

// Blocks until the promise settles (without the main queue) and returns how it settled.
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
        // Released before reading the promise: its handler takes this mutex under the
        // promise's lock.
        std::unique_lock lock(signal->mutex);
        if (!signal->settled.wait_for(lock, kTimeout, [&] { return signal->done; })) {
            ADD_FAILURE() << "promise did not settle in time";
            std::abort();
        }
    }
    return *promise.resolution();
}

// Pumps the main queue until the promise settles; for tests whose callables run on the main
// queue.
template <class T>
Resolution<T> pumpUntilSettled(const Promise<T>& promise) {
    bool settled = RunLoop::runUntil([&] { return promise.resolution().has_value(); }, kTimeout);
    if (!settled) {
        ADD_FAILURE() << "promise did not settle in time";
        std::abort();
    }
    return *promise.resolution();
}

inline Error makeTestError(const std::string& text) {
    return std::make_exception_ptr(std::runtime_error(text));
}

// A value that counts how often it has been copied.
struct CopyCounted {
    explicit CopyCounted(std::shared_ptr<std::atomic<int>> copies) : copies(std::move(copies)) {}
    CopyCounted(const CopyCounted& other) : copies(other.copies) { ++*copies; }
    CopyCounted(CopyCounted&&) noexcept = default;
    CopyCounted& operator=(const CopyCounted& other) {
        copies = other.copies;
        ++*copies;
        return *this;
    }
    CopyCounted& operator=(CopyCounted&&) noexcept = default;

    std::shared_ptr<std::atomic<int>> copies;
};

}  // namespace kel::testing

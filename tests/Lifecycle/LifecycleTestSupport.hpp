// Helpers shared by the life-cycle tests: waiting for promises with or without the main queue,
// and settling promises from outside.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/RunLoop.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel::testing {

inline constexpr std::chrono::seconds kTimeout{20};

inline void requireSettled(bool settled) {
    if (!settled) {
        ADD_FAILURE() << "promise did not settle in time";
        std::abort();
    }
}

// Blocks until the promise settles on any thread (no main queue needed).
template <class T>
Resolution<T> await(const Promise<T>& promise) {
    auto settled = std::make_shared<std::promise<void>>();
    auto future = settled->get_future();
    promise.always(zalgo(), [settled] { settled->set_value(); });
    requireSettled(future.wait_for(kTimeout) == std::future_status::ready);
    return *promise.resolution();
}

// Pumps the main queue until the promise settles.
template <class T>
Resolution<T> pumpUntilSettled(const Promise<T>& promise) {
    requireSettled(RunLoop::runUntil([&] { return promise.resolution().has_value(); }, kTimeout));
    return *promise.resolution();
}

// Pumps the main queue until work submitted to it now has run, so that everything submitted
// before it has run too.
inline void pumpMainQueue() {
    bool reached = false;
    DispatchQueue::main().async([&reached] { reached = true; });
    requireSettled(RunLoop::runUntil([&] { return reached; }, kTimeout));
}

inline Error makeTestError(const std::string& text) {
    return std::make_exception_ptr(std::runtime_error(text));
}

// A pending promise with its settle callables.
template <class T>
struct Pending {
    Pending() = default;
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;

    std::optional<typename Promise<T>::Fulfill> fulfill;
    std::optional<typename Promise<T>::Reject> reject;
    Promise<T> promise{[this](auto f, auto r) {
        fulfill.emplace(std::move(f));
        reject.emplace(std::move(r));
    }};
};

}  // namespace kel::testing

// Helpers for tests of promises and of the components that return them: a pending promise
// settled from outside, waiting for a settlement from any thread, and pumping the main queue
// until one; every wait is bounded by the watchdog time-out.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "Watchdog.hpp"
#include "kel/Platform/RunLoop.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel::test {

// A pending promise and the callables that settle it (a DeferredPromise has no cancel). Not
// movable: the constructor's body stores into this object.
template <class T>
struct Pending {
    Pending() = default;
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;

    std::optional<typename Promise<T>::Fulfill> fulfill;
    std::optional<typename Promise<T>::Reject> reject;
    std::optional<typename Promise<T>::Cancel> cancel;
    Promise<T> promise{[this](auto f, auto r, auto c) {
        fulfill.emplace(std::move(f));
        reject.emplace(std::move(r));
        cancel.emplace(std::move(c));
    }};
};

inline void requireSettled(bool settled) {
    if (!settled) {
        ADD_FAILURE() << "promise did not settle in time";
        std::abort();
    }
}

// Blocks until the promise settles, without the main queue.
template <class T>
void waitUntilSettled(const Promise<T>& promise) {
    auto settled = std::make_shared<std::promise<void>>();
    auto future = settled->get_future();
    promise.always(zalgo(), [settled] { settled->set_value(); });
    requireSettled(future.wait_for(kWatchdogTimeout) == std::future_status::ready);
}

// Blocks until the promise settles, without the main queue, and returns how it settled.
template <class T>
Resolution<T> await(const Promise<T>& promise) {
    waitUntilSettled(promise);
    return *promise.resolution();
}

// Pumps the main queue until the promise settles; for tests whose callables run on the main
// queue.
template <class T>
Resolution<T> pumpUntilSettled(const Promise<T>& promise) {
    requireSettled(
        RunLoop::runUntil([&] { return promise.resolution().has_value(); }, kWatchdogTimeout));
    return *promise.resolution();
}

// A promise cancelled by its constructor's body, for the inputs of joins and chains.
template <class T>
Promise<T> cancelledPromise() {
    return Promise<T>([](auto, auto, auto cancel) { cancel(); });
}

// The promises of a list of settlers (DeferredPromise or Pending), in the list's order.
template <class Settlers>
auto promisesOf(const Settlers& settlers) {
    std::vector<std::remove_cvref_t<decltype(settlers.front().promise)>> promises;
    for (const auto& settler : settlers) {
        promises.push_back(settler.promise);
    }
    return promises;
}

inline Error makeTestError(const std::string& text) {
    return std::make_exception_ptr(std::runtime_error(text));
}

}  // namespace kel::test

#include "kel/Platform/RunLoop.hpp"

#include <string>

#include "Dispatch/Runtime.hpp"
#include "kel/Platform/DispatchTime.hpp"
#include "kel/Platform/FatalError.hpp"

namespace kel {

namespace {

void requireMainThread(const char* function) {
    if (!isMainThread()) {
        fatalError(std::string(function) + " must be called on the main thread");
    }
}

DispatchTime deadlineAfter(std::chrono::steady_clock::duration duration) {
    auto now = DispatchTime::now().timePoint();
    if (duration > DispatchTime::distantFuture().timePoint() - now) {
        return DispatchTime::distantFuture();
    }
    return DispatchTime(now + duration);
}

}  // namespace

void RunLoop::run() {
    requireMainThread("RunLoop::run");
    detail::runtime().mainLoop.run();
}

void RunLoop::stop() {
    detail::runtime().mainLoop.stop();
}

bool RunLoop::runUntil(const std::function<bool()>& predicate,
                       std::chrono::steady_clock::duration timeout) {
    requireMainThread("RunLoop::runUntil");
    return detail::runtime().mainLoop.runUntil(&predicate, deadlineAfter(timeout));
}

void RunLoop::runFor(std::chrono::steady_clock::duration duration) {
    requireMainThread("RunLoop::runFor");
    detail::runtime().mainLoop.runUntil(nullptr, deadlineAfter(duration));
}

}  // namespace kel

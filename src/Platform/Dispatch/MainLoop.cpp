#include "MainLoop.hpp"

#include <algorithm>
#include <chrono>
#include <utility>

#include "QueueCore.hpp"
#include "Runtime.hpp"

namespace kel::detail {

void MainLoop::push(Task work) {
    bool wake;
    {
        std::lock_guard lock(mutex_);
        items_.push(std::move(work));
        wake = sleeping_;
    }
    if (wake) {
        wake_.notify_one();
    }
}

void MainLoop::runNext(std::unique_lock<std::mutex>& lock, const QueueCore* mainQueue) {
    Task work = items_.pop();
    lock.unlock();
    CurrentQueueScope scope(mainQueue);
    runWork(work);
}

void MainLoop::run() {
    const QueueCore* mainQueue = mainQueueCore().get();
    std::unique_lock lock(mutex_);
    ++runDepth_;
    for (;;) {
        if (stopRequested_) {
            stopRequested_ = false;
            break;
        }
        if (!items_.empty()) {
            runNext(lock, mainQueue);
            lock.lock();
            continue;
        }
        sleeping_ = true;
        wake_.wait(lock);
        sleeping_ = false;
    }
    --runDepth_;
}

bool MainLoop::runUntil(const std::function<bool()>* predicate, DispatchTime deadline) {
    // The predicate may depend on other threads, which do not wake the loop: it is looked at
    // again at least this often while the main queue is idle.
    constexpr auto pollInterval = std::chrono::milliseconds(1);
    const QueueCore* mainQueue = mainQueueCore().get();
    for (;;) {
        if (predicate != nullptr && (*predicate)()) {
            return true;
        }
        std::unique_lock lock(mutex_);
        if (!items_.empty()) {
            runNext(lock, mainQueue);
            continue;
        }
        DispatchTime now = DispatchTime::now();
        if (now >= deadline) {
            break;
        }
        DispatchTime wakeAt =
            predicate != nullptr ? std::min(deadline, now + pollInterval) : deadline;
        sleeping_ = true;
        wake_.wait_until(lock, wakeAt.timePoint());
        sleeping_ = false;
    }
    return predicate != nullptr && (*predicate)();
}

void MainLoop::stop() {
    bool wake = false;
    {
        std::lock_guard lock(mutex_);
        if (runDepth_ > 0) {
            stopRequested_ = true;
            wake = sleeping_;
        }
    }
    if (wake) {
        wake_.notify_one();
    }
}

}  // namespace kel::detail

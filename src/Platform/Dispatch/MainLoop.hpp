// kel::detail::MainLoop — the main queue's work and the run loop's state.
//
// Work pushed from any thread waits in a FIFO until the main thread runs it inside RunLoop::run,
// runUntil or runFor. Each item runs marked as an item of the main queue. run() calls nest; stop
// ends the innermost one after the item it is running.
//
// Thread rules: push and stop from any thread; run and runUntil on the main thread only (RunLoop
// checks this). mutex_ guards the state.
//
// Ownership: part of the process-wide runtime, never destroyed.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>

#include "Ring.hpp"
#include "kel/Platform/DispatchTime.hpp"
#include "kel/Platform/Task.hpp"

namespace kel::detail {

class QueueCore;

class MainLoop {
  public:
    void push(Task work);
    // Runs items until stop is requested (run), the predicate holds or the deadline passes.
    void run();
    bool runUntil(const std::function<bool()>* predicate, DispatchTime deadline);
    void stop();

  private:
    // Takes the first item (the caller holds `lock` and the ring is not empty), releases the lock
    // and runs the item marked as an item of the main queue; returns with `lock` released.
    void runNext(std::unique_lock<std::mutex>& lock, const QueueCore* mainQueue);

    std::mutex mutex_;  // guards everything below
    std::condition_variable wake_;
    Ring<Task> items_;
    bool sleeping_ = false;  // the main thread waits on wake_
    int runDepth_ = 0;       // nested run() calls in progress
    bool stopRequested_ = false;
};

}  // namespace kel::detail

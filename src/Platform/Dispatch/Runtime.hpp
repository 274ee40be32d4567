// kel::detail::Runtime — the process-wide dispatch runtime behind DispatchQueue, DispatchGroup,
// OperationQueue and RunLoop.
//
// One Runtime owns the worker pool, the timer thread and the main loop, wired to the queue core:
// the pool runs items through QueueCore::runPoolItem, due timers go to their queue through
// QueueCore::deliverTimer.
//
// Thread rules: everything here may be used from any thread.
//
// Ownership: the Runtime and the main queue's core are created on first use and leaked on
// purpose, so that threads still running while static destructors run never see them destroyed.
#pragma once

#include <memory>

#include "MainLoop.hpp"
#include "TimerThread.hpp"
#include "WorkerPool.hpp"

namespace kel::detail {

class QueueCore;

struct Runtime {
    Runtime();

    WorkerPool pool;
    TimerThread timers;
    MainLoop mainLoop;
};

// The process-wide runtime, created on first use and never destroyed.
Runtime& runtime();

// The core of DispatchQueue::main().
std::shared_ptr<QueueCore> mainQueueCore();

}  // namespace kel::detail

// kel::detail::WorkerPool — the bounded, growing pool of threads that runs dispatch work.
//
// The pool grows in two ways. When a worker declares that it blocks inside the runtime
// (BlockingScope), a replacement may start at once. Work can also block where the runtime cannot
// see it (a blocking read, std::future::get, a latch, a foreign lock): a monitor thread notices
// when work is queued and no worker has finished an item for a starvation interval, and adds
// workers while that lasts (one more at each further look), up to the hard limit. Workers beyond
// the soft limit end after a short idle time, so the pool shrinks back once the blocking is over;
// the others end after a longer one.
//
// The pool does not know what an item means: it hands each one to the runner given at
// construction (the dispatch runtime's runner drains a serial queue or runs a concurrent item).
//
// Thread rules: every member may be called from any thread; mutex_ guards the pool's state.
//
// Ownership: worker and monitor threads are detached and use the pool until the process ends,
// so a pool is never destroyed (the runtime's is leaked on purpose, and so are tests').
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Ring.hpp"
#include "kel/Platform/Task.hpp"
#include "kel/Platform/detail/IntrusiveList.hpp"

namespace kel::detail {

class QueueCore;

class WorkerPool {
  public:
    struct Item {
        Task task;                         // empty: drain the (serial) queue
        std::shared_ptr<QueueCore> queue;  // the queue the item belongs to
    };
    // Runs one item on the calling worker; must not throw.
    using Runner = void (*)(Item& item) noexcept;

    struct Options {
        // Threads able to run (not blocked) that the pool starts without waiting.
        std::size_t softLimit = std::max<std::size_t>(2, hardwareThreads());
        // Threads the pool never exceeds, blocked or not.
        std::size_t hardLimit = std::max<std::size_t>(64, 16 * hardwareThreads());
        // How long an idle worker waits for work before its thread ends; workers beyond the soft
        // limit (added for blocked work) wait extraIdleTimeout instead, and leave then only if
        // the pool is still beyond it.
        std::chrono::milliseconds idleTimeout{5000};
        std::chrono::milliseconds extraIdleTimeout{500};
        // How long queued work may wait while no worker finishes anything before the monitor
        // adds a worker. Short enough that work which can only finish together (each item
        // waiting on the others) gets its threads quickly; long enough that the monitor costs
        // nothing measurable.
        std::chrono::milliseconds starvationInterval{2};
    };

    WorkerPool(Options options, Runner run);
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    void push(Item item);
    // A worker of this pool is about to block, or has stopped blocking (see BlockingScope).
    void workerBlocked();
    void workerUnblocked();

    // The pool the calling thread works for; null off the pool's threads.
    static WorkerPool* current() noexcept;

    // Worker threads alive (running, idle or starting).
    std::size_t threadCount() const;
    // Waits until at most `count` worker threads are alive; false if the timeout passed first.
    bool waitForThreadCountAtMost(std::size_t count, std::chrono::steady_clock::duration timeout);

    static std::size_t hardwareThreads() noexcept {
        unsigned n = std::thread::hardware_concurrency();
        return n == 0 ? 2 : n;
    }

  private:
    struct Worker : IntrusiveListNode<Worker> {
        std::condition_variable wake;
        bool signalled = false;  // guarded by WorkerPool::mutex_
    };
    // What to do once mutex_ is released: notify an idle worker, or start a thread.
    struct Provision {
        Worker* wake = nullptr;
        Worker* spawn = nullptr;
        bool wakeMonitor = false;
        bool startMonitor = false;
    };

    void workerMain(Worker* self);
    void monitorMain();
    // A new worker record counted in threads_ and starting_; called with mutex_ held.
    Worker* addWorkerLocked();
    // Finds a thread for queued work if none is on its way; called with mutex_ held.
    Provision provideWorkerLocked();
    void carryOut(Provision provision);

    const Options options_;
    const Runner run_;
    mutable std::mutex mutex_;  // guards everything below
    Ring<Item> items_;
    IntrusiveList<Worker> idle_;  // idle workers, most recently idle first
    std::size_t threads_ = 0;
    std::size_t blocked_ = 0;
    std::size_t starting_ = 0;          // woken or new workers that have not looked yet
    std::vector<Worker*> freeWorkers_;  // records of exited workers, reused, never freed
    std::uint64_t completed_ = 0;       // items finished so far, for the monitor
    bool monitorStarted_ = false;
    bool monitorParked_ = false;  // the monitor sleeps until a push finds no worker
    std::condition_variable monitorWake_;
    std::condition_variable threadExited_;
};

// Declares that the calling thread is about to block inside the runtime (sync, group wait,
// operation waits). On a pool worker the pool may then start another thread, so that work the
// blocked thread waits for still gets a thread.
class BlockingScope {
  public:
    BlockingScope() noexcept;
    ~BlockingScope();
    BlockingScope(const BlockingScope&) = delete;
    BlockingScope& operator=(const BlockingScope&) = delete;

  private:
    WorkerPool* pool_;
};

}  // namespace kel::detail

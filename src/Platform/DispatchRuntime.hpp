// The dispatch runtime behind DispatchQueue, DispatchGroup and RunLoop (private to the library).
//
// One process-wide Runtime owns a bounded pool of worker threads, one timer thread and the
// main queue's state. Queues are QueueCore objects; a serial queue is a FIFO of work that the
// pool drains one worker at a time (the queue itself is the pool's work item), a concurrent
// queue hands each item to the pool directly.
//
// Thread rules: everything here may be used from any thread; each piece of shared state names
// the lock that guards it.
//
// Ownership: the Runtime and the global, main and marker queues are created once and leaked on
// purpose, so that threads still running while static destructors run never see them destroyed.
// Work items hold their queue strongly, so a queue whose last handle is gone still runs them.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/DispatchTime.hpp"
#include "kel/Platform/Task.hpp"

namespace kel::detail {

// A growable FIFO ring buffer. Capacity is a power of two and never shrinks, so a queue in
// steady use stops allocating. Not thread-safe: the owner's lock guards it.
template <class T>
class Ring {
  public:
    Ring() = default;
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;
    ~Ring() {
        while (size_ != 0) {
            pop();
        }
        release(data_);
    }

    bool empty() const noexcept { return size_ == 0; }
    std::size_t size() const noexcept { return size_; }

    void push(T&& value) {
        if (size_ == capacity_) {
            grow();
        }
        ::new (static_cast<void*>(data_ + ((head_ + size_) & (capacity_ - 1)))) T(std::move(value));
        ++size_;
    }

    T& front() noexcept { return data_[head_]; }

    T pop() noexcept {
        T* slot = data_ + head_;
        T value(std::move(*slot));
        slot->~T();
        head_ = (head_ + 1) & (capacity_ - 1);
        --size_;
        return value;
    }

  private:
    static T* allocate(std::size_t n) {
        return static_cast<T*>(::operator new(n * sizeof(T), std::align_val_t(alignof(T))));
    }
    static void release(T* p) noexcept {
        if (p != nullptr) {
            ::operator delete(p, std::align_val_t(alignof(T)));
        }
    }
    void grow() {
        std::size_t capacity = capacity_ == 0 ? 16 : capacity_ * 2;
        T* data = allocate(capacity);
        for (std::size_t i = 0; i < size_; ++i) {
            T* from = data_ + ((head_ + i) & (capacity_ - 1));
            ::new (static_cast<void*>(data + i)) T(std::move(*from));
            from->~T();
        }
        release(data_);
        data_ = data;
        capacity_ = capacity;
        head_ = 0;
    }

    T* data_ = nullptr;
    std::size_t capacity_ = 0;
    std::size_t head_ = 0;
    std::size_t size_ = 0;
};

// A one-shot signal a blocked thread waits on. notify() holds the mutex while it signals, so the
// waiter (which usually owns the Signal on its stack) cannot return and destroy it earlier.
class Signal {
  public:
    void notify() {
        std::lock_guard lock(mutex_);
        done_ = true;
        changed_.notify_one();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return done_; });
    }

  private:
    std::mutex mutex_;  // guards done_
    std::condition_variable changed_;
    bool done_ = false;
};

enum class QueueKind : std::uint8_t { serial, concurrent, main };

class QueueCore;

// One entry of a serial queue: work to run, or a sync caller waiting for its turn.
struct SerialItem {
    Task task;
    Signal* waiter = nullptr;  // set for a sync caller: the queue is handed over to it
};

class QueueCore : public std::enable_shared_from_this<QueueCore> {
  public:
    QueueCore(std::string label, DispatchQoS qos, QueueKind kind,
              std::shared_ptr<QueueCore> target);

    const std::string label;
    const DispatchQoS qos;
    const QueueKind kind;
    const std::shared_ptr<QueueCore> target;

    void async(Task work);
    void syncInvoke(void (*invoke)(void*), void* context);
    // True if the calling thread runs an item of this queue (directly or through a target).
    bool isCurrentOnThisThread() const noexcept;

    // Runs up to a batch of this serial queue's items on the calling pool worker.
    void drain();

  private:
    void scheduleDrain();
    // Serial queues: waits until the calling thread owns the queue (earlier items first).
    void acquireForSync();
    // Serial queues: gives the queue to the next sync caller or back to the pool.
    void releaseAfterSync();

    // Counts an item just pushed (mutex_ held) and claims the queue if nobody owns it; true if
    // the caller became the owner and must see that the queue gets drained.
    bool countPushedLocked() noexcept;
    // Gives up ownership if nothing is pending; false if the owner must go on.
    bool letGo() noexcept;

    // Serial queues. state_ packs the number of items in items_ (times two) with an "owned"
    // bit (1): the owner, a drainer on the pool or a sync caller, runs or hands on every
    // counted item. Items are counted under mutex_ when pushed and uncounted when popped, and
    // every count sets the owned bit, so pending items always have an owner. An idle queue is
    // taken (0 -> 1) and given back (1 -> 0) by sync with one compare-and-swap each.
    std::mutex mutex_;        // guards items_
    Ring<SerialItem> items_;  // waiting work, in submission order
    std::atomic<std::uint64_t> state_{0};
};

// Marks the calling thread as running an item of a queue, for isCurrent and nested sync checks.
class CurrentQueueScope {
  public:
    explicit CurrentQueueScope(const QueueCore* queue) noexcept : queue_(queue), previous_(top) {
        top = this;
    }
    ~CurrentQueueScope() { top = previous_; }
    CurrentQueueScope(const CurrentQueueScope&) = delete;
    CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;

    static bool contains(const QueueCore* queue) noexcept {
        for (const CurrentQueueScope* scope = top; scope != nullptr; scope = scope->previous_) {
            if (scope->queue_ == queue) {
                return true;
            }
        }
        return false;
    }

  private:
    // The innermost scope of the calling thread. The library is linked, not loaded late, so
    // the initial-exec model may keep it in the static TLS block, read without a call to
    // __tls_get_addr: this is on the path of every sync.
    __attribute__((tls_model(
        "initial-exec"))) static inline thread_local const CurrentQueueScope* top = nullptr;

    const QueueCore* queue_;
    const CurrentQueueScope* previous_;
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
    bool onWorker_;
};

// Runs a work item; an exception escaping it ends the process, as with std::thread.
void runWork(Task& task) noexcept;

// Names the calling thread after a queue label (the kernel keeps 15 characters). Renaming is a
// system call, so it happens only when the name changes.
void nameThread(const std::string& label);

// The worker pool. It grows in two ways. When a worker declares that it blocks inside the
// runtime (BlockingScope), a replacement may start at once. Work can also block where the
// runtime cannot see it (a blocking read, std::future::get, a latch, a foreign lock): a monitor
// thread notices when work is queued and no worker has finished an item for a short interval,
// and adds workers while that lasts (one more at each further look), up to the hard limit. Workers
// beyond the soft limit end after a short idle time, so the pool shrinks back once the blocking is
// over.
class Pool {
  public:
    struct Item {
        Task task;                         // empty: drain the (serial) queue
        std::shared_ptr<QueueCore> queue;  // the queue the item belongs to
    };

    Pool();
    void push(Item item);
    void workerBlocked();
    void workerUnblocked();

  private:
    struct Worker {
        std::condition_variable wake;
        bool signalled = false;          // guarded by Pool::mutex_
        Worker* nextIdle = nullptr;      // guarded by Pool::mutex_
        Worker* previousIdle = nullptr;  // guarded by Pool::mutex_
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
    void linkIdleLocked(Worker* worker);
    void unlinkIdleLocked(Worker* worker);

    const std::size_t softLimit_;
    const std::size_t hardLimit_;
    std::mutex mutex_;  // guards everything below
    Ring<Item> items_;
    Worker* idleHead_ = nullptr;  // idle workers, most recently idle first
    std::size_t threads_ = 0;
    std::size_t blocked_ = 0;
    std::size_t starting_ = 0;          // woken or new workers that have not looked yet
    std::vector<Worker*> freeWorkers_;  // records of exited workers, reused, never freed
    std::uint64_t completed_ = 0;       // items finished so far, for the monitor
    bool monitorStarted_ = false;
    bool monitorParked_ = false;  // the monitor sleeps until work is pushed
    std::condition_variable monitorWake_;
};

// The thread that runs asyncAfter deadlines.
class TimerThread {
  public:
    void schedule(DispatchTime deadline, Task work, std::shared_ptr<QueueCore> queue);

  private:
    struct Timer {
        DispatchTime deadline;
        std::uint64_t sequence;
        Task work;
        std::shared_ptr<QueueCore> queue;
    };
    struct Later {
        bool operator()(const Timer& a, const Timer& b) const noexcept {
            return a.deadline != b.deadline ? a.deadline > b.deadline : a.sequence > b.sequence;
        }
    };
    void run();

    std::mutex mutex_;  // guards everything below
    std::condition_variable changed_;
    std::vector<Timer> heap_;  // a min-heap on (deadline, sequence)
    std::uint64_t nextSequence_ = 0;
    bool started_ = false;
};

// The main queue's work and the run loop's state.
class MainLoop {
  public:
    void push(Task work);
    // Runs items until stop is requested (run), the predicate holds or the deadline passes.
    void run();
    bool runUntil(const std::function<bool()>* predicate, DispatchTime deadline);
    void stop();

  private:
    std::mutex mutex_;  // guards everything below
    std::condition_variable wake_;
    Ring<Task> items_;
    bool sleeping_ = false;  // the main thread waits on wake_
    int runDepth_ = 0;       // nested run() calls in progress
    bool stopRequested_ = false;
};

struct Runtime {
    Pool pool;
    TimerThread timers;
    MainLoop mainLoop;
};

// The process-wide runtime, created on first use and never destroyed.
Runtime& runtime();

std::shared_ptr<QueueCore> mainQueueCore();

}  // namespace kel::detail

#include "DispatchRuntime.hpp"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <string_view>
#include <thread>

#include "kel/Platform/FatalError.hpp"
#include "kel/Platform/RunLoop.hpp"

namespace kel {

bool isMainThread() noexcept {
    // On Linux the initial thread's id is the process id; this also holds in a forked child.
    thread_local const bool isMain = ::gettid() == ::getpid();
    return isMain;
}

namespace detail {

namespace {

// How long an idle worker waits for work before its thread ends; workers beyond the soft limit
// (added for blocked work) wait less.
constexpr auto idleTimeout = std::chrono::seconds(5);
constexpr auto extraIdleTimeout = std::chrono::milliseconds(500);
// How long queued work may wait while no worker finishes anything before the monitor adds a
// worker. Short enough that work which can only finish together (each item waiting on the
// others) gets its threads quickly; long enough that the monitor costs nothing measurable.
constexpr auto starvationInterval = std::chrono::milliseconds(2);
// How long the timer thread sleeps at most in one wait, so that far deadlines never overflow
// the clock arithmetic of the wait.
constexpr auto longestTimerWait = std::chrono::hours(1);

thread_local bool onWorkerThread = false;
thread_local char currentThreadName[16] = {};

std::size_t hardwareThreads() {
    unsigned n = std::thread::hardware_concurrency();
    return n == 0 ? 2 : n;
}

}  // namespace

void nameThread(const std::string& label) {
    char name[16];
    std::string_view shown = label.empty() ? std::string_view("kel.queue") : label;
    std::size_t length = std::min<std::size_t>(shown.size(), 15);
    std::memcpy(name, shown.data(), length);
    name[length] = '\0';
    if (std::strcmp(name, currentThreadName) != 0) {
        std::memcpy(currentThreadName, name, length + 1);
        ::pthread_setname_np(::pthread_self(), name);
    }
}

void runWork(Task& task) noexcept {
    task();
}

// MARK: - Scopes

BlockingScope::BlockingScope() noexcept : onWorker_(onWorkerThread) {
    if (onWorker_) {
        runtime().pool.workerBlocked();
    }
}

BlockingScope::~BlockingScope() {
    if (onWorker_) {
        runtime().pool.workerUnblocked();
    }
}

// MARK: - Pool

Pool::Pool()
    : softLimit_(std::max<std::size_t>(2, hardwareThreads())),
      hardLimit_(std::max<std::size_t>(64, 16 * hardwareThreads())) {}

void Pool::push(Item item) {
    Provision provision;
    {
        std::lock_guard lock(mutex_);
        items_.push(std::move(item));
        provision = provideWorkerLocked();
        if (monitorParked_) {
            monitorParked_ = false;
            provision.wakeMonitor = true;
        }
    }
    carryOut(provision);
}

Pool::Worker* Pool::addWorkerLocked() {
    ++threads_;
    ++starting_;
    if (freeWorkers_.empty()) {
        return new Worker;
    }
    Worker* worker = freeWorkers_.back();
    freeWorkers_.pop_back();
    return worker;
}

void Pool::monitorMain() {
    nameThread("kel.poolmonitor");
    std::unique_lock lock(mutex_);
    std::uint64_t seen = completed_;
    std::size_t starvedLooks = 0;  // consecutive looks that found the pool starved
    for (;;) {
        if (items_.empty()) {
            monitorParked_ = true;
            monitorWake_.wait(lock, [this] { return !monitorParked_; });
            seen = completed_;
            starvedLooks = 0;
            continue;
        }
        monitorWake_.wait_for(lock, starvationInterval);
        // Starved: work waits, no worker is on its way to it, and none has finished anything
        // for a whole interval, so every worker is stuck in something the runtime cannot see.
        // Each further starved look adds one more worker than the last (1, 2, 3, ...), never
        // more than there are queued items: a few blocked items get a thread or two, many
        // mutually waiting ones get theirs within a few looks.
        if (!items_.empty() && completed_ == seen && starting_ == 0 && idleHead_ == nullptr) {
            ++starvedLooks;
            std::size_t add = std::min({starvedLooks, items_.size(), hardLimit_ - threads_});
            std::vector<Worker*> added;
            for (std::size_t i = 0; i < add; ++i) {
                added.push_back(addWorkerLocked());
            }
            lock.unlock();
            for (Worker* worker : added) {
                std::thread([this, worker] { workerMain(worker); }).detach();
            }
            lock.lock();
        } else {
            starvedLooks = 0;
        }
        seen = completed_;
    }
}

Pool::Provision Pool::provideWorkerLocked() {
    Provision provision;
    if (items_.size() <= starting_) {
        return provision;  // enough threads are already on their way to the queued work
    }
    if (idleHead_ != nullptr) {
        Worker* worker = idleHead_;
        unlinkIdleLocked(worker);
        worker->signalled = true;
        ++starting_;
        provision.wake = worker;
    } else if (threads_ - blocked_ < softLimit_ && threads_ < hardLimit_) {
        // Grow while fewer than softLimit_ threads are able to run; blocked threads do not count,
        // so work that waits on other queued work always gets a thread, up to the hard limit.
        provision.spawn = addWorkerLocked();
        if (!monitorStarted_) {
            monitorStarted_ = true;
            provision.startMonitor = true;
        }
    }
    return provision;
}

void Pool::carryOut(Provision provision) {
    if (provision.wake != nullptr) {
        // Worker records are never freed, so notifying after the unlock is safe even if the
        // worker has woken by itself meanwhile.
        provision.wake->wake.notify_one();
    }
    if (provision.spawn != nullptr) {
        Worker* worker = provision.spawn;
        std::thread([this, worker] { workerMain(worker); }).detach();
    }
    if (provision.wakeMonitor) {
        monitorWake_.notify_one();
    }
    if (provision.startMonitor) {
        std::thread([this] { monitorMain(); }).detach();
    }
}

void Pool::workerBlocked() {
    Provision provision;
    {
        std::lock_guard lock(mutex_);
        ++blocked_;
        if (!items_.empty()) {
            provision = provideWorkerLocked();
        }
    }
    carryOut(provision);
}

void Pool::workerUnblocked() {
    std::lock_guard lock(mutex_);
    --blocked_;
}

void Pool::linkIdleLocked(Worker* worker) {
    worker->previousIdle = nullptr;
    worker->nextIdle = idleHead_;
    if (idleHead_ != nullptr) {
        idleHead_->previousIdle = worker;
    }
    idleHead_ = worker;
}

void Pool::unlinkIdleLocked(Worker* worker) {
    if (worker->previousIdle != nullptr) {
        worker->previousIdle->nextIdle = worker->nextIdle;
    } else {
        idleHead_ = worker->nextIdle;
    }
    if (worker->nextIdle != nullptr) {
        worker->nextIdle->previousIdle = worker->previousIdle;
    }
    worker->nextIdle = worker->previousIdle = nullptr;
}

void Pool::workerMain(Worker* self) {
    onWorkerThread = true;
    nameThread("kel.worker");
    std::unique_lock lock(mutex_);
    --starting_;
    for (;;) {
        if (!items_.empty()) {
            {
                Item item = items_.pop();
                lock.unlock();
                if (!item.task) {
                    item.queue->drain();
                } else {
                    nameThread(item.queue->label);
                    CurrentQueueScope scope(item.queue.get());
                    runWork(item.task);
                }
            }  // the item (its captures, its queue reference) is released before relocking
            lock.lock();
            ++completed_;
            continue;
        }
        self->signalled = false;
        linkIdleLocked(self);
        auto timeout = threads_ > softLimit_
                           ? std::chrono::duration_cast<std::chrono::milliseconds>(extraIdleTimeout)
                           : std::chrono::duration_cast<std::chrono::milliseconds>(idleTimeout);
        if (self->wake.wait_for(lock, timeout, [self] { return self->signalled; })) {
            --starting_;  // whoever signalled us has already unlinked us
            continue;
        }
        unlinkIdleLocked(self);
        if (items_.empty()) {
            --threads_;
            freeWorkers_.push_back(self);
            return;
        }
    }
}

// MARK: - Timers

void TimerThread::schedule(DispatchTime deadline, Task work, std::shared_ptr<QueueCore> queue) {
    if (deadline <= DispatchTime::now()) {
        queue->async(std::move(work));
        return;
    }
    std::unique_lock lock(mutex_);
    if (!started_) {
        started_ = true;
        std::thread([this] { run(); }).detach();
    }
    heap_.push_back(Timer{deadline, nextSequence_++, std::move(work), std::move(queue)});
    std::push_heap(heap_.begin(), heap_.end(), Later{});
    bool isEarliest = heap_.front().sequence == nextSequence_ - 1;
    lock.unlock();
    if (isEarliest) {
        changed_.notify_one();
    }
}

void TimerThread::run() {
    nameThread("kel.timers");
    std::unique_lock lock(mutex_);
    for (;;) {
        if (heap_.empty()) {
            changed_.wait(lock);
            continue;
        }
        DispatchTime deadline = heap_.front().deadline;
        DispatchTime now = DispatchTime::now();
        if (deadline <= now) {
            std::pop_heap(heap_.begin(), heap_.end(), Later{});
            Timer timer = std::move(heap_.back());
            heap_.pop_back();
            lock.unlock();
            timer.queue->async(std::move(timer.work));
            timer.queue.reset();
            lock.lock();
            continue;
        }
        if (deadline.timePoint() - now.timePoint() > longestTimerWait) {
            changed_.wait_for(lock, longestTimerWait);
        } else {
            changed_.wait_until(lock, deadline.timePoint());
        }
    }
}

// MARK: - Main loop

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
            {
                Task work = items_.pop();
                lock.unlock();
                CurrentQueueScope scope(mainQueue);
                runWork(work);
            }
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
            Task work = items_.pop();
            lock.unlock();
            CurrentQueueScope scope(mainQueue);
            runWork(work);
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

Runtime& runtime() {
    // Leaked on purpose: worker and timer threads may still use it while static destructors run.
    static Runtime* instance = new Runtime;
    return *instance;
}

}  // namespace detail

// MARK: - RunLoop

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

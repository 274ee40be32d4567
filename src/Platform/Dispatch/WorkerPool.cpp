#include "WorkerPool.hpp"

#include <utility>

#include "ThreadName.hpp"

namespace kel::detail {

namespace {

thread_local WorkerPool* currentPool = nullptr;

}  // namespace

WorkerPool::WorkerPool(Options options, Runner run) : options_(options), run_(run) {}

WorkerPool* WorkerPool::current() noexcept {
    return currentPool;
}

void WorkerPool::push(Item item) {
    Provision provision;
    {
        std::lock_guard lock(mutex_);
        items_.push(std::move(item));
        provision = provideWorkerLocked();
        // Only an item that no worker is on its way to can starve, so only such a push wakes
        // the monitor; a push that wakes or starts a worker leaves it asleep.
        if (monitorParked_ && items_.size() > starting_) {
            monitorParked_ = false;
            provision.wakeMonitor = true;
        }
    }
    carryOut(provision);
}

WorkerPool::Worker* WorkerPool::addWorkerLocked() {
    ++threads_;
    ++starting_;
    if (freeWorkers_.empty()) {
        return new Worker;
    }
    Worker* worker = freeWorkers_.back();
    freeWorkers_.pop_back();
    return worker;
}

void WorkerPool::monitorMain() {
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
        monitorWake_.wait_for(lock, options_.starvationInterval);
        // Starved: work waits, no worker is on its way to it, and none has finished anything
        // for a whole interval, so every worker is stuck in something the runtime cannot see.
        // Each further starved look adds one more worker than the last (1, 2, 3, ...), never
        // more than there are queued items: a few blocked items get a thread or two, many
        // mutually waiting ones get theirs within a few looks.
        if (!items_.empty() && completed_ == seen && starting_ == 0 && idle_.empty()) {
            ++starvedLooks;
            std::size_t add =
                std::min({starvedLooks, items_.size(), options_.hardLimit - threads_});
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

WorkerPool::Provision WorkerPool::provideWorkerLocked() {
    Provision provision;
    if (items_.size() <= starting_) {
        return provision;  // enough threads are already on their way to the queued work
    }
    if (Worker* worker = idle_.front()) {
        idle_.erase(*worker);
        worker->signalled = true;
        ++starting_;
        provision.wake = worker;
    } else if (threads_ - blocked_ < options_.softLimit && threads_ < options_.hardLimit) {
        // Grow while fewer than softLimit threads are able to run; blocked threads do not count,
        // so work that waits on other queued work always gets a thread, up to the hard limit.
        provision.spawn = addWorkerLocked();
        if (!monitorStarted_) {
            monitorStarted_ = true;
            provision.startMonitor = true;
        }
    }
    return provision;
}

void WorkerPool::carryOut(Provision provision) {
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

void WorkerPool::workerBlocked() {
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

void WorkerPool::workerUnblocked() {
    std::lock_guard lock(mutex_);
    --blocked_;
}

std::size_t WorkerPool::threadCount() const {
    std::lock_guard lock(mutex_);
    return threads_;
}

bool WorkerPool::waitForThreadCountAtMost(std::size_t count,
                                          std::chrono::steady_clock::duration timeout) {
    std::unique_lock lock(mutex_);
    return threadExited_.wait_for(lock, timeout, [&] { return threads_ <= count; });
}

void WorkerPool::workerMain(Worker* self) {
    currentPool = this;
    nameThread("kel.worker");
    std::unique_lock lock(mutex_);
    --starting_;
    for (;;) {
        if (!items_.empty()) {
            {
                Item item = items_.pop();
                lock.unlock();
                run_(item);
            }  // the item (its captures, its queue reference) is released before relocking
            lock.lock();
            ++completed_;
            continue;
        }
        self->signalled = false;
        idle_.pushFront(*self);
        auto timeout =
            threads_ > options_.softLimit ? options_.extraIdleTimeout : options_.idleTimeout;
        if (self->wake.wait_for(lock, timeout, [self] { return self->signalled; })) {
            --starting_;  // whoever signalled us has already unlinked us
            continue;
        }
        idle_.erase(*self);
        // A worker that waited the short time of an extra one leaves only while the pool is
        // still beyond its soft limit: when several idle workers time out together, the last
        // softLimit of them stay for the longer wait.
        const bool leave = timeout == options_.idleTimeout || threads_ > options_.softLimit;
        if (items_.empty() && leave) {
            --threads_;
            freeWorkers_.push_back(self);
            threadExited_.notify_all();
            return;
        }
    }
}

BlockingScope::BlockingScope() noexcept : pool_(currentPool) {
    if (pool_ != nullptr) {
        pool_->workerBlocked();
    }
}

BlockingScope::~BlockingScope() {
    if (pool_ != nullptr) {
        pool_->workerUnblocked();
    }
}

}  // namespace kel::detail

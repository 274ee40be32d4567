#include "kel/Platform/DispatchGroup.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "Dispatch/WorkerPool.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/FatalError.hpp"

namespace kel {
namespace detail {

// The counter moves with atomics; the mutex is taken only to register a notify or a waiter
// and when the counter reaches zero.
class GroupCore {
  public:
    void enter() noexcept { count_.fetch_add(1, std::memory_order_relaxed); }

    void leave() {
        long previous = count_.fetch_sub(1, std::memory_order_acq_rel);
        if (previous <= 0) {
            fatalError("DispatchGroup::leave() called more times than enter()");
        }
        if (previous == 1) {
            emptied();
        }
    }

    void notify(const DispatchQueue& queue, Task work) {
        {
            std::lock_guard lock(mutex_);
            if (count_.load(std::memory_order_acquire) != 0) {
                notifies_.push_back(Notify{queue, std::move(work)});
                return;
            }
        }
        queue.async(std::move(work));
    }

    bool wait(DispatchTime deadline) {
        if (count_.load(std::memory_order_acquire) == 0) {
            return true;
        }
        BlockingScope blocking;
        std::unique_lock lock(mutex_);
        auto isEmpty = [this] { return count_.load(std::memory_order_acquire) == 0; };
        if (deadline == DispatchTime::distantFuture()) {
            emptiedCondition_.wait(lock, isEmpty);
            return true;
        }
        return emptiedCondition_.wait_until(lock, deadline.timePoint(), isEmpty);
    }

  private:
    struct Notify {
        DispatchQueue queue;
        Task work;
    };

    // Called by the leave that brought the counter to zero. The counter may have risen again
    // meanwhile; then the notifies wait for the next time it empties.
    void emptied() {
        std::vector<Notify> ready;
        {
            std::lock_guard lock(mutex_);
            if (count_.load(std::memory_order_acquire) != 0) {
                return;
            }
            ready.swap(notifies_);
            emptiedCondition_.notify_all();
        }
        for (Notify& notify : ready) {
            notify.queue.async(std::move(notify.work));
        }
    }

    std::atomic<long> count_{0};
    std::mutex mutex_;  // guards notifies_; waiters wait on it
    std::condition_variable emptiedCondition_;
    std::vector<Notify> notifies_;  // run once the counter is next zero
};

}  // namespace detail

DispatchGroup::DispatchGroup() : core_(std::make_shared<detail::GroupCore>()) {}

void DispatchGroup::enter() const {
    core_->enter();
}

void DispatchGroup::leave() const {
    core_->leave();
}

void DispatchGroup::notify(const DispatchQueue& queue, Task work) const {
    KEL_PRECONDITION(static_cast<bool>(work), "DispatchGroup::notify needs work to run");
    core_->notify(queue, std::move(work));
}

bool DispatchGroup::wait(DispatchTime timeout) const {
    return core_->wait(timeout);
}

}  // namespace kel

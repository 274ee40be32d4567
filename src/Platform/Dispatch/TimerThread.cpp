#include "TimerThread.hpp"

#include <algorithm>
#include <thread>
#include <utility>

#include "ThreadName.hpp"

namespace kel::detail {

TimerThread::TimerThread(Deliverer deliver, std::chrono::steady_clock::duration longestWait)
    : deliver_(deliver), longestWait_(longestWait) {}

void TimerThread::schedule(DispatchTime deadline, Task work, std::shared_ptr<QueueCore> queue) {
    std::unique_lock lock(mutex_);
    // A deadline already passed goes to its queue at once, unless a timer due no later is still
    // waiting or being handed on: that one goes first.
    if (deadline <= DispatchTime::now() && !handingOn_ &&
        (heap_.empty() || deadline < heap_.front().deadline)) {
        lock.unlock();
        deliver_(queue, std::move(work));
        return;
    }
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
            handingOn_ = true;
            lock.unlock();
            deliver_(timer.queue, std::move(timer.work));
            timer.queue.reset();
            lock.lock();
            handingOn_ = false;
            continue;
        }
        if (deadline.timePoint() - now.timePoint() > longestWait_) {
            changed_.wait_for(lock, longestWait_);
        } else {
            changed_.wait_until(lock, deadline.timePoint());
        }
    }
}

}  // namespace kel::detail

#include "kel/Platform/DispatchQueue.hpp"

#include <array>
#include <exception>

#include "DispatchRuntime.hpp"
#include "kel/Platform/DispatchGroup.hpp"
#include "kel/Platform/FatalError.hpp"
#include "kel/Platform/RunLoop.hpp"

namespace kel {
namespace detail {

namespace {

// Items one pool worker runs from a serial queue before giving the thread to other queues.
constexpr int drainBatch = 64;

}  // namespace

QueueCore::QueueCore(std::string label_, DispatchQoS qos_, QueueKind kind_,
                     std::shared_ptr<QueueCore> target_)
    : label(std::move(label_)), qos(qos_), kind(kind_), target(std::move(target_)) {}

void QueueCore::async(Task work) {
    switch (kind) {
        case QueueKind::main:
            runtime().mainLoop.push(std::move(work));
            return;
        case QueueKind::concurrent:
            if (target) {
                target->async([self = shared_from_this(), work = std::move(work)]() mutable {
                    CurrentQueueScope scope(self.get());
                    runWork(work);
                });
            } else {
                runtime().pool.push(Pool::Item{std::move(work), shared_from_this()});
            }
            return;
        case QueueKind::serial: {
            {
                std::lock_guard lock(mutex_);
                items_.push(SerialItem{std::move(work), nullptr});
                if (active_) {
                    return;  // whoever owns the queue will reach the item
                }
                active_ = true;
            }
            scheduleDrain();
            return;
        }
    }
}

void QueueCore::scheduleDrain() {
    if (target) {
        target->async([self = shared_from_this()] { self->drain(); });
    } else {
        runtime().pool.push(Pool::Item{Task(), shared_from_this()});
    }
}

void QueueCore::drain() {
    CurrentQueueScope scope(this);
    for (int ran = 0;; ++ran) {
        SerialItem item;
        {
            std::lock_guard lock(mutex_);
            if (items_.empty()) {
                active_ = false;
                return;
            }
            if (ran == drainBatch) {
                break;
            }
            item = items_.pop();
        }
        if (item.waiter != nullptr) {
            item.waiter->notify();  // the queue now belongs to the sync caller
            return;
        }
        runWork(item.task);
    }
    // Let other queues have the thread; the queue stays active and is drained again later.
    scheduleDrain();
}

void QueueCore::acquireForSync() {
    Signal turn;
    {
        std::lock_guard lock(mutex_);
        if (!active_) {
            active_ = true;
            return;
        }
        items_.push(SerialItem{Task(), &turn});
    }
    BlockingScope blocking;
    turn.wait();
}

void QueueCore::releaseAfterSync() {
    Signal* next = nullptr;
    {
        std::lock_guard lock(mutex_);
        if (items_.empty()) {
            active_ = false;
            return;
        }
        if (items_.front().waiter != nullptr) {
            next = items_.pop().waiter;
        }
    }
    if (next != nullptr) {
        next->notify();
    } else {
        scheduleDrain();
    }
}

void QueueCore::syncInvoke(void (*invoke)(void*), void* context) {
    if (kind == QueueKind::main) {
        if (isMainThread()) {
            fatalError("DispatchQueue::sync on the main queue from the main thread would deadlock");
        }
        struct Call {
            void (*invoke)(void*);
            void* context;
            std::exception_ptr error;
            Signal done;
        } call{invoke, context, nullptr, {}};
        async([&call] {
            try {
                call.invoke(call.context);
            } catch (...) {
                call.error = std::current_exception();
            }
            call.done.notify();
        });
        {
            BlockingScope blocking;
            call.done.wait();
        }
        if (call.error) {
            std::rethrow_exception(call.error);
        }
        return;
    }
    if (kind == QueueKind::serial) {
        if (CurrentQueueScope::contains(this)) {
            fatalError("DispatchQueue::sync on the queue the caller is running on would deadlock");
        }
        acquireForSync();
    }
    struct Release {
        QueueCore* queue;
        ~Release() {
            if (queue->kind == QueueKind::serial) {
                queue->releaseAfterSync();
            }
        }
    } release{this};
    CurrentQueueScope scope(this);
    if (target) {
        target->syncInvoke(invoke, context);
    } else {
        invoke(context);
    }
}

bool QueueCore::isCurrentOnThisThread() const noexcept {
    if (kind == QueueKind::main) {
        return isMainThread();
    }
    return CurrentQueueScope::contains(this);
}

std::shared_ptr<QueueCore> mainQueueCore() {
    static auto* core = new std::shared_ptr<QueueCore>(std::make_shared<QueueCore>(
        "kel.main-thread", DispatchQoS::userInteractive, QueueKind::main, nullptr));
    return *core;
}

}  // namespace detail

DispatchQueue::DispatchQueue(std::string label, DispatchQoS qos, Attributes attributes,
                             std::optional<DispatchQueue> target)
    : core_(std::make_shared<detail::QueueCore>(std::move(label), qos,
                                                attributes == Attributes::concurrent
                                                    ? detail::QueueKind::concurrent
                                                    : detail::QueueKind::serial,
                                                target ? target->core_ : nullptr)) {}

DispatchQueue DispatchQueue::main() {
    // Leaked on purpose, like every process-wide queue: see DispatchRuntime.hpp.
    static const auto* queue = new DispatchQueue(detail::mainQueueCore());
    return *queue;
}

DispatchQueue DispatchQueue::global(DispatchQoS qos) {
    static const auto* queues = new std::array<DispatchQueue, 6>{
        DispatchQueue("kel.global.unspecified", DispatchQoS::unspecified, Attributes::concurrent),
        DispatchQueue("kel.global.background", DispatchQoS::background, Attributes::concurrent),
        DispatchQueue("kel.global.utility", DispatchQoS::utility, Attributes::concurrent),
        DispatchQueue("kel.global.default", DispatchQoS::default_, Attributes::concurrent),
        DispatchQueue("kel.global.userInitiated", DispatchQoS::userInitiated,
                      Attributes::concurrent),
        DispatchQueue("kel.global.userInteractive", DispatchQoS::userInteractive,
                      Attributes::concurrent),
    };
    return (*queues)[static_cast<std::size_t>(qos)];
}

const std::string& DispatchQueue::label() const {
    return core_->label;
}

DispatchQoS DispatchQueue::qos() const {
    return core_->qos;
}

bool DispatchQueue::isConcurrent() const {
    return core_->kind == detail::QueueKind::concurrent;
}

void DispatchQueue::async(Task work) const {
    KEL_PRECONDITION(static_cast<bool>(work), "DispatchQueue::async needs work to run");
    core_->async(std::move(work));
}

void DispatchQueue::async(const DispatchGroup& group, Task work) const {
    KEL_PRECONDITION(static_cast<bool>(work), "DispatchQueue::async needs work to run");
    group.enter();
    core_->async([group, work = std::move(work)]() mutable {
        work();
        group.leave();
    });
}

void DispatchQueue::asyncAfter(DispatchTime deadline, Task work) const {
    KEL_PRECONDITION(static_cast<bool>(work), "DispatchQueue::asyncAfter needs work to run");
    detail::runtime().timers.schedule(deadline, std::move(work), core_);
}

void DispatchQueue::syncInvoke(void (*invoke)(void*), void* context) const {
    core_->syncInvoke(invoke, context);
}

bool DispatchQueue::isMainQueueOnMainThread() const {
    return core_->kind == detail::QueueKind::main && isMainThread();
}

bool DispatchQueue::isCurrent() const {
    return core_->isCurrentOnThisThread();
}

const DispatchQueue& zalgo() {
    static const auto* queue = new DispatchQueue("com.plumo.promise.zalgo");
    return *queue;
}

const DispatchQueue& zalgoIfMain() {
    static const auto* queue = new DispatchQueue("com.plumo.promise.zalgoIfMain");
    return *queue;
}

}  // namespace kel

#include "kel/Platform/DispatchQueue.hpp"

#include <array>

#include "Dispatch/QueueCore.hpp"
#include "Dispatch/Runtime.hpp"
#include "kel/Platform/DispatchGroup.hpp"
#include "kel/Platform/FatalError.hpp"
#include "kel/Platform/MainThread.hpp"

namespace kel {

DispatchQueue::DispatchQueue(std::string label, DispatchQoS qos, Attributes attributes,
                             std::optional<DispatchQueue> target)
    : core_(std::make_shared<detail::QueueCore>(std::move(label), qos,
                                                attributes == Attributes::concurrent
                                                    ? detail::QueueKind::concurrent
                                                    : detail::QueueKind::serial,
                                                target ? target->core_ : nullptr)) {}

DispatchQueue DispatchQueue::main() {
    // Leaked on purpose, like every process-wide queue: see Dispatch/Runtime.hpp.
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

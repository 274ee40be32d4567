#include "Runtime.hpp"

#include "QueueCore.hpp"

namespace kel::detail {

Runtime::Runtime()
    : pool(WorkerPool::Options{}, &QueueCore::runPoolItem), timers(&QueueCore::deliverTimer) {}

Runtime& runtime() {
    // Leaked on purpose: worker and timer threads may still use it while static destructors run.
    static Runtime* instance = new Runtime;
    return *instance;
}

std::shared_ptr<QueueCore> mainQueueCore() {
    static auto* core = new std::shared_ptr<QueueCore>(std::make_shared<QueueCore>(
        "kel.main-thread", DispatchQoS::userInteractive, QueueKind::main, nullptr));
    return *core;
}

}  // namespace kel::detail

#include "kel/Concurrency/TaskScheduler.hpp"

namespace kel {

TaskScheduler::TaskScheduler(const std::string& name)
    : concurrentDispatchQueue_(name + ".TaskScheduler.concurrentDQ", DispatchQoS::default_,
                               DispatchQueue::Attributes::concurrent),
      concurrentOperationQueue_(std::make_shared<OperationQueue>()),
      serialOperationQueue_(std::make_shared<OperationQueue>()) {
    concurrentOperationQueue_->setName(name + ".TaskScheduler.concurrentOQ");
    concurrentOperationQueue_->setMaxConcurrentOperationCount(
        OperationQueue::defaultMaxConcurrentOperationCount);
    concurrentOperationQueue_->setUnderlyingQueue(concurrentDispatchQueue_);

    serialOperationQueue_->setName(name + ".TaskScheduler.serialOQ");
    serialOperationQueue_->setMaxConcurrentOperationCount(1);
}

TaskScheduler& TaskScheduler::shared() {
    // Created on first use (thread-safe static initialisation) and deliberately never
    // destroyed: pool threads may still schedule work while static destructors run at exit.
    static TaskScheduler* const scheduler = new TaskScheduler("default");
    return *scheduler;
}

void TaskScheduler::schedule(std::shared_ptr<Operation> operation) const {
    concurrentOperationQueue_->addOperation(std::move(operation));
}

void TaskScheduler::schedule(Task block) const {
    concurrentOperationQueue_->addOperation(std::move(block));
}

void TaskScheduler::scheduleLowPriority(std::shared_ptr<Operation> operation) const {
    serialOperationQueue_->addOperation(std::move(operation));
}

void TaskScheduler::scheduleLowPriority(Task block) const {
    serialOperationQueue_->addOperation(std::move(block));
}

void TaskScheduler::scheduleAfter(double seconds, Task block) const {
    concurrentDispatchQueue_.asyncAfter(
        DispatchTime::now() + seconds,
        [queue = concurrentOperationQueue_, block = std::move(block)]() mutable {
            queue->addOperation(std::move(block));
        });
}

}  // namespace kel

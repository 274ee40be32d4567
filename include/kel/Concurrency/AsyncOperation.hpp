// kel::AsyncOperation<T> — an Operation whose job finishes through a completion callback, so
// that operation queues can run work that completes later, on any thread.
//
// A subclass overrides perform(completion) and calls completion exactly once with its
// Result<T>, from any thread, at any time. The operation then reports itself finished, which
// frees its slot in the operation queue, and calls the public `completion`, if set, with the
// result. Cancelled before it starts, the operation does not run perform: start() calls
// `completion` with AsyncOperationError::cancelled and leaves the state as it is (the
// operation never reports itself executing or finished). Mind the consequence: an operation
// queue keeps such an operation, and its slot, for good, so on a queue limited to one
// operation (TaskScheduler's serial queue) nothing queued after it runs.
//
// State: ready -> executing -> finished, never back. isReady() is false once the operation
// has started, whatever its dependencies; isExecuting() and isFinished() follow the state.
// Changes of the state are announced through key-value observation (the three readiness keys
// depend on "state"), which is how an OperationQueue hears of them.
//
// operationID is 16 characters drawn uniformly from "ABCDEF0123456789" using the operating
// system's random source.
//
// Thread rules: set `completion` before the operation is scheduled; do not change it while the
// operation may start. The state is an atomic written by the starting thread and by the thread
// that completes the job; readers take no lock.
// Ownership: shared-owned (std::make_shared); while perform's job is pending, the completion
// callable handed to it keeps the operation alive.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kel/Concurrency/AsyncOperationError.hpp"
#include "kel/Export.hpp"
#include "kel/Platform/Operation.hpp"
#include "kel/Promises/Promise.hpp"
#include "kel/Promises/Result.hpp"

namespace kel {

namespace runtime {
// 16 characters, each drawn uniformly from "ABCDEF0123456789".
KEL_EXPORT std::string makeOperationID();
}  // namespace runtime

template <class T>
class AsyncOperation : public Operation {
  public:
    using Value = T;
    using CompletionHandler = std::function<void(Result<T>)>;

    AsyncOperation() : operationID_(runtime::makeOperationID()) {}

    const std::string& operationID() const noexcept { return operationID_; }

    // Called with the operation's result, or with AsyncOperationError::cancelled when the
    // operation was cancelled before it started. Empty by default.
    CompletionHandler completion;

    void start() override {
        if (isCancelled()) {
            if (completion) {
                completion(Result<T>::failed(makeError(AsyncOperationError::cancelled)));
            }
            return;
        }
        setState(State::executing);
        auto self = std::static_pointer_cast<AsyncOperation>(shared_from_this());
        perform([self = std::move(self)](Result<T> result) {
            self->setState(State::finished);
            if (self->completion) {
                self->completion(std::move(result));
            }
        });
    }

    bool isAsynchronous() const override { return true; }
    bool isReady() const override {
        return state_.load(std::memory_order_acquire) == State::ready && Operation::isReady();
    }
    bool isExecuting() const override {
        return state_.load(std::memory_order_acquire) == State::executing;
    }
    bool isFinished() const override {
        return state_.load(std::memory_order_acquire) == State::finished;
    }

    // The three readiness keys follow the one private state, so observers of any of them hear
    // each change of it.
    std::vector<std::string> keyPathsForValuesAffectingIsReady() const override {
        return {std::string(stateKey)};
    }
    std::vector<std::string> keyPathsForValuesAffectingIsExecuting() const override {
        return {std::string(stateKey)};
    }
    std::vector<std::string> keyPathsForValuesAffectingIsFinished() const override {
        return {std::string(stateKey)};
    }

  protected:
    // The job. Must call completion exactly once with the result; the base does nothing.
    virtual void perform(CompletionHandler completion) { (void)completion; }

  private:
    enum class State : unsigned char { ready, executing, finished };

    static constexpr std::string_view stateKey = "state";

    void setState(State state) {
        willChangeValueForKey(stateKey);
        state_.store(state, std::memory_order_release);
        didChangeValueForKey(stateKey);
    }

    const std::string operationID_;
    std::atomic<State> state_{State::ready};  // written by the starter and the completing thread
};

}  // namespace kel

namespace kel {

// A promise settled by the operation: its completion fulfils the promise on success, cancels it
// on an AsyncOperationError and rejects it with any other error. scheduleOn(operation) is then
// called at once to enqueue the operation.
template <class T>
template <class ScheduleOn>
Promise<T> Promise<T>::fromOperation(std::shared_ptr<AsyncOperation<T>> operation,
                                     ScheduleOn&& scheduleOn) {
    Promise<T> promise([&](auto fulfill, auto reject, auto cancel) {
        operation->completion = [fulfill = std::move(fulfill), reject = std::move(reject),
                                 cancel = std::move(cancel)](Result<T> result) {
            if (result.isSuccess()) {
                if constexpr (std::is_void_v<T>) {
                    fulfill();
                } else {
                    fulfill(std::move(result).value());
                }
            } else if (errorIs<AsyncOperationError>(result.error())) {
                cancel();
            } else {
                reject(result.error());
            }
        };
    });
    std::forward<ScheduleOn>(scheduleOn)(std::move(operation));
    return promise;
}

}  // namespace kel

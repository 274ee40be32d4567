// kel::Promise<T> — a one-shot asynchronous result: a value of T produced later, an error, or a
// cancellation.
//
//   kel::Promise<int> answer([](auto fulfill, auto) {
//       kel::DispatchQueue::global().async([fulfill] { fulfill(42); });
//   });
//   answer.then(kel::DispatchQueue::main(), [](int value) { return std::to_string(value); })
//       .then(kel::DispatchQueue::main(), [](const std::string& text) { show(text); })
//       .error(kel::DispatchQueue::main(), [](const kel::Error& error) { report(error); });
//
// A Promise is a cheap copyable handle on one shared seal; copies share it and == is identity.
// It settles once: the first fulfil, reject or cancel wins and later ones are ignored. Only its
// creator can settle it: through the callables handed to the constructor's body or to
// withCompletion's block, or the members of a DeferredPromise. Whoever holds a Promise can only
// watch it.
//
// Chaining names the queue on which the callable runs, always first:
//   then(queue, f)            f(value) returns U or Promise<U>; gives a new Promise<U>
//   then(queue, owner, f)     the same with f(value, O&) while `owner` (held weakly) lives;
//                             if it is gone when the value arrives, the new promise is rejected
//                             with PromiseError::abandoned and f is not called
//   error(queue, f)           f(const Error&) on rejection only (not on cancellation)
//   error(queue, owner, f)    f(const Error&, O&); skipped silently if the owner is gone
//   always(queue, f)          f() on any outcome; always(queue, owner, f) with f(O&)
//   cancelled(queue, f)       f() on cancellation only
// error, always and cancelled return this same promise. For Promise<void>, then's f takes no
// value (f() or f(O&)). `then` forwards a rejection or cancellation to the new promise, hopping
// to `queue` as a value would. A `then` callable that throws PromiseError::cancelled cancels the
// new promise; any other exception rejects it with that exception. The callables of error,
// always and cancelled must not throw.
//
// Queues: on kel::zalgo() the callable runs at once on the settling (or registering) thread;
// on kel::zalgoIfMain() it runs at once on the main thread and is submitted to
// DispatchQueue::main() from any other thread; any other queue gets an asynchronous submission,
// even when the promise is already settled. Handlers run in registration order under the
// promise's lock, so a callable run at once must not settle or chain onto the very promise
// that runs it.
//
// Guarantees. Each registered callable runs at most once, and exactly once for the outcomes it
// is for once the promise settles (owner forms: while their owner lives; the main queue: while
// the main thread runs RunLoop). Handlers are started in registration order: callables chained
// on one promise with zalgo, or with the same serial queue, run in the order they were chained
// (on different queues they are submitted in that order and then run as their queues decide).
// Whatever the settling thread wrote before it fulfilled, rejected or cancelled the promise is
// visible to every callable of that promise, on whatever queue it runs, and to a thread that
// sees isPending() false; what a callable writes is visible to the callables of the promise it
// settles. A callable chained onto an already settled promise still takes its queue's route.
//
// A callable is moved into the chain once and never copied. Values are passed to callables by
// const reference straight from the settled promise (a callable that takes its parameter by
// value makes the only copy); results are moved into the next promise. A promise that is
// handed on (returned by a flattening `then` callable, or given to race or all) gives up its
// value by move when nothing else can read it any more, and is copied otherwise: a move-only T
// works wherever the chain is the value's one consumer, and handing on a shared move-only
// value stops the process.
//
// Thread rules: any thread may create, settle and chain promises; the settle callables handed
// out by the constructors may be copied, kept, and called from any thread any number of times.
// Ownership: a promise never settled keeps its handlers, and what they capture, while it lives.
#pragma once

#include <concepts>
#include <cstdint>
#include <exception>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <ranges>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "kel/Extensions/Sequence.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/DispatchTime.hpp"
#include "kel/Platform/Error.hpp"
#include "kel/Platform/RunLoop.hpp"
#include "kel/Platform/Task.hpp"
#include "kel/Promises/PromiseError.hpp"
#include "kel/Promises/Resolution.hpp"
#include "kel/Promises/Result.hpp"
#include "kel/Promises/Void.hpp"
#include "kel/Promises/detail/AllRace.hpp"
#include "kel/Promises/detail/Chain.hpp"
#include "kel/Promises/detail/Seal.hpp"

namespace kel {

template <class T>
class AsyncOperation;
template <class T>
struct DeferredPromise;

template <class T>
class Promise {
  public:
    using Value = ValueOrVoid<T>;

    // Settles the promise with a value; for Promise<void>, called without an argument.
    class Fulfill {
      public:
        void operator()(Value value) const requires(!std::is_void_v<T>) {
            target_.settle(Resolution<T>::resolved(std::move(value)));
        }
        void operator()() const requires std::is_void_v<T> {
            target_.settle(Resolution<T>::resolved());
        }

      private:
        friend class Promise;
        explicit Fulfill(detail::SettleTarget<T> target) : target_(std::move(target)) {}
        detail::SettleTarget<T> target_;
    };

    // Rejects the promise with an Error, or with any std::exception-derived object.
    class Reject {
      public:
        void operator()(Error error) const {
            target_.settle(Resolution<T>::rejected(std::move(error)));
        }
        template <class E>
        requires std::derived_from<std::decay_t<E>, std::exception>
        void operator()(E&& error) const {
            (*this)(std::make_exception_ptr(std::forward<E>(error)));
        }

      private:
        friend class Promise;
        explicit Reject(detail::SettleTarget<T> target) : target_(std::move(target)) {}
        detail::SettleTarget<T> target_;
    };

    // Cancels the promise.
    class Cancel {
      public:
        void operator()() const { target_.settle(Resolution<T>::cancelled()); }

      private:
        friend class Promise;
        explicit Cancel(detail::SettleTarget<T> target) : target_(std::move(target)) {}
        detail::SettleTarget<T> target_;
    };

    // Settles the promise from a Result: success fulfils, failed rejects.
    class Completion {
      public:
        void operator()(Result<T> result) const {
            if (result.isSuccess()) {
                target_.settle(Resolution<T>::resolved(std::move(result).value()));
            } else {
                target_.settle(Resolution<T>::rejected(result.error()));
            }
        }

      private:
        friend class Promise;
        explicit Completion(detail::SettleTarget<T> target) : target_(std::move(target)) {}
        detail::SettleTarget<T> target_;
    };

    // A pending promise; `body(fulfill, reject)` or `body(fulfill, reject, cancel)` is called
    // before the constructor returns. The settle callables may be kept and called later.
    template <class Body>
    requires(std::is_invocable_v<Body&, Fulfill, Reject, Cancel> ||
             std::is_invocable_v<Body&, Fulfill, Reject>) explicit Promise(Body&& body)
        : seal_(detail::SealRef<T>::make()) {
        // The callables borrow this promise's reference for the call; copies the body keeps
        // take their own.
        auto target = [this] { return detail::SettleTarget<T>::borrowing(*seal_); };
        if constexpr (std::is_invocable_v<Body&, Fulfill, Reject, Cancel>) {
            body(Fulfill(target()), Reject(target()), Cancel(target()));
        } else {
            body(Fulfill(target()), Reject(target()));
        }
    }

    static Promise fulfilled(Value value) requires(!std::is_void_v<T>) {
        return Promise(detail::SealRef<T>::make(Resolution<T>::resolved(std::move(value))));
    }
    static Promise fulfilled() requires std::is_void_v<T> {
        return Promise(detail::SealRef<T>::make(Resolution<T>::resolved()));
    }
    static Promise rejected(Error error) {
        return Promise(detail::SealRef<T>::make(Resolution<T>::rejected(std::move(error))));
    }
    template <class E>
    requires std::derived_from<std::decay_t<E>, std::exception>
    static Promise rejected(E&& error) {
        return rejected(std::make_exception_ptr(std::forward<E>(error)));
    }

    // A pending promise; `block(completion)` is called before this returns with a callable
    // taking a Result<T>. The completion may be kept and called later, from any thread.
    template <class Block>
    requires std::is_invocable_v<Block&, Completion>
    static Promise withCompletion(Block&& block) {
        Promise promise(detail::SealRef<T>::make());
        block(Completion(detail::SettleTarget<T>::borrowing(*promise.seal_)));
        return promise;
    }

    // A promise settled by an asynchronous operation: a success fulfils it, an
    // AsyncOperationError cancels it, any other failure rejects it. scheduleOn(operation)
    // enqueues the operation. Defined with AsyncOperation, in Concurrency/AsyncOperation.hpp.
    template <class ScheduleOn>
    static Promise fromOperation(std::shared_ptr<AsyncOperation<T>> operation,
                                 ScheduleOn&& scheduleOn);

    // A no-value promise fulfilled at `until` by the default-quality global queue.
    static Promise delay(DispatchTime until) requires std::is_void_v<T> {
        auto [promise, settler] = detail::SealRef<T>::makePair();
        DispatchQueue::global(DispatchQoS::default_)
            .asyncAfter(
                until, [target = std::move(settler)] { target.settle(Resolution<T>::resolved()); });
        return Promise(std::move(promise));
    }

    template <detail::ThenCallable<T> F>
    auto then(const DispatchQueue& queue, F&& f) const -> Promise<detail::ThenValue<T, F>> {
        return chainThen<detail::ThenValue<T, F>, typename detail::CallResult<T, F>::type>(
            queue, detail::OwnedCallable<std::decay_t<F>>(std::forward<F>(f)));
    }

    template <class O, detail::ThenCallable<T, O&> F>
    auto then(const DispatchQueue& queue, const std::shared_ptr<O>& owner, F&& f) const
        -> Promise<detail::ThenValue<T, F, O&>> {
        return chainThen<detail::ThenValue<T, F, O&>, typename detail::CallResult<T, F, O&>::type>(
            queue, detail::OwnedCallable<std::decay_t<F>, O>(std::forward<F>(f), owner));
    }

    template <detail::CallableWith<const Error&> F>
    Promise error(const DispatchQueue& queue, F&& f) const {
        return observe<detail::Outcomes::rejected>(
            queue, detail::OwnedCallable<std::decay_t<F>>(std::forward<F>(f)));
    }

    template <class O, detail::CallableWith<const Error&, O&> F>
    Promise error(const DispatchQueue& queue, const std::shared_ptr<O>& owner, F&& f) const {
        return observe<detail::Outcomes::rejected>(
            queue, detail::OwnedCallable<std::decay_t<F>, O>(std::forward<F>(f), owner));
    }

    template <detail::CallableWith F>
    Promise always(const DispatchQueue& queue, F&& f) const {
        return observe<detail::Outcomes::any>(
            queue, detail::OwnedCallable<std::decay_t<F>>(std::forward<F>(f)));
    }

    template <class O, detail::CallableWith<O&> F>
    Promise always(const DispatchQueue& queue, const std::shared_ptr<O>& owner, F&& f) const {
        return observe<detail::Outcomes::any>(
            queue, detail::OwnedCallable<std::decay_t<F>, O>(std::forward<F>(f), owner));
    }

    template <detail::CallableWith F>
    Promise cancelled(const DispatchQueue& queue, F&& f) const {
        return observe<detail::Outcomes::cancelled>(
            queue, detail::OwnedCallable<std::decay_t<F>>(std::forward<F>(f)));
    }

    // A promise of every value, in collection order. It observes the elements one after the
    // other: the first element that is rejected (or cancelled) before all earlier ones have
    // fulfilled decides the outcome. An empty collection gives an already fulfilled promise.
    static Promise<std::vector<Value>> all(std::vector<Promise> promises) {
        return detail::allOf(std::move(promises));
    }
    static Promise<std::vector<Value>> all(
        std::initializer_list<Promise> promises) requires std::is_copy_constructible_v<Value> {
        return all(std::vector<Promise>(promises));
    }

    // A promise settled by the first element to be fulfilled or rejected; cancelled elements
    // are ignored. An empty collection gives a promise that never settles.
    static Promise race(std::vector<Promise> promises) {
        return detail::raceOf(std::move(promises));
    }
    static Promise race(
        std::initializer_list<Promise> promises) requires std::is_copy_constructible_v<Value> {
        return race(std::vector<Promise>(promises));
    }

    // For promises of sequences: every element mapped by f (which may throw), order kept.
    template <class F>
    requires std::ranges::input_range<T>
    auto map(const DispatchQueue& queue, F&& f) const {
        using Element = std::ranges::range_value_t<T>;
        using U = std::remove_cvref_t<std::invoke_result_t<F&, const Element&>>;
        return then(queue, [f = std::forward<F>(f)](const T& sequence) {
            std::vector<U> mapped;
            if constexpr (std::ranges::sized_range<T>) {
                mapped.reserve(std::ranges::size(sequence));
            }
            for (const auto& element : sequence) {
                mapped.push_back(f(element));
            }
            return mapped;
        });
    }

    // As map, with f returning a std::optional; empty results are dropped.
    template <class F>
    requires std::ranges::input_range<T>
    auto flatMap(const DispatchQueue& queue, F&& f) const {
        using Element = std::ranges::range_value_t<T>;
        using U =
            typename std::remove_cvref_t<std::invoke_result_t<F&, const Element&>>::value_type;
        return then(queue, [f = std::forward<F>(f)](const T& sequence) {
            std::vector<U> mapped;
            for (const auto& element : sequence) {
                if (auto result = f(element)) {
                    mapped.push_back(std::move(*result));
                }
            }
            return mapped;
        });
    }

    // The left fold of the sequence: f(partialResult, element) returns the next partial result.
    template <class A, class F>
    requires std::ranges::input_range<T> Promise<A> reduce(const DispatchQueue& queue, A initial,
                                                           F&& f)
    const {
        // A then callable runs at most once, so the initial value is moved into the fold: the
        // accumulator may be move-only.
        return then(queue, [initial = std::move(initial),
                            f = std::forward<F>(f)](const T& sequence) mutable {
            A accumulator = std::move(initial);
            for (const auto& element : sequence) {
                accumulator = f(std::move(accumulator), element);
            }
            return accumulator;
        });
    }

    // The left fold in place: f(A& accumulator, element) updates the accumulator.
    template <class A, class F>
    requires std::ranges::input_range<T> Promise<A> reduceInto(const DispatchQueue& queue,
                                                               A initial, F&& f)
    const {
        return then(queue, [initial = std::move(initial),
                            f = std::forward<F>(f)](const T& sequence) mutable {
            A accumulator = std::move(initial);
            for (const auto& element : sequence) {
                f(accumulator, element);
            }
            return accumulator;
        });
    }

    // The elements whose key(element) was not seen before, first occurrences kept, in order.
    template <class Key>
    requires std::ranges::input_range<T>
    auto unique(const DispatchQueue& queue, Key&& key) const {
        return then(queue, [key = std::forward<Key>(key)](const T& sequence) {
            return kel::unique(sequence, std::ref(key));
        });
    }

    // The outcome so far: empty while pending. Copies the value; polling code asks the
    // questions below instead.
    std::optional<Resolution<T>> resolution() const { return seal_->resolution(); }

    // How the promise settled, without copying anything. A settled promise never changes, so
    // an answer other than isPending() stays true.
    bool isPending() const noexcept { return !seal_->isResolved(); }
    bool isFulfilled() const noexcept {
        return seal_->isResolved() && seal_->settledResolution().isResolved();
    }
    bool isRejected() const noexcept {
        return seal_->isResolved() && seal_->settledResolution().isRejected();
    }
    bool isCancelled() const noexcept {
        return seal_->isResolved() && seal_->settledResolution().isCancelled();
    }
    // The value of a fulfilled promise and the error of a rejected one, by reference into the
    // promise (valid while a copy of it lives). Asking any other promise is a programming error.
    const Value& value() const {
        KEL_PRECONDITION(isFulfilled(), "Promise::value() of a promise that is not fulfilled");
        return seal_->settledResolution().value();
    }
    const Error& error() const {
        KEL_PRECONDITION(isRejected(), "Promise::error() of a promise that is not rejected");
        return seal_->settledResolution().error();
    }

    friend bool operator==(const Promise& a, const Promise& b) noexcept {
        return a.seal_ == b.seal_;
    }

  private:
    template <class U>
    friend class Promise;
    friend struct DeferredPromise<T>;
    friend struct detail::PromiseAccess;

    explicit Promise(detail::SealRef<T> seal) : seal_(std::move(seal)) {}

    // A pending promise with its fulfil and reject callables, for DeferredPromise.
    static std::tuple<Promise, Fulfill, Reject> makeDeferred() {
        auto [seal, settler] = detail::SealRef<T>::makePair();
        Reject reject(settler);
        return {Promise(std::move(seal)), Fulfill(std::move(settler)), std::move(reject)};
    }

    // The one path by which a handler joins this promise: once it settles with an outcome that
    // `which` takes, body(resolution) runs by the queue rule of `queue` (at once, on the main
    // queue, or submitted); a submitted body keeps this promise's seal alive until it has run.
    template <detail::Outcomes which, class Body>
    void addHandler(const DispatchQueue& queue, Body&& body) const {
        seal_->addHandler(
            [executor = detail::Executor(queue), body = std::forward<Body>(body)](
                const Resolution<T>& resolution, detail::Seal<T>& source) mutable noexcept {
                if (detail::accepts<which>(resolution)) {
                    executor.run(resolution, source, std::move(body));
                }
            });
    }

    // error, always and cancelled: the callable (with its owner, if any) runs for the outcomes
    // `which` takes, and is skipped silently when its owner is gone.
    template <detail::Outcomes which, class Callable>
    Promise observe(const DispatchQueue& queue, Callable callable) const {
        addHandler<which>(queue, [callable = std::move(callable)](
                                     const Resolution<T>& resolution) mutable noexcept {
            callable.call(
                [&](auto& f, auto&... owner) {
                    if constexpr (which == detail::Outcomes::rejected) {
                        f(resolution.error(), owner...);
                    } else {
                        f(owner...);
                    }
                },
                [] {});
        });
        return *this;
    }

    // then: a new promise of U settled by the callable's result R (a U, or a Promise<U> to
    // follow), or by the error or cancellation forwarded. The short path stays inline: on a
    // settled promise, for a callable run at once, the callable runs now, as the handler would,
    // and its outcome becomes the new promise's state before anyone else can reach it.
    template <class U, class R, class Callable>
    Promise<U> chainThen(const DispatchQueue& queue, Callable callable) const {
        if constexpr (!detail::PromiseTraits<R>::value) {
            if (seal_->isResolved() && detail::Executor::runsAtOnce(queue)) {
                return Promise<U>(seal_->callResolved([&](const Resolution<T>& resolution) {
                    return detail::SealRef<U>::make(
                        detail::thenOutcome<U, R>(resolution, callable));
                }));
            }
        }
        return chainThenLater<U, R>(queue, std::move(callable));
    }

    // then's handler path: the new promise is settled when the handler runs.
    template <class U, class R, class Callable>
    Promise<U> chainThenLater(const DispatchQueue& queue, Callable callable) const {
        auto [derived, settler] = detail::SealRef<U>::makePair();
        addHandler<detail::Outcomes::any>(
            queue, [settler = std::move(settler), callable = std::move(callable)](
                       const Resolution<T>& resolution) mutable noexcept {
                detail::settleThen<U, R>(settler, resolution, callable);
            });
        return Promise<U>(std::move(derived));
    }

    detail::SealRef<T> seal_;  // never null, never replaced
};

}  // namespace kel

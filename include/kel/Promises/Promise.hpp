// kel::Promise<T> — a one-shot asynchronous result: a value of T produced later, an error, or a
// cancellation.
//
// A Promise is a cheap copyable handle on one shared seal; copies share it and == is identity.
// It settles once: the first fulfil, reject or cancel wins and later ones are ignored.
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
#include "kel/Promises/Seal.hpp"
#include "kel/Promises/Void.hpp"

namespace kel {

template <class T>
class Promise;
template <class T>
class AsyncOperation;
template <class T>
struct DeferredPromise;

namespace detail {

// Internal access to a promise's seal, for the combinators built beside Promise.
struct PromiseAccess {
    template <class T>
    static const SealRef<T>& seal(const Promise<T>& promise) noexcept {
        return promise.seal_;
    }
    // The promise's seal, taken out of a promise that is going away.
    template <class T>
    static SealRef<T> take(Promise<T>&& promise) noexcept {
        return std::move(promise.seal_);
    }
    template <class T>
    static Promise<T> make(SealRef<T> seal) {
        return Promise<T>(std::move(seal));
    }
};

template <class R>
struct PromiseTraits : std::false_type {
    using Value = R;
};
template <class U>
struct PromiseTraits<Promise<U>> : std::true_type {
    using Value = U;
};

// What a then-callable returns when given the value of a Promise<T> (and the owner, if any).
template <class T, class F, class... Owner>
struct CallResult {
    using type = std::remove_cvref_t<std::invoke_result_t<F&, const T&, Owner...>>;
};
template <class F, class... Owner>
struct CallResult<void, F, Owner...> {
    using type = std::remove_cvref_t<std::invoke_result_t<F&, Owner...>>;
};

// The value type of the promise that then(queue, f) returns: U for `U f(T)` and for
// `Promise<U> f(T)`.
template <class T, class F, class... Owner>
using ThenValue = typename PromiseTraits<typename CallResult<T, F, Owner...>::type>::Value;

template <class T, class F, class... Owner>
decltype(auto) callWithValue(F& f, const Resolution<T>& resolution, Owner&... owner) {
    if constexpr (std::is_void_v<T>) {
        return f(owner...);
    } else {
        return f(resolution.value(), owner...);
    }
}

// Where a callable runs: at once (zalgo, or zalgoIfMain on the main thread), on the main queue
// (zalgoIfMain elsewhere), or submitted asynchronously to an ordinary queue. The marker queues
// are recognised once, when the callable is registered.
class Executor {
  public:
    explicit Executor(const DispatchQueue& queue) {
        if (queue == zalgo()) {
            kind_ = Kind::zalgo;
        } else if (queue == zalgoIfMain()) {
            kind_ = Kind::zalgoIfMain;
        } else {
            kind_ = Kind::queue;
            queue_.emplace(queue);
        }
    }

    // Whether a callable for `queue` runs at once on this thread.
    static bool runsAtOnce(const DispatchQueue& queue) {
        return queue == zalgo() || (queue == zalgoIfMain() && isMainThread());
    }

    // Runs body(resolution) now or submits it; a submitted body keeps `source` (and so the
    // resolution it reads) alive until it has run.
    template <class T, class Body>
    void run(const Resolution<T>& resolution, Seal<T>& source, Body&& body) const {
        if (kind_ == Kind::zalgo || (kind_ == Kind::zalgoIfMain && isMainThread())) {
            body(resolution);
            return;
        }
        Task task([body = std::forward<Body>(body),
                   source = SealRef<T>::retained(source)]() mutable noexcept {
            body(source->settledResolution());
        });
        if (kind_ == Kind::zalgoIfMain) {
            DispatchQueue::main().async(std::move(task));
        } else {
            queue_->async(std::move(task));
        }
    }

  private:
    enum class Kind : unsigned char { zalgo, zalgoIfMain, queue };
    Kind kind_;
    std::optional<DispatchQueue> queue_;  // set for Kind::queue only
};

// The outcome of a then-callable that threw, by the error rules of `then`:
// PromiseError::cancelled cancels, anything else rejects; a thrown Error (an exception_ptr) is
// looked through. Called from inside a catch block.
template <class U>
Resolution<U> resolutionOfThrown() noexcept {
    try {
        throw;
    } catch (const PromiseError& e) {
        if (e == PromiseError::cancelled) {
            return Resolution<U>::cancelled();
        }
        return Resolution<U>::rejected(std::current_exception());
    } catch (const Error& inner) {
        // `throw error;` of an Error value: the error is the one it points to.
        if (inner) {
            try {
                std::rethrow_exception(inner);
            } catch (...) {
                return resolutionOfThrown<U>();
            }
        }
        return Resolution<U>::rejected(std::current_exception());
    } catch (...) {
        return Resolution<U>::rejected(std::current_exception());
    }
}

// The outcome of a then-callable that returns a value (or nothing). `call` invokes it.
template <class U, class R, class Call>
Resolution<U> resolutionFromCall(Call&& call) noexcept {
    try {
        if constexpr (std::is_void_v<R>) {
            call();
            return Resolution<U>::resolved();
        } else {
            return Resolution<U>::resolved(call());
        }
    } catch (...) {
        return resolutionOfThrown<U>();
    }
}

// Makes `derived` follow `inner`: its value, error or cancellation, forwarded at once. The
// value is moved on when `inner` has no other reader left (see Seal::handOn).
template <class U>
void follow(SealRef<U> inner, SettleTarget<U> derived) {
    Seal<U>::addReaderHandler(std::move(inner),
                              [derived = std::move(derived)](const Resolution<U>&, Seal<U>& source,
                                                             std::uint32_t held) noexcept {
                                  settle(derived, source.handOn(held));
                              });
}

// Settles `derived` from what a then-callable produced. `call` invokes the user's callable.
template <class U, class R, class Call>
void settleFromCall(const SettleTarget<U>& derived, Call&& call) noexcept {
    if constexpr (PromiseTraits<R>::value) {
        std::optional<R> inner;
        try {
            inner.emplace(call());
        } catch (...) {
            settle(derived, resolutionOfThrown<U>());
            return;
        }
        follow(PromiseAccess::take(std::move(*inner)), derived);
    } else {
        settle(derived, resolutionFromCall<U, R>(call));
    }
}

// The body of a then-handler once it runs on its queue: calls the callable for a value,
// forwards an error or a cancellation.
template <class U, class T, class ValueCase>
void continueThen(const Resolution<T>& resolution, const SettleTarget<U>& derived,
                  ValueCase&& onValue) noexcept {
    if (resolution.isResolved()) {
        onValue();
    } else if (resolution.isRejected()) {
        settle(derived, Resolution<U>::rejected(resolution.error()));
    } else {
        settle(derived, Resolution<U>::cancelled());
    }
}

// The outcome of a then whose callable returns a value (or nothing), given the resolution of
// the promise it was chained on: the callable's result for a value, the error or the
// cancellation forwarded otherwise.
template <class U, class R, class T, class Call>
Resolution<U> thenResolution(const Resolution<T>& resolution, Call&& call) noexcept {
    if (resolution.isResolved()) {
        return resolutionFromCall<U, R>(call);
    }
    if (resolution.isRejected()) {
        return Resolution<U>::rejected(resolution.error());
    }
    return Resolution<U>::cancelled();
}

}  // namespace detail

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
        Promise promise(detail::SealRef<T>::make());
        DispatchQueue::global(DispatchQoS::default_)
            .asyncAfter(until, [target = detail::SettleTarget<T>::owning(promise.seal_)] {
                target.settle(Resolution<T>::resolved());
            });
        return promise;
    }

    template <class F>
    auto then(const DispatchQueue& queue, F&& f) const -> Promise<detail::ThenValue<T, F>> {
        using U = detail::ThenValue<T, F>;
        using R = typename detail::CallResult<T, F>::type;
        if constexpr (!detail::PromiseTraits<R>::value) {
            // Settled already and run at once: the callable runs now, as the handler would, and
            // its outcome becomes the new promise's state before anyone else can reach it.
            if (seal_->isResolved() && detail::Executor::runsAtOnce(queue)) {
                return Promise<U>(seal_->callResolved([&](const Resolution<T>& resolution) {
                    return detail::SealRef<U>::make(detail::thenResolution<U, R>(
                        resolution,
                        [&]() -> decltype(auto) { return detail::callWithValue(f, resolution); }));
                }));
            }
        }
        auto [derived, settled] = detail::SealRef<U>::makePair();
        seal_->addHandler([executor = detail::Executor(queue), derived = std::move(settled),
                           f = std::forward<F>(f)](const Resolution<T>& resolution,
                                                   detail::Seal<T>& source) mutable noexcept {
            executor.run(resolution, source,
                         [derived = std::move(derived),
                          f = std::move(f)](const Resolution<T>& resolution) mutable noexcept {
                             detail::continueThen(resolution, derived, [&] {
                                 detail::settleFromCall<U, R>(derived, [&]() -> decltype(auto) {
                                     return detail::callWithValue(f, resolution);
                                 });
                             });
                         });
        });
        return Promise<U>(std::move(derived));
    }

    template <class O, class F>
    auto then(const DispatchQueue& queue, const std::shared_ptr<O>& owner, F&& f) const
        -> Promise<detail::ThenValue<T, F, O&>> {
        using U = detail::ThenValue<T, F, O&>;
        using R = typename detail::CallResult<T, F, O&>::type;
        auto [derived, settled] = detail::SealRef<U>::makePair();
        seal_->addHandler([executor = detail::Executor(queue), derived = std::move(settled),
                           owner = std::weak_ptr<O>(owner),
                           f = std::forward<F>(f)](const Resolution<T>& resolution,
                                                   detail::Seal<T>& source) mutable noexcept {
            executor.run(resolution, source,
                         [derived = std::move(derived), owner = std::move(owner),
                          f = std::move(f)](const Resolution<T>& resolution) mutable noexcept {
                             detail::continueThen(resolution, derived, [&] {
                                 std::shared_ptr<O> strong = owner.lock();
                                 if (!strong) {
                                     detail::settle(derived,
                                                    Resolution<U>::rejected(std::make_exception_ptr(
                                                        PromiseError::abandoned)));
                                     return;
                                 }
                                 detail::settleFromCall<U, R>(derived, [&]() -> decltype(auto) {
                                     return detail::callWithValue(f, resolution, *strong);
                                 });
                             });
                         });
        });
        return Promise<U>(std::move(derived));
    }

    template <class F>
    requires std::is_invocable_v<F&, const Error&> Promise error(const DispatchQueue& queue, F&& f)
    const {
        seal_->addHandler([executor = detail::Executor(queue), f = std::forward<F>(f)](
                              const Resolution<T>& resolution,
                              detail::Seal<T>& source) mutable noexcept {
            if (resolution.isRejected()) {
                executor.run(resolution, source,
                             [f = std::move(f)](const Resolution<T>& resolution) mutable noexcept {
                                 f(resolution.error());
                             });
            }
        });
        return *this;
    }

    template <class O, class F>
    requires std::is_invocable_v<F&, const Error&, O&> Promise
    error(const DispatchQueue& queue, const std::shared_ptr<O>& owner, F&& f)
    const {
        seal_->addHandler([executor = detail::Executor(queue), owner = std::weak_ptr<O>(owner),
                           f = std::forward<F>(f)](const Resolution<T>& resolution,
                                                   detail::Seal<T>& source) mutable noexcept {
            if (resolution.isRejected()) {
                executor.run(resolution, source,
                             [owner = std::move(owner),
                              f = std::move(f)](const Resolution<T>& resolution) mutable noexcept {
                                 if (std::shared_ptr<O> strong = owner.lock()) {
                                     f(resolution.error(), *strong);
                                 }
                             });
            }
        });
        return *this;
    }

    template <class F>
    requires std::is_invocable_v<F&> Promise always(const DispatchQueue& queue, F&& f)
    const {
        seal_->addHandler(
            [executor = detail::Executor(queue), f = std::forward<F>(f)](
                const Resolution<T>& resolution, detail::Seal<T>& source) mutable noexcept {
                executor.run(resolution, source,
                             [f = std::move(f)](const Resolution<T>&) mutable noexcept { f(); });
            });
        return *this;
    }

    template <class O, class F>
    requires std::is_invocable_v<F&, O&> Promise always(const DispatchQueue& queue,
                                                        const std::shared_ptr<O>& owner, F&& f)
    const {
        seal_->addHandler([executor = detail::Executor(queue), owner = std::weak_ptr<O>(owner),
                           f = std::forward<F>(f)](const Resolution<T>& resolution,
                                                   detail::Seal<T>& source) mutable noexcept {
            executor.run(resolution, source,
                         [owner = std::move(owner),
                          f = std::move(f)](const Resolution<T>&) mutable noexcept {
                             if (std::shared_ptr<O> strong = owner.lock()) {
                                 f(*strong);
                             }
                         });
        });
        return *this;
    }

    template <class F>
    requires std::is_invocable_v<F&> Promise cancelled(const DispatchQueue& queue, F&& f)
    const {
        seal_->addHandler([executor = detail::Executor(queue), f = std::forward<F>(f)](
                              const Resolution<T>& resolution,
                              detail::Seal<T>& source) mutable noexcept {
            if (resolution.isCancelled()) {
                executor.run(resolution, source,
                             [f = std::move(f)](const Resolution<T>&) mutable noexcept { f(); });
            }
        });
        return *this;
    }

    // A promise of every value, in collection order. It observes the elements one after the
    // other: the first element that is rejected (or cancelled) before all earlier ones have
    // fulfilled decides the outcome. An empty collection gives an already fulfilled promise.
    static Promise<std::vector<Value>> all(std::vector<Promise> promises);
    static Promise<std::vector<Value>> all(
        std::initializer_list<Promise> promises) requires std::is_copy_constructible_v<Value> {
        return all(std::vector<Promise>(promises));
    }

    // A promise settled by the first element to be fulfilled or rejected; cancelled elements
    // are ignored. An empty collection gives a promise that never settles.
    static Promise race(std::vector<Promise> promises);
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
        auto seal = detail::SealRef<T>::make();
        return {Promise(seal), Fulfill(detail::SettleTarget<T>::owning(seal)),
                Reject(detail::SettleTarget<T>::owning(seal))};
    }

    // The runner of race: decides, through a private serial queue, which input is first.
    // Only the decision runs on the queue; the winner settles the result after the decision
    // has returned, so no settlement (and no handler it runs) ever happens inside the blocking
    // sync, and two inputs settling at once cannot deadlock through the result's handlers.
    struct FirstBlockRunner {
        bool firstBlockHasRun = false;                  // guarded by serialQueue
        DispatchQueue serialQueue{"FirstBlockRunner"};  // serialises decide()

        // True for the first caller only.
        bool decide() {
            bool first = false;
            serialQueue.sync([&] {
                first = !firstBlockHasRun;
                firstBlockHasRun = true;
            });
            return first;
        }
    };

    // Shared by the handlers of one `all` call; touched by one thread at a time, since the
    // elements are visited one after the other.
    struct AllState {
        std::vector<Promise> inputs;
        std::vector<Value> values;
        detail::SettleTarget<std::vector<Value>> result;

        // Takes the resolution of input values.size(); false once it has settled the result.
        template <class R>
        bool take(R&& resolution) {
            if (resolution.isResolved()) {
                values.push_back(std::forward<R>(resolution).value());
                return true;
            }
            if (resolution.isRejected()) {
                detail::settle(result,
                               Resolution<std::vector<Value>>::rejected(resolution.error()));
            } else {
                detail::settle(result, Resolution<std::vector<Value>>::cancelled());
            }
            return false;
        }

        // Walks the inputs from values.size() on. A settled input is taken in the loop (its
        // resolution is read without its lock); at a pending one a handler is left behind that
        // takes it and walks on later. Each input is dropped from `inputs` when it is visited,
        // so a handler never keeps its own promise alive through this state.
        //
        // The handler takes its input at once but walks on only once its thread holds no seal
        // lock (AfterSettlement): a walk that went on under the settling seal's lock could
        // re-lock a seal its own thread is settling (an input derived on zalgo from a later
        // input), or lock seals in the opposite order of another thread walking another `all`.
        //
        // An input the walk is the last reader of gives its value up (moved); a settled input
        // that others can still read, or whose value is trivially copyable, is copied without
        // its lock.
        static void walk(const std::shared_ptr<AllState>& state) {
            while (state->values.size() < state->inputs.size()) {
                detail::SealRef<T> seal = std::move(state->inputs[state->values.size()].seal_);
                if constexpr (std::is_copy_constructible_v<Value>) {
                    // A trivially copyable value gains nothing from a move: always copied here.
                    if (seal->isResolved() &&
                        (std::is_trivially_copyable_v<Value> || !seal->hasSoleReader())) {
                        if (!state->take(seal->settledResolution())) {
                            return;
                        }
                        continue;
                    }
                }
                // Called at once (held == 1), the handler only hands the resolution out: the
                // walk takes it once the input's lock is released.
                std::optional<Resolution<T>> now;
                detail::Seal<T>::addReaderHandler(
                    std::move(seal), [state, &now](const Resolution<T>&, detail::Seal<T>& source,
                                                   std::uint32_t held) noexcept {
                        if (held == 1) {
                            now.emplace(source.handOn(held));
                        } else if (state->take(source.handOn(held))) {
                            detail::AfterSettlement::run([state] { walk(state); });
                        }
                    });
                if (!now || !state->take(std::move(*now))) {
                    return;
                }
            }
            detail::settle(state->result,
                           Resolution<std::vector<Value>>::resolved(std::move(state->values)));
        }
    };

    detail::SealRef<T> seal_;  // never null, never replaced
};

template <class T>
Promise<std::vector<typename Promise<T>::Value>> Promise<T>::all(std::vector<Promise> promises) {
    using Values = std::vector<Value>;
    if (promises.empty()) {
        return Promise<Values>::fulfilled(Values{});
    }
    auto state = std::make_shared<AllState>();
    state->values.reserve(promises.size());
    state->inputs = std::move(promises);
    Promise<Values> result(detail::SealRef<Values>::make());
    state->result = detail::SettleTarget<Values>::owning(result.seal_);
    AllState::walk(state);
    return result;
}

template <class T>
Promise<T> Promise<T>::race(std::vector<Promise> promises) {
    Promise result(detail::SealRef<T>::make());
    if (promises.empty()) {
        return result;
    }
    auto runner = std::make_shared<FirstBlockRunner>();
    auto target = detail::SettleTarget<T>::owning(result.seal_);
    // Each input is taken out of the vector, so that the winner, if the race is its last
    // reader, moves its value into the result.
    for (Promise& promise : promises) {
        detail::Seal<T>::addReaderHandler(
            std::move(promise.seal_),
            [runner, target](const Resolution<T>& resolution, detail::Seal<T>& source,
                             std::uint32_t held) noexcept {
                if (!resolution.isCancelled() && runner->decide()) {
                    target.settle(source.handOn(held));
                }
            });
    }
    return result;
}

}  // namespace kel

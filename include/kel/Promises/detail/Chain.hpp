// The pieces that chain promises, shared by Promise.hpp and the combinators built beside it; an
// implementation detail, not for direct use.
//
//   PromiseAccess       reaches a promise's seal (read access; settling needs a SettleTarget)
//   ThenValue, ...      what a then-callable returns, and the concepts of the chaining members
//   OwnedCallable       the owner adapter: a user callable with the owner of an owner form
//   Executor            where a callable runs: at once, on the main queue, or submitted
//   thenOutcome, ...    how a then-callable's result, exception or missing owner settles the
//                       promise that `then` returned
//
// Thread rules: stateless helpers, except Executor and OwnedCallable, which are owned by the one
// handler that holds them.
#pragma once

#include <concepts>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/Error.hpp"
#include "kel/Platform/RunLoop.hpp"
#include "kel/Platform/Task.hpp"
#include "kel/Promises/PromiseError.hpp"
#include "kel/Promises/Resolution.hpp"
#include "kel/Promises/detail/Seal.hpp"

namespace kel {

template <class T>
class Promise;

namespace detail {

// Internal access to a promise's seal, for the combinators built beside Promise. A SealRef reads
// and watches a seal; it cannot settle it (only the SettleTarget made with the seal can).
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

// A callable as the chain calls it: stored once, then invoked in place as an lvalue.
template <class F, class... Args>
concept CallableWith = std::invocable<F&, Args...>;

// A then-callable of a Promise<T>: takes the value (nothing for T = void), then the owner if any.
template <class F, class T, class... Owner>
concept ThenCallable = (std::is_void_v<T> && CallableWith<F, Owner...>) ||
                       (!std::is_void_v<T> && CallableWith<F, const T&, Owner...>);

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

// A callable that returns a promise (a firstly-callable), given the owner if any.
template <class F, class... Owner>
concept PromiseFactory = CallableWith<F, Owner...> &&
    PromiseTraits<std::remove_cvref_t<std::invoke_result_t<F&, Owner...>>>::value;

// The owner adapter: a user callable together with the owner that an owner form names, held
// weakly (O = void for the forms without one). call(body, otherwise) returns body(f, owner) with
// the owner locked for the duration of the call, or otherwise() when the owner is gone; without
// an owner it returns body(f) and is exactly as big as F. F may be a reference, for a callable
// that is only borrowed for the duration of a blocking call.
template <class F, class O = void>
class OwnedCallable {
  public:
    template <class G>
    OwnedCallable(G&& f, const std::shared_ptr<O>& owner) : f_(std::forward<G>(f)), owner_(owner) {}

    template <class Body, class Otherwise>
    decltype(auto) call(Body&& body, Otherwise&& otherwise) {
        if (std::shared_ptr<O> strong = owner_.lock()) {
            return body(f_, *strong);
        }
        return otherwise();
    }

  private:
    F f_;
    std::weak_ptr<O> owner_;
};

template <class F>
class OwnedCallable<F, void> {
  public:
    template <class G>
    explicit OwnedCallable(G&& f) : f_(std::forward<G>(f)) {}

    template <class Body, class Otherwise>
    decltype(auto) call(Body&& body, Otherwise&&) {
        return body(f_);
    }

  private:
    F f_;
};

// The rejection of a then whose owner is gone.
inline Error abandonedError() {
    return std::make_exception_ptr(PromiseError::abandoned);
}

template <class T, class F, class... Owner>
decltype(auto) callWithValue(F& f, const Resolution<T>& resolution, Owner&... owner) {
    if constexpr (std::is_void_v<T>) {
        return f(owner...);
    } else {
        return f(resolution.value(), owner...);
    }
}

// Which outcomes a handler is for: then and always take every outcome, error only a rejection,
// cancelled only a cancellation. A handler that does not take an outcome is not submitted at all.
enum class Outcomes : unsigned char { any, rejected, cancelled };

template <Outcomes which, class T>
bool accepts(const Resolution<T>& resolution) noexcept {
    if constexpr (which == Outcomes::rejected) {
        return resolution.isRejected();
    } else if constexpr (which == Outcomes::cancelled) {
        return resolution.isCancelled();
    } else {
        return true;
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

// The error or the cancellation of `resolution`, forwarded to a promise of another type.
template <class U, class T>
Resolution<U> forwarded(const Resolution<T>& resolution) {
    if (resolution.isRejected()) {
        return Resolution<U>::rejected(resolution.error());
    }
    return Resolution<U>::cancelled();
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

// The outcome of a then whose callable returns a value (or nothing), given the resolution of
// the promise it was chained on: the callable's result, or what it threw, for a value; the
// error or the cancellation forwarded otherwise; PromiseError::abandoned when the owner is gone.
// Declared inline: it is the body of every synchronous chain step.
template <class U, class R, class T, class Callable>
inline Resolution<U> thenOutcome(const Resolution<T>& resolution, Callable& callable) noexcept {
    if (!resolution.isResolved()) {
        return forwarded<U>(resolution);
    }
    return callable.call(
        [&](auto& f, auto&... owner) -> Resolution<U> {
            try {
                if constexpr (std::is_void_v<R>) {
                    callWithValue(f, resolution, owner...);
                    return Resolution<U>::resolved();
                } else {
                    return Resolution<U>::resolved(callWithValue(f, resolution, owner...));
                }
            } catch (...) {
                return resolutionOfThrown<U>();
            }
        },
        [] { return Resolution<U>::rejected(abandonedError()); });
}

// Settles the promise that `then` returned, once the then-handler runs on its queue. A
// callable that returns a promise makes `derived` follow that promise.
template <class U, class R, class T, class Callable>
void settleThen(const SettleTarget<U>& derived, const Resolution<T>& resolution,
                Callable& callable) noexcept {
    if constexpr (PromiseTraits<R>::value) {
        if (!resolution.isResolved()) {
            settle(derived, forwarded<U>(resolution));
            return;
        }
        callable.call(
            [&](auto& f, auto&... owner) {
                std::optional<R> inner;
                try {
                    inner.emplace(callWithValue(f, resolution, owner...));
                } catch (...) {
                    settle(derived, resolutionOfThrown<U>());
                    return;
                }
                follow(PromiseAccess::take(std::move(*inner)), derived);
            },
            [&] { settle(derived, Resolution<U>::rejected(abandonedError())); });
    } else {
        settle(derived, thenOutcome<U, R>(resolution, callable));
    }
}

}  // namespace detail
}  // namespace kel

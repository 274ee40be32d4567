// kel::firstly, firstlySync — start a promise chain with a callable that returns a promise.
//
//   firstly(f)                      calls f() at once and returns its very promise
//   firstly(queue, f)               a new promise; f() runs in a work item submitted
//                                   asynchronously to `queue`
//   firstly(queue, owner, f)        the same with f(O&); if the owner (held weakly) is gone
//                                   when the work item runs, the promise is rejected with
//                                   PromiseError::abandoned and f is not called
//   firstlySync(queue, f)           as firstly(queue, f), but the work item runs with a blocking
//   firstlySync(queue, owner, f)    `sync` on `queue`, so f has run before firstlySync returns
//                                   (the caller must not be running on that serial queue)
// The new promise follows f's promise for a value or an error (the value moved on when f's
// promise has no other reader, so T may be move-only). A cancellation of f's promise is
// not forwarded: the new promise then never settles. An exception thrown by f rejects it.
//
// Thread rules: callable from any thread.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel {

namespace detail {

// The value type of the promise a firstly-callable returns.
template <class F, class... Owner>
using FirstlyValue =
    typename PromiseTraits<std::remove_cvref_t<std::invoke_result_t<F&, Owner...>>>::Value;

enum class FirstlyRun : unsigned char { async, sync };

// The one body of the queue forms: a new promise that follows, for a value or an error only, the
// promise that `callable` (a user callable with its owner, see OwnedCallable) returns when the
// work item runs on `queue`, submitted asynchronously or with a blocking sync. An exception
// thrown by the callable rejects the new promise, a gone owner rejects it with
// PromiseError::abandoned. The value is moved on when the callable's promise has no other reader
// left (see Seal::handOn).
template <class T, FirstlyRun how, class Callable>
Promise<T> firstlyOn(const DispatchQueue& queue, Callable callable) {
    auto [outer, settler] = SealRef<T>::makePair();
    auto work = [target = std::move(settler), callable = std::move(callable)]() mutable {
        callable.call(
            [&](auto& f, auto&... owner) {
                std::optional<Promise<T>> inner;
                try {
                    inner.emplace(f(owner...));
                } catch (...) {
                    settle(target, Resolution<T>::rejected(std::current_exception()));
                    return;
                }
                Seal<T>::addReaderHandler(PromiseAccess::take(std::move(*inner)),
                                          [target](const Resolution<T>& resolution, Seal<T>& source,
                                                   std::uint32_t held) noexcept {
                                              if (!resolution.isCancelled()) {
                                                  settle(target, source.handOn(held));
                                              }
                                          });
            },
            [&] { settle(target, Resolution<T>::rejected(abandonedError())); });
    };
    if constexpr (how == FirstlyRun::sync) {
        queue.sync(work);
    } else {
        queue.async(std::move(work));
    }
    return PromiseAccess::make(std::move(outer));
}

}  // namespace detail

template <detail::PromiseFactory F>
std::remove_cvref_t<std::invoke_result_t<F&>> firstly(F&& f) {
    return f();
}

template <detail::PromiseFactory F>
Promise<detail::FirstlyValue<F>> firstly(const DispatchQueue& queue, F&& f) {
    return detail::firstlyOn<detail::FirstlyValue<F>, detail::FirstlyRun::async>(
        queue, detail::OwnedCallable<std::decay_t<F>>(std::forward<F>(f)));
}

template <class O, detail::PromiseFactory<O&> F>
Promise<detail::FirstlyValue<F, O&>> firstly(const DispatchQueue& queue,
                                             const std::shared_ptr<O>& owner, F&& f) {
    return detail::firstlyOn<detail::FirstlyValue<F, O&>, detail::FirstlyRun::async>(
        queue, detail::OwnedCallable<std::decay_t<F>, O>(std::forward<F>(f), owner));
}

// The sync forms only borrow f for the duration of the blocking call.
template <detail::PromiseFactory F>
Promise<detail::FirstlyValue<F>> firstlySync(const DispatchQueue& queue, F&& f) {
    return detail::firstlyOn<detail::FirstlyValue<F>, detail::FirstlyRun::sync>(
        queue, detail::OwnedCallable<F&>(f));
}

template <class O, detail::PromiseFactory<O&> F>
Promise<detail::FirstlyValue<F, O&>> firstlySync(const DispatchQueue& queue,
                                                 const std::shared_ptr<O>& owner, F&& f) {
    return detail::firstlyOn<detail::FirstlyValue<F, O&>, detail::FirstlyRun::sync>(
        queue, detail::OwnedCallable<F&, O>(f, owner));
}

}  // namespace kel

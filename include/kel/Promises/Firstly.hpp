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

// What a firstly callable returns, by the rule `then` uses: a Promise<T> or a reference to one.
template <class F, class... Owner>
using FirstlyResult = std::remove_cvref_t<std::invoke_result_t<F&, Owner...>>;

template <class F, class... Owner>
using FirstlyValue = typename PromiseTraits<FirstlyResult<F, Owner...>>::Value;

// Calls `call` and makes `outer` follow the promise it returns, for a value or an error only.
// The value is moved on when f's promise has no other reader left (see Seal::handOn).
template <class T, class Call>
void runFirstly(const SettleTarget<T>& outer, Call&& call) {
    std::optional<Promise<T>> inner;
    try {
        inner.emplace(call());
    } catch (...) {
        settle(outer, Resolution<T>::rejected(std::current_exception()));
        return;
    }
    Seal<T>::addReaderHandler(
        PromiseAccess::take(std::move(*inner)),
        [outer](const Resolution<T>& resolution, Seal<T>& source, std::uint32_t held) noexcept {
            if (!resolution.isCancelled()) {
                settle(outer, source.handOn(held));
            }
        });
}

template <class T, class O, class F>
void runFirstlyWithOwner(const SettleTarget<T>& outer, const std::weak_ptr<O>& owner, F& f) {
    std::shared_ptr<O> strong = owner.lock();
    if (!strong) {
        settle(outer, Resolution<T>::rejected(std::make_exception_ptr(PromiseError::abandoned)));
        return;
    }
    runFirstly(outer, [&] { return f(*strong); });
}

}  // namespace detail

template <class F>
requires detail::PromiseTraits<detail::FirstlyResult<F>>::value detail::FirstlyResult<F> firstly(
    F&& f) {
    return f();
}

template <class F>
requires detail::PromiseTraits<detail::FirstlyResult<F>>::value detail::FirstlyResult<F> firstly(
    const DispatchQueue& queue, F&& f) {
    using T = detail::FirstlyValue<F>;
    auto outer = detail::SealRef<T>::make();
    queue.async([target = detail::SettleTarget<T>::owning(outer),
                 f = std::forward<F>(f)]() mutable { detail::runFirstly(target, f); });
    return detail::PromiseAccess::make(std::move(outer));
}

template <class O, class F>
requires detail::PromiseTraits<detail::FirstlyResult<F, O&>>::value detail::FirstlyResult<F, O&>
firstly(const DispatchQueue& queue, const std::shared_ptr<O>& owner, F&& f) {
    using T = detail::FirstlyValue<F, O&>;
    auto outer = detail::SealRef<T>::make();
    queue.async(
        [target = detail::SettleTarget<T>::owning(outer), owner = std::weak_ptr<O>(owner),
         f = std::forward<F>(f)]() mutable { detail::runFirstlyWithOwner(target, owner, f); });
    return detail::PromiseAccess::make(std::move(outer));
}

template <class F>
requires detail::PromiseTraits<detail::FirstlyResult<F>>::value detail::FirstlyResult<F>
firstlySync(const DispatchQueue& queue, F&& f) {
    using T = detail::FirstlyValue<F>;
    auto outer = detail::SealRef<T>::make();
    auto target = detail::SettleTarget<T>::owning(outer);
    queue.sync([&] { detail::runFirstly(target, f); });
    return detail::PromiseAccess::make(std::move(outer));
}

template <class O, class F>
requires detail::PromiseTraits<detail::FirstlyResult<F, O&>>::value detail::FirstlyResult<F, O&>
firstlySync(const DispatchQueue& queue, const std::shared_ptr<O>& owner, F&& f) {
    using T = detail::FirstlyValue<F, O&>;
    auto outer = detail::SealRef<T>::make();
    std::weak_ptr<O> weakOwner(owner);
    auto target = detail::SettleTarget<T>::owning(outer);
    queue.sync([&] { detail::runFirstlyWithOwner(target, weakOwner, f); });
    return detail::PromiseAccess::make(std::move(outer));
}

}  // namespace kel

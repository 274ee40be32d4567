// kel::when, whenSome, whenFirst — joins that wait for every input and report all errors.
//
//   when(queue, list)        Promise<std::vector<V>>: the values in input order (cancelled
//                            inputs leave no entry), or WhenError with every error in input
//                            order if any input was rejected
//   when(queue, a, b[, c])   Promise<std::tuple<A, B[, C]>>: all values, or WhenError with the
//                            errors present, in the order a, b, c (possibly none, when an input
//                            was cancelled)
//   whenSome(queue, a, b)    Promise<std::tuple<std::optional<A>, std::optional<B>>>: at least
//                            one value, or WhenError with both errors
//   whenFirst(queue, a, b)   Promise<std::tuple<A, std::optional<B>>>: a's value and b's if it
//                            has one (b's error is dropped), or WhenError when a has no value
// V is the input's value type (kel::Void for Promise<void>). The inputs are taken over: an input
// whose only handle was handed in (std::move) has its value moved into the result, so V may be
// move-only; an input someone else still holds is copied. The joins never fail early and are
// never cancelled: the decision is made once, by a dispatch-group notification on `queue`, after
// the last input has settled (so it is asynchronous on `queue` even for an empty list).
//
// Thread rules: callable from any thread; inputs may settle on any threads. Each input's outcome
// is recorded, on the thread that settles it, into a slot of its own, and the group's
// notification orders every record before the decision, so no lock is needed even when `queue`
// is concurrent.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

#include "kel/Platform/DispatchGroup.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Promises/Promise.hpp"
#include "kel/Promises/WhenError.hpp"

namespace kel {

namespace detail {

// Records the outcome of each input of a tuple join, one slot per input: slot I is written only
// by input I's handler and read only by the group notification, after every handler has left.
template <class... Ts>
struct TupleJoinState {
    std::tuple<std::optional<ValueOrVoid<Ts>>...> values;
    std::array<Error, sizeof...(Ts)> errors;

    // The errors that are present, in input order.
    std::vector<Error> presentErrors() const {
        std::vector<Error> present;
        for (const Error& error : errors) {
            if (error) {
                present.push_back(error);
            }
        }
        return present;
    }
};

// Records input I's outcome into its slot. The input is taken over: when the join is its last
// reader, its value is moved into the slot (see Seal::handOn).
template <std::size_t I, class State, class T>
void watchInput(const std::shared_ptr<State>& state, const DispatchGroup& group,
                Promise<T>&& input) {
    group.enter();
    Seal<T>::addReaderHandler(
        PromiseAccess::take(std::move(input)),
        [state, group](const Resolution<T>& resolution, Seal<T>& source,
                       std::uint32_t held) noexcept {
            if (resolution.isResolved()) {
                std::get<I>(state->values).emplace(source.handOn(held).value());
            } else if (resolution.isRejected()) {
                state->errors[I] = resolution.error();
            }
            group.leave();
        });
}

// Watches every input and settles the result with decide(state) once all have settled.
template <class R, class Decide, class... Ts>
Promise<R> joinTuple(const DispatchQueue& queue, Decide decide, Promise<Ts>... inputs) {
    using State = TupleJoinState<Ts...>;
    auto state = std::make_shared<State>();
    auto result = SealRef<R>::make();
    DispatchGroup group;
    [&]<std::size_t... I>(std::index_sequence<I...>) {
        (watchInput<I>(state, group, std::move(inputs)), ...);
    }
    (std::index_sequence_for<Ts...>{});
    group.notify(queue, [state, target = SettleTarget<R>::owning(result),
                         decide = std::move(decide)] { target.settle(decide(*state)); });
    return PromiseAccess::make(std::move(result));
}

template <class R>
Resolution<R> rejectedWith(std::vector<Error> errors) {
    return Resolution<R>::rejected(std::make_exception_ptr(WhenError(std::move(errors))));
}

}  // namespace detail

template <class T>
Promise<std::vector<ValueOrVoid<T>>> when(const DispatchQueue& queue,
                                          std::vector<Promise<T>> promises) {
    using V = ValueOrVoid<T>;
    struct State {
        std::vector<std::optional<V>> values;  // slot i written only by input i's handler
        std::vector<Error> errors;             // slot i written only by input i's handler
    };
    auto state = std::make_shared<State>();
    state->values.resize(promises.size());
    state->errors.resize(promises.size());
    auto result = detail::SealRef<std::vector<V>>::make();
    DispatchGroup group;
    for (std::size_t index = 0; index < promises.size(); ++index) {
        group.enter();
        detail::Seal<T>::addReaderHandler(
            detail::PromiseAccess::take(std::move(promises[index])),
            [state, group, index](const Resolution<T>& resolution, detail::Seal<T>& source,
                                  std::uint32_t held) noexcept {
                if (resolution.isResolved()) {
                    state->values[index].emplace(source.handOn(held).value());
                } else if (resolution.isRejected()) {
                    state->errors[index] = resolution.error();
                }
                group.leave();
            });
    }
    group.notify(queue, [state, result = detail::SettleTarget<std::vector<V>>::owning(result)] {
        std::vector<Error> errors;
        for (Error& error : state->errors) {
            if (error) {
                errors.push_back(std::move(error));
            }
        }
        if (!errors.empty()) {
            detail::settle(result, detail::rejectedWith<std::vector<V>>(std::move(errors)));
            return;
        }
        std::vector<V> values;
        values.reserve(state->values.size());
        for (std::optional<V>& value : state->values) {
            if (value) {
                values.push_back(std::move(*value));
            }
        }
        detail::settle(result, Resolution<std::vector<V>>::resolved(std::move(values)));
    });
    return detail::PromiseAccess::make(std::move(result));
}

template <class T>
requires std::is_copy_constructible_v<ValueOrVoid<T>> Promise<std::vector<ValueOrVoid<T>>> when(
    const DispatchQueue& queue, std::initializer_list<Promise<T>> promises) {
    return when(queue, std::vector<Promise<T>>(promises));
}

template <class A, class B>
Promise<std::tuple<ValueOrVoid<A>, ValueOrVoid<B>>> when(const DispatchQueue& queue, Promise<A> a,
                                                         Promise<B> b) {
    using R = std::tuple<ValueOrVoid<A>, ValueOrVoid<B>>;
    return detail::joinTuple<R>(
        queue,
        [](detail::TupleJoinState<A, B>& s) {
            auto& [va, vb] = s.values;
            if (va && vb) {
                return Resolution<R>::resolved(R(std::move(*va), std::move(*vb)));
            }
            return detail::rejectedWith<R>(s.presentErrors());
        },
        std::move(a), std::move(b));
}

template <class A, class B, class C>
Promise<std::tuple<ValueOrVoid<A>, ValueOrVoid<B>, ValueOrVoid<C>>> when(const DispatchQueue& queue,
                                                                         Promise<A> a, Promise<B> b,
                                                                         Promise<C> c) {
    using R = std::tuple<ValueOrVoid<A>, ValueOrVoid<B>, ValueOrVoid<C>>;
    return detail::joinTuple<R>(
        queue,
        [](detail::TupleJoinState<A, B, C>& s) {
            auto& [va, vb, vc] = s.values;
            if (va && vb && vc) {
                return Resolution<R>::resolved(R(std::move(*va), std::move(*vb), std::move(*vc)));
            }
            return detail::rejectedWith<R>(s.presentErrors());
        },
        std::move(a), std::move(b), std::move(c));
}

template <class A, class B>
Promise<std::tuple<std::optional<ValueOrVoid<A>>, std::optional<ValueOrVoid<B>>>> whenSome(
    const DispatchQueue& queue, Promise<A> a, Promise<B> b) {
    using R = std::tuple<std::optional<ValueOrVoid<A>>, std::optional<ValueOrVoid<B>>>;
    return detail::joinTuple<R>(
        queue,
        [](detail::TupleJoinState<A, B>& s) {
            auto& [va, vb] = s.values;
            if (va || vb) {
                return Resolution<R>::resolved(R(std::move(va), std::move(vb)));
            }
            return detail::rejectedWith<R>(s.presentErrors());
        },
        std::move(a), std::move(b));
}

template <class A, class B>
Promise<std::tuple<ValueOrVoid<A>, std::optional<ValueOrVoid<B>>>> whenFirst(
    const DispatchQueue& queue, Promise<A> a, Promise<B> b) {
    using R = std::tuple<ValueOrVoid<A>, std::optional<ValueOrVoid<B>>>;
    return detail::joinTuple<R>(
        queue,
        [](detail::TupleJoinState<A, B>& s) {
            auto& [va, vb] = s.values;
            if (va) {
                return Resolution<R>::resolved(R(std::move(*va), std::move(vb)));
            }
            return detail::rejectedWith<R>(s.presentErrors());
        },
        std::move(a), std::move(b));
}

}  // namespace kel

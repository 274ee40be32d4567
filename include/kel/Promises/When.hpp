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
// is recorded, on the thread that settles it, into a slot of its own (detail::JoinSlot), and the
// group's notification orders every record before the decision, so no lock is needed even when
// `queue` is concurrent.
#pragma once

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

// One input's outcome in a join: its value, its error, or neither (cancelled). Written only by
// that input's handler, and read only by the group notification, after every handler has left.
template <class T>
struct JoinSlot {
    std::optional<ValueOrVoid<T>> value;
    Error error;
};

// Records the outcome of `input` into `slot`, an aliasing pointer that keeps the join's whole
// state alive. The input is taken over: when the join is its last reader, its value is moved
// into the slot (see Seal::handOn).
template <class T>
void record(const DispatchGroup& group, Promise<T>&& input, std::shared_ptr<JoinSlot<T>> slot) {
    group.enter();
    Seal<T>::addReaderHandler(
        PromiseAccess::take(std::move(input)),
        [slot = std::move(slot), group](const Resolution<T>& resolution, Seal<T>& source,
                                        std::uint32_t held) noexcept {
            if (resolution.isResolved()) {
                slot->value.emplace(source.handOn(held).value());
            } else if (resolution.isRejected()) {
                slot->error = resolution.error();
            }
            group.leave();
        });
}

// Settles a new promise with decide(slots) on `queue` once every input recorded in `slots` has
// settled, and returns it.
template <class R, class Slots, class Decide>
Promise<R> decideWhenAllRecorded(const DispatchQueue& queue, const DispatchGroup& group,
                                 std::shared_ptr<Slots> slots, Decide decide) {
    auto [result, settler] = SealRef<R>::makePair();
    group.notify(queue, [slots = std::move(slots), target = std::move(settler),
                         decide = std::move(decide)] { target.settle(decide(*slots)); });
    return PromiseAccess::make(std::move(result));
}

template <class R>
Resolution<R> rejectedWith(std::vector<Error> errors) {
    return Resolution<R>::rejected(std::make_exception_ptr(WhenError(std::move(errors))));
}

// The errors present in a tuple join's slots, in input order.
template <class... Ts>
std::vector<Error> presentErrors(const std::tuple<JoinSlot<Ts>...>& slots) {
    std::vector<Error> present;
    std::apply(
        [&](const auto&... slot) { ((slot.error ? present.push_back(slot.error) : void()), ...); },
        slots);
    return present;
}

// Records every input into a slot of its own and settles the result with decide(slots).
template <class R, class Decide, class... Ts>
Promise<R> joinTuple(const DispatchQueue& queue, Decide decide, Promise<Ts>... inputs) {
    using Slots = std::tuple<JoinSlot<Ts>...>;
    auto slots = std::make_shared<Slots>();
    DispatchGroup group;
    [&]<std::size_t... I>(std::index_sequence<I...>) {
        (record(group, std::move(inputs),
                std::shared_ptr<JoinSlot<Ts>>(slots, &std::get<I>(*slots))),
         ...);
    }
    (std::index_sequence_for<Ts...>{});
    return decideWhenAllRecorded<R>(queue, group, std::move(slots), std::move(decide));
}

}  // namespace detail

template <class T>
Promise<std::vector<ValueOrVoid<T>>> when(const DispatchQueue& queue,
                                          std::vector<Promise<T>> promises) {
    using Values = std::vector<ValueOrVoid<T>>;
    using Slots = std::vector<detail::JoinSlot<T>>;
    auto slots = std::make_shared<Slots>(promises.size());
    DispatchGroup group;
    for (std::size_t index = 0; index < promises.size(); ++index) {
        detail::record(group, std::move(promises[index]),
                       std::shared_ptr<detail::JoinSlot<T>>(slots, &(*slots)[index]));
    }
    return detail::decideWhenAllRecorded<Values>(queue, group, std::move(slots), [](Slots& slots) {
        std::vector<Error> errors;
        for (detail::JoinSlot<T>& slot : slots) {
            if (slot.error) {
                errors.push_back(std::move(slot.error));
            }
        }
        if (!errors.empty()) {
            return detail::rejectedWith<Values>(std::move(errors));
        }
        Values values;
        values.reserve(slots.size());
        for (detail::JoinSlot<T>& slot : slots) {
            if (slot.value) {
                values.push_back(std::move(*slot.value));
            }
        }
        return Resolution<Values>::resolved(std::move(values));
    });
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
        [](std::tuple<detail::JoinSlot<A>, detail::JoinSlot<B>>& slots) {
            auto& [a, b] = slots;
            if (a.value && b.value) {
                return Resolution<R>::resolved(R(std::move(*a.value), std::move(*b.value)));
            }
            return detail::rejectedWith<R>(detail::presentErrors(slots));
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
        [](std::tuple<detail::JoinSlot<A>, detail::JoinSlot<B>, detail::JoinSlot<C>>& slots) {
            auto& [a, b, c] = slots;
            if (a.value && b.value && c.value) {
                return Resolution<R>::resolved(
                    R(std::move(*a.value), std::move(*b.value), std::move(*c.value)));
            }
            return detail::rejectedWith<R>(detail::presentErrors(slots));
        },
        std::move(a), std::move(b), std::move(c));
}

template <class A, class B>
Promise<std::tuple<std::optional<ValueOrVoid<A>>, std::optional<ValueOrVoid<B>>>> whenSome(
    const DispatchQueue& queue, Promise<A> a, Promise<B> b) {
    using R = std::tuple<std::optional<ValueOrVoid<A>>, std::optional<ValueOrVoid<B>>>;
    return detail::joinTuple<R>(
        queue,
        [](std::tuple<detail::JoinSlot<A>, detail::JoinSlot<B>>& slots) {
            auto& [a, b] = slots;
            if (a.value || b.value) {
                return Resolution<R>::resolved(R(std::move(a.value), std::move(b.value)));
            }
            return detail::rejectedWith<R>(detail::presentErrors(slots));
        },
        std::move(a), std::move(b));
}

template <class A, class B>
Promise<std::tuple<ValueOrVoid<A>, std::optional<ValueOrVoid<B>>>> whenFirst(
    const DispatchQueue& queue, Promise<A> a, Promise<B> b) {
    using R = std::tuple<ValueOrVoid<A>, std::optional<ValueOrVoid<B>>>;
    return detail::joinTuple<R>(
        queue,
        [](std::tuple<detail::JoinSlot<A>, detail::JoinSlot<B>>& slots) {
            auto& [a, b] = slots;
            if (a.value) {
                return Resolution<R>::resolved(R(std::move(*a.value), std::move(b.value)));
            }
            return detail::rejectedWith<R>(detail::presentErrors(slots));
        },
        std::move(a), std::move(b));
}

}  // namespace kel

// The shared state and the bodies of Promise<T>::all and Promise<T>::race; an implementation
// detail of Promise.hpp, not for direct use.
//
// Thread rules: an AllState is touched by one thread at a time (the inputs are visited one after
// the other); a FirstBlockRunner's flag is guarded by its serial queue. Ownership: each state is
// shared by the handlers of one call and dies with the last of them.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Promises/Resolution.hpp"
#include "kel/Promises/Void.hpp"
#include "kel/Promises/detail/Chain.hpp"
#include "kel/Promises/detail/Seal.hpp"

namespace kel::detail {

// Shared by the handlers of one `all` call; touched by one thread at a time, since the inputs
// are visited one after the other.
template <class T>
struct AllState {
    using Value = ValueOrVoid<T>;
    using Values = std::vector<Value>;

    std::vector<Promise<T>> inputs;
    Values values;
    SettleTarget<Values> result;

    // Takes the resolution of input values.size(); false once it has settled the result.
    template <class R>
    bool take(R&& resolution) {
        if (resolution.isResolved()) {
            values.push_back(std::forward<R>(resolution).value());
            return true;
        }
        settle(result, forwarded<Values>(resolution));
        return false;
    }

    // Walks the inputs from values.size() on. A settled input is taken in the loop (its
    // resolution is read without its lock); at a pending one a handler is left behind that
    // takes it and walks on later. Each input is dropped from `inputs` when it is visited, so a
    // handler never keeps its own promise alive through this state.
    //
    // The handler takes its input at once but walks on only once its thread holds no seal lock
    // (AfterSettlement): a walk that went on under the settling seal's lock could re-lock a seal
    // its own thread is settling (an input derived on zalgo from a later input), or lock seals
    // in the opposite order of another thread walking another `all`.
    //
    // An input the walk is the last reader of gives its value up (moved); a settled input that
    // others can still read, or whose value is trivially copyable, is copied without its lock.
    static void walk(const std::shared_ptr<AllState>& state) {
        while (state->values.size() < state->inputs.size()) {
            SealRef<T> seal = PromiseAccess::take(std::move(state->inputs[state->values.size()]));
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
            // Called at once (held == 1), the handler only hands the resolution out: the walk
            // takes it once the input's lock is released.
            std::optional<Resolution<T>> now;
            Seal<T>::addReaderHandler(
                std::move(seal),
                [state, &now](const Resolution<T>&, Seal<T>& source, std::uint32_t held) noexcept {
                    if (held == 1) {
                        now.emplace(source.handOn(held));
                    } else if (state->take(source.handOn(held))) {
                        AfterSettlement::run([state] { walk(state); });
                    }
                });
            if (!now || !state->take(std::move(*now))) {
                return;
            }
        }
        settle(state->result, Resolution<Values>::resolved(std::move(state->values)));
    }
};

// A promise of every input's value, in input order; see Promise<T>::all.
template <class T>
Promise<std::vector<ValueOrVoid<T>>> allOf(std::vector<Promise<T>> inputs) {
    using Values = typename AllState<T>::Values;
    if (inputs.empty()) {
        return Promise<Values>::fulfilled(Values{});
    }
    auto state = std::make_shared<AllState<T>>();
    state->values.reserve(inputs.size());
    state->inputs = std::move(inputs);
    auto [result, settler] = SealRef<Values>::makePair();
    state->result = std::move(settler);
    AllState<T>::walk(state);
    return PromiseAccess::make(std::move(result));
}

// The runner of race: decides, through a private serial queue, which input is first. Only the
// decision runs on the queue; the winner settles the result after the decision has returned, so
// no settlement (and no handler it runs) ever happens inside the blocking sync, and two inputs
// settling at once cannot deadlock through the result's handlers.
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

// A promise settled by the first input to be fulfilled or rejected; see Promise<T>::race.
template <class T>
Promise<T> raceOf(std::vector<Promise<T>> inputs) {
    auto [result, settler] = SealRef<T>::makePair();
    if (inputs.empty()) {
        return PromiseAccess::make(std::move(result));
    }
    SettleTarget<T> target = std::move(settler);
    auto runner = std::make_shared<FirstBlockRunner>();
    // Each input is taken out of the vector, so that the winner, if the race is its last
    // reader, moves its value into the result.
    for (Promise<T>& input : inputs) {
        Seal<T>::addReaderHandler(PromiseAccess::take(std::move(input)),
                                  [runner, target](const Resolution<T>& resolution, Seal<T>& source,
                                                   std::uint32_t held) noexcept {
                                      if (!resolution.isCancelled() && runner->decide()) {
                                          target.settle(source.handOn(held));
                                      }
                                  });
    }
    return PromiseAccess::make(std::move(result));
}

}  // namespace kel::detail

// kel::detail::Seal<T> — the settle-once state behind every Promise<T>; an implementation
// detail of Promise.hpp, not for direct use.
//
// A seal is pending until its first settlement (a value, an error or a cancellation) and then
// resolved for good; later settlements are ignored. Handlers registered while pending are kept
// in registration order (the first one inline, the rest in a vector) and are called, in that
// order and under the seal's lock, when it resolves; a handler registered on a resolved seal is
// called at once, also under the lock. The handlers are destroyed after the lock is released,
// so what they capture is never destroyed inside the critical section.
//
// Thread rules: settle, addHandler and resolutionOrAddHandler may be called from any thread,
// concurrently; exactly one settlement wins, and each handler runs exactly once. A handler runs
// under the seal's lock, so it must not settle or register on the same seal.
// Ownership: shared by the promise handles and the settle callables through std::shared_ptr.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "kel/Concurrency/MutexLock.hpp"
#include "kel/Platform/InlineFunction.hpp"
#include "kel/Promises/Resolution.hpp"

namespace kel::detail {

template <class T>
class Seal;

// A handler of a seal. Callables up to 80 bytes are stored inline, which covers the handlers of
// `then`, `error`, `always` and `cancelled` with small user callables, so that registering them
// does not allocate.
template <class T>
using SealHandler = InlineFunction<void(const Resolution<T>&, const std::shared_ptr<Seal<T>>&), 80>;

template <class T>
class Seal {
  public:
    enum class State { pending, resolved };

    Seal() = default;
    explicit Seal(Resolution<T> resolution) : resolution_(std::move(resolution)) {}
    Seal(const Seal&) = delete;
    Seal& operator=(const Seal&) = delete;

    // Settles the seal unless it is already resolved, then runs the stored handlers in
    // registration order. `self` is the shared pointer through which the seal was reached; it
    // is handed to the handlers so that work they submit can keep the resolution alive.
    void settle(Resolution<T> resolution, const std::shared_ptr<Seal>& self) {
        {
            std::lock_guard guard(lock_);
            if (resolution_) {
                return;
            }
            resolution_.emplace(std::move(resolution));
            if (first_) {
                first_(*resolution_, self);
                for (auto& handler : more_) {
                    handler(*resolution_, self);
                }
            }
        }
        // Resolved now: no one else touches the handler storage any more.
        first_.reset();
        std::vector<SealHandler<T>>().swap(more_);
    }

    // Calls `handler` at once (under the lock) if the seal is resolved, otherwise stores it.
    template <class H>
    void addHandler(H&& handler, const std::shared_ptr<Seal>& self) {
        std::lock_guard guard(lock_);
        if (resolution_) {
            handler(*resolution_, self);
        } else {
            store(std::forward<H>(handler));
        }
    }

    // The resolution if the seal is resolved; otherwise stores the handler that makeHandler()
    // returns and gives null. Lets a caller that walks many promises handle the settled ones in
    // a loop, without recursing through their handlers or building handlers it does not need.
    template <class MakeHandler>
    const Resolution<T>* resolutionOrAddHandler(MakeHandler&& makeHandler) {
        std::lock_guard guard(lock_);
        if (resolution_) {
            return &*resolution_;
        }
        store(makeHandler());
        return nullptr;
    }

    // The resolution of a seal already seen resolved (it never changes afterwards).
    const Resolution<T>& settledResolution() const noexcept { return *resolution_; }

    std::optional<Resolution<T>> resolution() const {
        std::lock_guard guard(lock_);
        return resolution_;
    }

    State state() const {
        std::lock_guard guard(lock_);
        return resolution_ ? State::resolved : State::pending;
    }

  private:
    template <class H>
    void store(H&& handler) {
        if (!first_) {
            first_.emplace(std::forward<H>(handler));
        } else {
            more_.emplace_back(std::forward<H>(handler));
        }
    }

    mutable MutexLock lock_;
    // The state is "resolved" exactly when this holds a value; set once, never changed.
    std::optional<Resolution<T>> resolution_;  // guarded by lock_
    SealHandler<T> first_;                     // guarded by lock_ while pending
    std::vector<SealHandler<T>> more_;         // guarded by lock_ while pending
};

template <class T>
void settle(const std::shared_ptr<Seal<T>>& seal, Resolution<T> resolution) {
    seal->settle(std::move(resolution), seal);
}

}  // namespace kel::detail

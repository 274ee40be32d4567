// kel::Observable<Value> — a current value that any thread may read and replace, and observers
// called with the value after each replacement.
//
// next(value) stores the value under the lock and then notifies; next(value, true) (quiet)
// only stores it; nextOnlyIfChanged(value, true) notifies only when the value differs from the
// one it replaces (it is stored either way). triggerObservers() notifies with the current value.
// onNext(block) registers an observer and answers its Disposable token: the observer is called
// while its keep-alive object lives, which is the observable itself until the token's
// keepAlive() re-points it (null ends the registration at once).
//
// Notification walks the observers as they stood when it began (one registered during it is not
// called until the next one, but is kept), reads the value afresh for each observer, and
// afterwards drops the observers whose keep-alive object is gone. Observers run on the notifying
// thread after the lock is released, so an observer may call next again (a nested notification).
//
// Thread rules: value may be read and next called from any thread. On the main thread value is
// read without the lock, to keep main-thread readers fast; it is therefore a data race to call
// next from another thread while the main thread reads value (or notifies): write from the main
// thread, or hand the write to the main queue, when the main thread reads. Off the main thread,
// reads copy the value under valueLock_. The observer list is not locked: onNext, keepAlive and
// notification (next, triggerObservers) belong on one thread, the main thread in practice.
// Ownership: shared (make it with Observable<Value>::make); the list owns the observers' tokens.
#pragma once

#include <algorithm>
#include <concepts>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "kel/Concurrency/UnfairLock.hpp"
#include "kel/Lifecycle/Disposable.hpp"
#include "kel/Platform/RunLoop.hpp"

namespace kel {

template <class Value>
class Observable : public std::enable_shared_from_this<Observable<Value>> {
    struct Passkey {};

  public:
    using Block = std::function<void(const Value&)>;

    // Stores the initial value; notifies nobody.
    static std::shared_ptr<Observable> make(Value value) {
        return std::make_shared<Observable>(Passkey{}, std::move(value));
    }

    Observable(Passkey, Value value) : rawValue_(std::move(value)) {}
    Observable(const Observable&) = delete;
    Observable& operator=(const Observable&) = delete;

    // The current value: without the lock on the main thread, under it elsewhere.
    Value value() const {
        if (isMainThread()) {
            return rawValue_;
        }
        std::lock_guard guard(valueLock_);
        return rawValue_;
    }

    // Stores `value`, then notifies unless `quiet`. The replaced value is destroyed after the
    // lock is released.
    void next(Value value, bool quiet = false) {
        {
            std::lock_guard guard(valueLock_);
            std::swap(rawValue_, value);
        }
        if (!quiet) {
            triggerObservers();
        }
    }

    // Stores `value` in every case; notifies when `onlyIfChanged` is false or the value differs
    // from the one it replaces. True if it differed.
    bool nextOnlyIfChanged(Value value,
                           bool onlyIfChanged) requires std::equality_comparable<Value> {
        bool changed;
        {
            std::lock_guard guard(valueLock_);
            changed = !(rawValue_ == value);
            std::swap(rawValue_, value);
        }
        if (!onlyIfChanged || changed) {
            triggerObservers();
        }
        return changed;
    }

    // Calls every living observer of the current list with the current value, in registration
    // order, then drops the dead ones.
    void triggerObservers() {
        const std::shared_ptr<ObserverList> snapshot = observers_;
        for (const std::shared_ptr<Observer>& observer : *snapshot) {
            if (std::shared_ptr<void> alive = observer->keepAliveObject.lock()) {
                observer->block(value());
            }
        }
        pruneDeadObservers();
    }

    // Registers `block`, kept alive by this observable until the token says otherwise. The
    // block is not called now.
    std::shared_ptr<Disposable> onNext(Block block) {
        auto observer = std::make_shared<Observer>(this->weak_from_this(), std::move(block));
        if (observers_.use_count() > 1) {
            observers_ = std::make_shared<ObserverList>(*observers_);
        }
        observers_->push_back(observer);
        return observer;
    }

  private:
    class Observer final : public Disposable {
      public:
        Observer(std::weak_ptr<void> keepAlive, Block observerBlock)
            : keepAliveObject(std::move(keepAlive)), block(std::move(observerBlock)) {}

        void keepAlive(std::shared_ptr<void> object) override { keepAliveObject = object; }

        std::weak_ptr<void> keepAliveObject;
        const Block block;
    };
    using ObserverList = std::vector<std::shared_ptr<Observer>>;

    // Replaces the list by its living observers; leaves it alone when all live.
    void pruneDeadObservers() {
        const ObserverList& current = *observers_;
        auto isDead = [](const std::shared_ptr<Observer>& observer) {
            return observer->keepAliveObject.expired();
        };
        if (std::none_of(current.begin(), current.end(), isDead)) {
            return;
        }
        auto living = std::make_shared<ObserverList>();
        living->reserve(current.size());
        for (const std::shared_ptr<Observer>& observer : current) {
            if (!isDead(observer)) {
                living->push_back(observer);
            }
        }
        observers_ = std::move(living);
    }

    Value rawValue_;  // guarded by valueLock_ (read without it on the main thread)
    mutable UnfairLock valueLock_{UnfairLock::Options::dataSynchronization};
    // The observers, shared with the notifications walking them; a registration made during a
    // walk copies the list first. Not locked: one thread (see the thread rules).
    std::shared_ptr<ObserverList> observers_ = std::make_shared<ObserverList>();
};

}  // namespace kel

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
// Thread rules: value may be read and next called from any thread. The value lives in an
// immutable node behind an atomic pointer; writers publish a new node under valueLock_. The main
// thread reads without the lock (an acquire load and a copy), to keep main-thread readers fast;
// other threads copy the value under the lock. A node replaced on the main thread is freed at
// once, and so is one replaced elsewhere while the main thread has never read the value (it holds
// no node then). Otherwise the replaced node is retired and freed by the main thread at its next
// read or write (when it cannot be inside a read), or by the destructor; when 64 nodes wait, the
// writer also posts that clean-up to the main queue (once per filling of the list), so they do
// not pile up while the main thread runs its loop but leaves the observable alone. The
// observer list is not locked: onNext, keepAlive and notification (next, triggerObservers)
// belong on one thread, the main thread in practice.
// Ownership: shared (make it with Observable<Value>::make); the list owns the observers' tokens.
#pragma once

#include <algorithm>
#include <atomic>
#include <concepts>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "kel/Concurrency/UnfairLock.hpp"
#include "kel/Lifecycle/Disposable.hpp"
#include "kel/Platform/DispatchQueue.hpp"
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

    Observable(Passkey, Value value) : current_(makeNode(std::move(value), false)) {}
    Observable(const Observable&) = delete;
    Observable& operator=(const Observable&) = delete;

    ~Observable() {
        Node* current = current_.load(std::memory_order_relaxed);
        current->nextRetired = retired_;
        freeNodes(current);
        if (spare_ != nullptr) {
            NodeAllocator().deallocate(spare_, 1);
        }
    }

    // The current value: without the lock on the main thread, under it elsewhere.
    Value value() const {
        if (isMainThread()) {
            if (!mainReads_.load(std::memory_order_relaxed)) [[unlikely]] {
                std::lock_guard guard(valueLock_);
                mainReads_.store(true, std::memory_order_relaxed);
            }
            if (hasRetired_.load(std::memory_order_relaxed)) [[unlikely]] {
                freeRetiredNodes();
            }
            return current_.load(std::memory_order_acquire)->value;
        }
        std::lock_guard guard(valueLock_);
        return current_.load(std::memory_order_relaxed)->value;
    }

    // Stores `value`, then notifies unless `quiet`. The replaced value is destroyed after the
    // lock is released: at once by a main-thread writer, else by the main thread's next read or
    // write.
    void next(Value value, bool quiet = false) {
        store(std::move(value), [](const Value&, const Value&) { return true; });
        if (!quiet) {
            triggerObservers();
        }
    }

    // Stores `value` in every case; notifies when `onlyIfChanged` is false or the value differs
    // from the one it replaces. True if it differed.
    bool nextOnlyIfChanged(Value value,
                           bool onlyIfChanged) requires std::equality_comparable<Value> {
        const bool changed = store(std::move(value), [](const Value& stored, const Value& fresh) {
            return !(stored == fresh);
        });
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
    // One published value. Never changed once published; freed as the thread rules say.
    struct Node {
        explicit Node(Value&& nodeValue) : value(std::move(nodeValue)) {}
        const Value value;
        Node* nextRetired = nullptr;  // the retired list's link; guarded by valueLock_
    };
    using NodeAllocator = std::allocator<Node>;

    // Publishes a node holding `value` and frees what this thread may free. Answers
    // differs(replaced value, new value), computed under the lock.
    template <class Differs>
    bool store(Value&& value, Differs differs) {
        const bool onMainThread = isMainThread();
        Node* fresh = makeNode(std::move(value), onMainThread);
        Node* freed = nullptr;
        bool postCleanup = false;
        bool changed;
        try {
            std::lock_guard guard(valueLock_);
            Node* replaced = current_.load(std::memory_order_relaxed);
            changed = differs(replaced->value, fresh->value);
            current_.store(fresh, std::memory_order_release);
            if (onMainThread) {
                replaced->nextRetired = takeRetiredLocked();
                freed = replaced;
            } else if (!mainReads_.load(std::memory_order_relaxed)) {
                // The main thread has never read without the lock, so it holds no node; it
                // announces its first read under this lock before it does.
                freed = replaced;
            } else {
                replaced->nextRetired = retired_;
                retired_ = replaced;
                hasRetired_.store(true, std::memory_order_relaxed);
                postCleanup = ++retiredCount_ == retiredPerCleanup;
            }
        } catch (...) {
            discardNode(fresh, onMainThread);
            throw;
        }
        freeNodes(freed, onMainThread);
        if (postCleanup) {
            DispatchQueue::main().async([weak = this->weak_from_this()] {
                if (auto self = weak.lock()) {
                    self->freeRetiredNodes();
                }
            });
        }
        return changed;
    }

    // A node holding `value`; on the main thread it reuses the spare storage when there is one.
    Node* makeNode(Value&& value, bool onMainThread) const {
        Node* storage = onMainThread && spare_ != nullptr ? std::exchange(spare_, nullptr)
                                                          : NodeAllocator().allocate(1);
        try {
            return std::construct_at(storage, std::move(value));
        } catch (...) {
            discardStorage(storage, onMainThread);
            throw;
        }
    }

    // Destroys `node`; the main thread keeps its storage as the spare when it has none.
    void discardNode(Node* node, bool onMainThread) const {
        std::destroy_at(node);
        discardStorage(node, onMainThread);
    }

    // Frees node storage, or keeps it as the spare as discardNode says.
    void discardStorage(Node* storage, bool onMainThread) const {
        if (onMainThread && spare_ == nullptr) {
            spare_ = storage;
        } else {
            NodeAllocator().deallocate(storage, 1);
        }
    }

    // Destroys the nodes of `list`, linked through nextRetired: on the main thread (or in the
    // destructor) keeping a spare, elsewhere only nodes no thread can be reading.
    void freeNodes(Node* list, bool onMainThread = true) const {
        while (list != nullptr) {
            discardNode(std::exchange(list, list->nextRetired), onMainThread);
        }
    }

    // Empties the retired list and answers it; called with valueLock_ held.
    Node* takeRetiredLocked() const {
        hasRetired_.store(false, std::memory_order_relaxed);
        retiredCount_ = 0;
        return std::exchange(retired_, nullptr);
    }

    // Frees the nodes other threads retired. Main thread only, never inside a read.
    void freeRetiredNodes() const {
        Node* retired;
        {
            std::lock_guard guard(valueLock_);
            retired = takeRetiredLocked();
        }
        freeNodes(retired);
    }

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

    mutable UnfairLock valueLock_{UnfairLock::Options::dataSynchronization};
    // Written under valueLock_; read without it on the main thread (see the thread rules).
    std::atomic<Node*> current_;
    // Nodes replaced off the main thread, awaiting the main thread, and how many were retired
    // since the list was last emptied; guarded by valueLock_.
    mutable Node* retired_ = nullptr;
    mutable std::size_t retiredCount_ = 0;
    static constexpr std::size_t retiredPerCleanup = 64;
    // Whether the main thread may read without the lock: set under valueLock_ by its first read,
    // before that read, and never cleared; read by the main thread without the lock.
    mutable std::atomic<bool> mainReads_ = false;
    // Whether retired_ is non-empty: lets a main-thread read skip the lock. Written under
    // valueLock_.
    mutable std::atomic<bool> hasRetired_ = false;
    // Storage of a freed node kept for the next main-thread write; main thread (or destructor)
    // only.
    mutable Node* spare_ = nullptr;
    // The observers, shared with the notifications walking them; a registration made during a
    // walk copies the list first. Not locked: one thread (see the thread rules).
    std::shared_ptr<ObserverList> observers_ = std::make_shared<ObserverList>();
};

}  // namespace kel

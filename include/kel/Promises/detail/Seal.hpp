// kel::detail::Seal<T> — the settle-once state behind every Promise<T>; an implementation
// detail of Promise.hpp, not for direct use.
//
// A seal is pending until its first settlement (a value, an error or a cancellation) and then
// resolved for good; later settlements are ignored. Handlers registered while pending are kept
// in registration order (the first one inline, the rest in a vector) and are called, in that
// order and under the seal's lock, when it resolves; a handler registered on a resolved seal is
// called at once, also under the lock. Work a handler hands to AfterSettlement runs once the
// settling thread holds no seal lock any more. The handlers are destroyed after the lock is
// released, so what they capture is never destroyed inside the critical section. Once resolved, the
// resolution never changes as far as anyone can see, so reading it (resolution(), state()) takes
// no lock: an atomic flag, set under the lock before any handler runs, publishes it. (Its last
// reader may move the value out, under the lock, when no one else can read it any more.)
//
// Only a SettleTarget settles a seal, and SettleTargets are made only together with a new seal
// (SealRef::makePair) or lent by the promise that creates one: whoever can read or watch a
// promise cannot settle it unless its creator handed out a settle callable.
//
// Thread rules: settle, addHandler and addReaderHandler may be called from any thread,
// concurrently; exactly one settlement wins, and each handler runs exactly once. A handler runs
// under the seal's lock, so it must not settle or register on the same seal.
// Ownership: reference counted. SealRef is the owning pointer of a reader (promise handles,
// handlers that keep a seal alive); SettleTarget is the owning pointer of a settler (the settle
// callables, and the combinators' references to the promises they settle). The two kinds are
// counted apart, so that a reader can tell when it is the last one: its settled value can then
// be moved on (handOn) instead of copied, which is what lets a move-only value travel.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "kel/Concurrency/MutexLock.hpp"
#include "kel/Export.hpp"
#include "kel/Platform/FatalError.hpp"
#include "kel/Platform/InlineFunction.hpp"
#include "kel/Promises/Resolution.hpp"
#include "kel/Promises/detail/SealAllocator.hpp"

namespace kel::runtime {

// The per-thread state of AfterSettlement. Exported, so that the process has one copy: promise
// code compiled into the library and into the application counts the same settlements.
struct KEL_EXPORT SettlementState {
    static inline thread_local int depth = 0;  // settlements in progress on this thread
    static inline thread_local std::vector<InlineFunction<void(), 48>>* pendingList = nullptr;
};

}  // namespace kel::runtime

namespace kel {

template <class T>
class Promise;

namespace detail {

template <class T>
class Seal;

// Work that a handler wants done once no seal lock is held any more on its thread. Inside a
// settlement (at any depth of settlements nested through zalgo handlers) the work is kept
// and run, in the order given, right after the outermost settlement on the thread has released
// its lock; outside a settlement it runs at once. Combinators that go on to lock other seals
// (the walk of `all`) use it, so that a thread never holds one seal's lock while it waits for
// another's: two threads settling inputs in opposite orders cannot deadlock, and a walk never
// re-locks a seal its own thread is settling.
class AfterSettlement : runtime::SettlementState {
  public:
    template <class Work>
    static void run(Work&& work) {
        if (depth == 0) {
            work();
        } else {
            pending().emplace_back(std::forward<Work>(work));
        }
    }

  private:
    template <class T>
    friend class Seal;

    static void enter() noexcept { ++depth; }
    // Leaves a settlement; the outermost one runs what was kept. Work run here may settle
    // seals in turn: their kept work joins the same list (depth stays above zero meanwhile).
    static void leave() noexcept {
        if (depth > 1 || pendingList == nullptr || pendingList->empty()) {
            --depth;
            return;
        }
        std::vector<InlineFunction<void(), 48>>& list = *pendingList;
        for (std::size_t next = 0; next < list.size(); ++next) {
            auto work = std::move(list[next]);
            work();
        }
        list.clear();
        --depth;
    }

    static std::vector<InlineFunction<void(), 48>>& pending() {
        if (pendingList == nullptr) {
            static thread_local std::vector<InlineFunction<void(), 48>> list;
            pendingList = &list;
        }
        return *pendingList;
    }
};

// A handler of a seal: called with the resolution and the seal that resolved, through which a
// handler that submits work can take a reference to keep the resolution alive. Callables up to
// 80 bytes are stored inline, which covers the handlers of `then`, `error`, `always` and
// `cancelled` with small user callables, so that registering them does not allocate.
template <class T>
using SealHandler = InlineFunction<void(const Resolution<T>&, Seal<T>&), 80>;

template <class T>
class SealRef;
template <class T>
class SettleTarget;

template <class T>
class Seal {
  public:
    enum class State { pending, resolved };

    // A new seal with one reference, owned by the caller (see SealRef::make). User-provided, so
    // that `new Seal()` does not zero the whole object before the members initialise themselves.
    Seal() noexcept {}
    // A new pending seal with a reader's and a settler's reference (see SealRef::makePair).
    struct TwoOwners {};
    explicit Seal(TwoOwners) noexcept : references_(1 + settlerReference) {}
    explicit Seal(Resolution<T> resolution) : resolution_(std::move(resolution)), resolved_(true) {}
    Seal(const Seal&) = delete;
    Seal& operator=(const Seal&) = delete;

    static void* operator new(std::size_t size) { return runtime::SealAllocator::allocate(size); }
    static void operator delete(void* block, std::size_t size) noexcept {
        runtime::SealAllocator::deallocate(block, size);
    }

    // The weight of a settler's reference; a reader's weighs 1. Readers are counted in the low
    // half of references_, settlers in the high half.
    static constexpr std::uint64_t settlerReference = std::uint64_t{1} << 32;

    // Takes one more reference of the given weight; the caller must already hold one.
    void retain(std::uint64_t weight = 1) noexcept {
        references_.fetch_add(weight, std::memory_order_relaxed);
    }

    // Drops a reference and destroys the seal with the last one. A sole owner skips the atomic
    // decrement: no other thread can take a reference to a seal that only the caller holds.
    void release(std::uint64_t weight = 1) noexcept {
        if (references_.load(std::memory_order_acquire) == weight ||
            references_.fetch_sub(weight, std::memory_order_acq_rel) == weight) {
            delete this;
        }
    }

    // The resolution for a reader that holds `held` reader references, called under the lock
    // (from a handler or callResolved) of a resolved seal. When no other reader can see the
    // resolution any more (no other reader reference, and no handler left to run after the
    // current one), it is moved out; otherwise it is copied. Readers are only ever created from
    // readers, so a count equal to `held` cannot grow behind the caller's back. A move-only value
    // that another reader can still see cannot be handed on: that is a programming error.
    Resolution<T> handOn(std::uint32_t held) {
        Resolution<T>& resolution = *resolution_;
        if (laterHandlers_ == 0 &&
            (references_.load(std::memory_order_acquire) & readerMask) == held) {
            return std::move(resolution);
        }
        if constexpr (std::is_copy_constructible_v<Resolution<T>>) {
            return resolution;
        } else {
            if (resolution.isRejected()) {
                return Resolution<T>::rejected(resolution.error());
            }
            if (resolution.isCancelled()) {
                return Resolution<T>::cancelled();
            }
            fatalError(
                "a promise of a move-only value was handed on while other promises or handlers "
                "could still read it: give the chain the only copy of the promise");
        }
    }

  private:
    friend class SettleTarget<T>;

    // Settles the seal unless it is already resolved, then runs the stored handlers in
    // registration order. The caller holds a reference for the duration of the call.
    void settle(Resolution<T>&& resolution) {
        // A resolved seal never changes: a late settlement does not need the lock (and so
        // cannot block on a thread that is still running this seal's handlers).
        if (resolved_.load(std::memory_order_acquire)) {
            return;
        }
        AfterSettlement::enter();
        {
            std::lock_guard guard(lock_);
            if (resolved_.load(std::memory_order_relaxed)) {
                AfterSettlement::leave();
                return;
            }
            resolution_.emplace(std::move(resolution));
            resolved_.store(true, std::memory_order_release);
            if (first_) {
                laterHandlers_ = more_.size();
                first_(*resolution_, *this);
                for (auto& handler : more_) {
                    --laterHandlers_;
                    handler(*resolution_, *this);
                }
            }
        }
        AfterSettlement::leave();
        // Resolved now: no one else touches the handler storage any more.
        first_.reset();
        std::vector<SealHandler<T>>().swap(more_);
    }

  public:
    // Calls `handler` at once (under the lock) if the seal is resolved, otherwise stores it.
    template <class H>
    void addHandler(H&& handler) {
        std::lock_guard guard(lock_);
        if (resolved_.load(std::memory_order_relaxed)) {
            handler(*resolution_, *this);
        } else {
            store(std::forward<H>(handler));
        }
    }

    // Calls handler(resolution, seal, held) at once, under the lock, if the seal is resolved;
    // otherwise stores it, to be called with held = 0. `reader` is the caller's own reference,
    // taken over: on the stored path it is dropped under the same lock, so that when the
    // handler runs the caller no longer counts as a reader, and the handler may move the value
    // on (handOn) if it is the last reader.
    template <class H>
    static void addReaderHandler(SealRef<T> reader, H&& handler);
    // (held is 1 exactly when the handler is called at once, by addReaderHandler itself.)

    // Calls f(resolution) under the lock, as a handler registered now would be called, and
    // returns what f returns. The seal must be resolved already.
    template <class F>
    decltype(auto) callResolved(F&& f) {
        std::lock_guard guard(lock_);
        return f(*resolution_);
    }

    // The resolution of a seal already seen resolved (it never changes afterwards).
    const Resolution<T>& settledResolution() const noexcept { return *resolution_; }

    bool isResolved() const noexcept { return resolved_.load(std::memory_order_acquire); }

    // Whether the caller's reference is the only reader's (settlers not counted).
    bool hasSoleReader() const noexcept {
        return (references_.load(std::memory_order_acquire) & readerMask) == 1;
    }

    std::optional<Resolution<T>> resolution() const {
        if (isResolved()) {
            return *resolution_;
        }
        return std::nullopt;
    }

    State state() const noexcept { return isResolved() ? State::resolved : State::pending; }

  private:
    template <class H>
    void store(H&& handler) {
        if (!first_) {
            first_.emplace(std::forward<H>(handler));
        } else {
            more_.emplace_back(std::forward<H>(handler));
        }
    }

    static constexpr std::uint64_t readerMask = settlerReference - 1;

    std::atomic<std::uint64_t> references_{1};  // readers + settlers * settlerReference
    mutable MutexLock lock_;
    // Written once under lock_, before resolved_ is set; read-only afterwards.
    std::optional<Resolution<T>> resolution_;
    std::atomic<bool> resolved_{false};  // set once, under lock_; publishes resolution_
    SealHandler<T> first_;               // guarded by lock_ while pending
    std::vector<SealHandler<T>> more_;   // guarded by lock_ while pending
    std::size_t laterHandlers_ = 0;      // guarded by lock_: handlers left after the running one
};

// An owning pointer to a seal: copying takes a reference, destroying drops it.
template <class T>
class SealRef {
  public:
    SealRef() noexcept = default;

    // A new seal, constructed from `args`, owned by the returned pointer.
    template <class... Args>
    static SealRef make(Args&&... args) {
        return SealRef(new Seal<T>(std::forward<Args>(args)...));
    }

    // A new pending seal owned by a promise and by the settler that settles it, without an
    // atomic increment for the second. The one way to get a settler of a seal of one's own.
    static std::pair<SealRef, SettleTarget<T>> makePair();

    // Another reference to a seal the caller already holds one to.
    static SealRef retained(Seal<T>& seal) noexcept {
        seal.retain();
        return SealRef(&seal);
    }

    SealRef(const SealRef& other) noexcept : seal_(other.seal_) {
        if (seal_ != nullptr) {
            seal_->retain();
        }
    }
    SealRef(SealRef&& other) noexcept : seal_(std::exchange(other.seal_, nullptr)) {}
    SealRef& operator=(SealRef other) noexcept {
        std::swap(seal_, other.seal_);
        return *this;
    }
    ~SealRef() {
        if (seal_ != nullptr) {
            seal_->release();
        }
    }

    Seal<T>* get() const noexcept { return seal_; }
    // Gives up the reference without dropping it.
    Seal<T>* release() noexcept { return std::exchange(seal_, nullptr); }
    Seal<T>* operator->() const noexcept { return seal_; }
    Seal<T>& operator*() const noexcept { return *seal_; }

    friend bool operator==(const SealRef& a, const SealRef& b) noexcept {
        return a.seal_ == b.seal_;
    }

  private:
    explicit SealRef(Seal<T>* adopted) noexcept : seal_(adopted) {}

    Seal<T>* seal_ = nullptr;
};

// The seal inside a settle callable (fulfil, reject, cancel, completion). The callables that a
// promise's constructor hands to its body borrow the constructor's reference, so a body that
// only calls them costs no reference counting; a copy or a move of a callable owns a reference
// of its own, so a body may keep one as long as it likes.
template <class T>
class SettleTarget {
  public:
    SettleTarget() noexcept : seal_(nullptr), owns_(false) {}
    SettleTarget(const SettleTarget& other) noexcept : seal_(other.seal_), owns_(seal_ != nullptr) {
        if (owns_) {
            seal_->retain(Seal<T>::settlerReference);
        }
    }
    SettleTarget(SettleTarget&& other) noexcept : seal_(other.seal_), owns_(seal_ != nullptr) {
        if (other.owns_) {
            other.seal_ = nullptr;
            other.owns_ = false;
        } else if (owns_) {
            seal_->retain(Seal<T>::settlerReference);
        }
    }
    SettleTarget& operator=(SettleTarget other) noexcept {
        std::swap(seal_, other.seal_);
        std::swap(owns_, other.owns_);
        return *this;
    }
    ~SettleTarget() {
        if (owns_) {
            seal_->release(Seal<T>::settlerReference);
        }
    }

    void settle(Resolution<T>&& resolution) const {
        KEL_PRECONDITION(seal_ != nullptr, "a moved-from settle callable was called");
        seal_->settle(std::move(resolution));
    }

  private:
    friend class SealRef<T>;
    friend class kel::Promise<T>;

    // A target that borrows the reference of the promise creating the seal, for the settle
    // callables it lends to its constructor's body.
    static SettleTarget borrowing(Seal<T>& seal) noexcept { return SettleTarget(&seal, false); }
    // Takes over a settler's reference that the caller already counted.
    static SettleTarget adopting(Seal<T>& seal) noexcept { return SettleTarget(&seal, true); }

    SettleTarget(Seal<T>* seal, bool owns) noexcept : seal_(seal), owns_(owns) {}

    Seal<T>* seal_;
    bool owns_;  // false for a borrowed target, and after being moved from
};

template <class T>
void settle(const SettleTarget<T>& target, Resolution<T> resolution) {
    target.settle(std::move(resolution));
}

template <class T>
std::pair<SealRef<T>, SettleTarget<T>> SealRef<T>::makePair() {
    auto* seal = new Seal<T>(typename Seal<T>::TwoOwners{});
    return {SealRef(seal), SettleTarget<T>::adopting(*seal)};
}

template <class T>
template <class H>
void Seal<T>::addReaderHandler(SealRef<T> reader, H&& handler) {
    Seal& seal = *reader.release();
    bool last = false;
    {
        std::lock_guard guard(seal.lock_);
        if (seal.resolved_.load(std::memory_order_relaxed)) {
            handler(*seal.resolution_, seal, 1);
        } else {
            seal.store([handler = std::forward<H>(handler)](const Resolution<T>& resolution,
                                                            Seal& source) mutable noexcept {
                handler(resolution, source, 0);
            });
            // The caller's reader is dropped under the lock, before any settlement can run
            // the handler.
            last = seal.references_.fetch_sub(1, std::memory_order_acq_rel) == 1;
            if (!last) {
                return;
            }
        }
    }
    // Resolved: drop the caller's reference now that the handler has run. Pending and last:
    // no one can settle the seal any more.
    if (last) {
        delete &seal;
    } else {
        seal.release();
    }
}

}  // namespace detail
}  // namespace kel

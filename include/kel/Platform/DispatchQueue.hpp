// kel::DispatchQueue — a queue of work items, serial or concurrent, run by the library's own
// dispatch runtime (a bounded, growing thread pool with libdispatch's semantics).
//
//     kel::DispatchQueue queue("com.example.cache");  // serial
//     std::vector<int> values;                         // touched only by items of `queue`
//     queue.async([&values] { values.push_back(1); });
//     auto count = queue.sync([&values] { return values.size(); });  // 1: after the async
//     kel::DispatchQueue::main().async([count] { show(count); });     // on the main thread
//     kel::DispatchQueue::global().asyncAfter(kel::DispatchTime::now() + 0.5, [] { ping(); });
//
// A DispatchQueue is a cheap copyable handle; copies share one queue and == is identity.
// Kinds of queue:
//   - serial (the default): one item at a time, in submission order;
//   - concurrent (Attributes::concurrent): items run in parallel on the pool;
//   - DispatchQueue::main(): runs only on the main thread, inside RunLoop;
//   - DispatchQueue::global(qos): the shared concurrent queue of a quality of service.
// A queue whose last handle is released still runs the work already submitted to it.
//
// sync(work) blocks the caller until work has run. On a serial queue the work runs on the
// calling thread once the queue is free (earlier items first), as libdispatch does. sync on a
// serial queue the caller is already running on, or on the main queue from the main thread,
// could only deadlock: it stops the process with a fatal error instead.
//
// Work items must not throw: an exception escaping a work item ends the process, as one
// escaping a std::thread does. (sync is the exception: what f throws reaches the caller.)
//
// Guarantees. Ordering: a serial queue runs its items one at a time, in the order their async
// or sync calls reached it (for one submitting thread, its program order), and a sync waits for
// every item submitted before it. The main queue is such a serial queue whose items run on the
// main thread, only while it is inside RunLoop. A concurrent queue starts items roughly in
// submission order but promises no order and lets them overlap; there are no barrier items, so
// work that must run alone goes to a serial queue (which may target the concurrent one) or
// waits for a DispatchGroup. asyncAfter submits the work no earlier than its deadline, and never
// before a timer with an earlier or equal deadline that was scheduled before it. A
// queue with a target runs its items as items of the target (a serial queue stays serial on a
// concurrent target). Visibility: everything the submitting thread did before async, asyncAfter or
// sync happens-before the item runs; on a serial queue each item happens-before the next; the item
// of a sync happens-before sync returns.
//
// Thread rules: every operation may be called from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "kel/Export.hpp"
#include "kel/Platform/DispatchTime.hpp"
#include "kel/Platform/Task.hpp"

namespace kel {

class DispatchGroup;

namespace detail {
class QueueCore;
}

// Quality of service: a scheduling hint; the runtime keeps one global queue per class.
enum class DispatchQoS {
    unspecified,
    background,
    utility,
    default_,
    userInitiated,
    userInteractive
};

class KEL_EXPORT DispatchQueue {
  public:
    enum class Attributes : std::uint8_t { none = 0, concurrent = 1 };

    explicit DispatchQueue(std::string label, DispatchQoS qos = DispatchQoS::unspecified,
                           Attributes attributes = Attributes::none,
                           std::optional<DispatchQueue> target = std::nullopt);

    // The queue of the main thread; its work runs when the main thread runs RunLoop.
    static DispatchQueue main();
    // The shared concurrent queue of a quality of service.
    static DispatchQueue global(DispatchQoS qos = DispatchQoS::default_);

    const std::string& label() const;
    DispatchQoS qos() const;
    bool isConcurrent() const;

    void async(Task work) const;
    void async(const DispatchGroup& group, Task work) const;
    // Runs work no earlier than the deadline. Timers share one runtime thread.
    void asyncAfter(DispatchTime deadline, Task work) const;

    // Runs f on this queue and waits for it; returns what f returns (exceptions propagate).
    template <class F>
    auto sync(F&& f) const -> std::invoke_result_t<F&> {
        using R = std::invoke_result_t<F&>;
        if constexpr (std::is_void_v<R>) {
            syncInvoke(&invokeVoid<std::remove_reference_t<F>>, &f);
        } else {
            std::optional<R> result;
            auto call = [&] { result.emplace(f()); };
            syncInvoke(&invokeVoid<decltype(call)>, &call);
            return std::move(*result);
        }
    }

    // As sync, except that on the main queue from the main thread f is called directly, so
    // DispatchQueue::main().syncValue(...) may be used from the main thread without deadlock.
    template <class F>
    auto syncValue(F&& f) const -> std::invoke_result_t<F&> {
        if (isMainQueueOnMainThread()) {
            return f();
        }
        return sync(std::forward<F>(f));
    }

    // True if the calling thread is running an item of this queue (or, for the main queue, is
    // the main thread).
    bool isCurrent() const;

    friend bool operator==(const DispatchQueue& a, const DispatchQueue& b) {
        return a.core_ == b.core_;
    }

  private:
    explicit DispatchQueue(std::shared_ptr<detail::QueueCore> core) : core_(std::move(core)) {}

    template <class F>
    static void invokeVoid(void* f) {
        (*static_cast<F*>(f))();
    }
    // Runs invoke(context) on this queue and waits; an exception thrown by it is rethrown here.
    void syncInvoke(void (*invoke)(void*), void* context) const;
    bool isMainQueueOnMainThread() const;

    std::shared_ptr<detail::QueueCore> core_;

    friend class detail::QueueCore;
};

// The marker queues of the promise library, labelled "com.plumo.promise.zalgo" and
// "com.plumo.promise.zalgoIfMain", created once. Promise continuations recognise them by identity
// and never submit to them: on zalgo a continuation runs synchronously, on zalgoIfMain
// synchronously on the main thread and through the main queue elsewhere. Work that is submitted
// to them directly (firstly or when on zalgo, say) runs as on any serial queue.
KEL_EXPORT const DispatchQueue& zalgo();
KEL_EXPORT const DispatchQueue& zalgoIfMain();

}  // namespace kel

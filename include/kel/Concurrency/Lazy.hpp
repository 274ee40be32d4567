// kel::Lazy<T> — a value computed by a load block on first demand, exactly once, thread-safely.
//
// value() loads on first use and afterwards answers the stored value; loadedValue() answers it
// only if it exists, never loading; load(completion) loads (on another thread when asked to) and
// calls completion with the value; onLoad(block) calls block once the value exists, without
// forcing the load. The options choose where the load block runs (see LazyOptions).
//
// How a load happens: the first reader takes the lock and runs the load block while holding it;
// concurrent readers wait on the lock and then find the value. After the load a read is one
// acquire load of a flag (no lock). onLoad blocks run on the loading thread after the value is
// stored and the lock is released, in the order they were added, so they may read value().
//
// Failure: a load block that throws leaves the value unloaded and the lock released; the
// exception reaches the reader that ran it. Readers that were waiting then take the lock one by
// one and try the load themselves; a later read tries again. Pending onLoad blocks stay pending.
//
// keepOnMain without keepOffMain: a read off the main thread does not take the lock itself. It
// hands the whole load to the main queue (DispatchQueue::main().sync) and waits; the main-queue
// item takes the lock, loads unless the value exists by then, and runs the onLoad blocks. The
// load block therefore runs on the main thread, never twice, and a main thread that reads the
// same Lazy meanwhile simply loads it itself (it never waits for the background reader).
//
// What a caller may do: read value() from any thread, concurrently; call onLoad and load from
// any thread; read value() from onLoad blocks and from completions.
// What a caller may not do:
//   - read value() or call onLoad on a Lazy from inside its own load block (directly or through
//     loads it causes on the same thread): the loading thread would wait for itself. This is
//     detected and stops the process with a fatal error.
//   - with keepOnMain, read value() off the main thread while the main thread waits for that
//     reader (a join, a lock, a sync to the reader's queue): the load needs the main queue to
//     run, so the two would wait for each other. The main thread must be running its RunLoop.
// load(completion) with keepOffMain on the main thread runs asynchronously: a Lazy owned by
// std::shared_ptr is kept alive until the load is done; any other Lazy must outlive the load.
// A load that fails there is dropped: the completion is not called and the next read retries.
//
// Thread rules: every operation may be called from any thread. The lock (an UnfairLock) guards
// the stored value until it is loaded and the onLoad list; the value is immutable once loaded.
// Ownership: not copyable or movable; keep it by value or through std::shared_ptr (needed for
// the asynchronous load to keep it alive). Open for subclassing (EventLoadedLazy).
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "kel/Concurrency/LazyOptions.hpp"
#include "kel/Concurrency/TaskScheduler.hpp"
#include "kel/Concurrency/UnfairLock.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/FatalError.hpp"
#include "kel/Platform/RunLoop.hpp"

namespace kel {

template <class T>
class Lazy : public std::enable_shared_from_this<Lazy<T>> {
  public:
    using LoadBlock = std::function<T()>;
    using ValueBlock = std::function<void(const T&)>;

    Lazy(LazyOptions options, LoadBlock loadBlock)
        : options_(options), loadBlock_(std::move(loadBlock)) {}
    Lazy(const Lazy&) = delete;
    Lazy& operator=(const Lazy&) = delete;
    virtual ~Lazy() = default;

    // The value, loaded first if needed. The reference stays valid as long as the Lazy.
    const T& value() {
        if (loaded_.load(std::memory_order_acquire)) [[likely]] {
            return *rawValue_;
        }
        return loadSlowly();
    }

    // The value if it has been loaded; never loads.
    std::optional<T> loadedValue() const {
        if (loaded_.load(std::memory_order_acquire)) {
            return rawValue_;
        }
        return std::nullopt;
    }

    // Reads value() and calls completion with it. With keepOffMain on the main thread the read
    // happens on TaskScheduler::shared()'s concurrent operation queue and this returns at once.
    void load(ValueBlock completion) {
        if (options_.contains(LazyOptions::keepOffMain) && isMainThread()) {
            TaskScheduler::shared().schedule([this, keepAlive = this->weak_from_this().lock(),
                                              completion = std::move(completion)]() mutable {
                std::optional<std::reference_wrapper<const T>> loaded;
                try {
                    loaded = std::cref(value());
                } catch (...) {
                    return;
                }
                completion(*loaded);
            });
            return;
        }
        completion(value());
    }

    // Calls block with the value: at once on this thread if it is loaded, otherwise on the
    // loading thread right after the load. Returns this Lazy, for chaining.
    Lazy& onLoad(ValueBlock block) {
        if (!loaded_.load(std::memory_order_acquire)) {
            checkNotLoadingHere();
            std::unique_lock guard(lock_);
            if (!loaded_.load(std::memory_order_relaxed)) {
                onLoadBlocks_.push_back(std::move(block));
                return *this;
            }
        }
        block(*rawValue_);
        return *this;
    }

  private:
    const T& loadSlowly() {
        checkNotLoadingHere();
        if (options_.contains(LazyOptions::keepOnMain) &&
            !options_.contains(LazyOptions::keepOffMain) && !isMainThread()) {
            DispatchQueue::main().sync([this] { loadUnderLock(); });
            return *rawValue_;
        }
        return loadUnderLock();
    }

    const T& loadUnderLock() {
        std::vector<ValueBlock> blocks;
        {
            std::unique_lock guard(lock_);
            if (loaded_.load(std::memory_order_relaxed)) {
                return *rawValue_;
            }
            struct LoadingHere {
                std::atomic<std::thread::id>& thread;
                explicit LoadingHere(std::atomic<std::thread::id>& loading) : thread(loading) {
                    thread.store(std::this_thread::get_id(), std::memory_order_relaxed);
                }
                ~LoadingHere() { thread.store(std::thread::id(), std::memory_order_relaxed); }
            } loadingHere(loadingThread_);
            rawValue_.emplace(loadBlock_());
            blocks.swap(onLoadBlocks_);
            loaded_.store(true, std::memory_order_release);
        }
        for (ValueBlock& block : blocks) {
            block(*rawValue_);
        }
        return *rawValue_;
    }

    // Only the loading thread can see its own id here, so a relaxed load is enough.
    void checkNotLoadingHere() const {
        if (loadingThread_.load(std::memory_order_relaxed) == std::this_thread::get_id())
            [[unlikely]] {
            fatalError("Lazy read from its own load block: the load would wait for itself");
        }
    }

    const LazyOptions options_;
    const LoadBlock loadBlock_;
    // Set with release once rawValue_ holds the value; rawValue_ never changes afterwards.
    std::atomic<bool> loaded_{false};
    // The thread running loadBlock_ (no id when none), to stop a load block reading its Lazy.
    std::atomic<std::thread::id> loadingThread_{};
    UnfairLock lock_{UnfairLock::Options()};
    std::optional<T> rawValue_;             // guarded by lock_ until loaded_
    std::vector<ValueBlock> onLoadBlocks_;  // guarded by lock_
};

}  // namespace kel

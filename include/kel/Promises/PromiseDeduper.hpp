// kel::PromiseDeduper<Key, Value> — makes concurrent requests for the same key share one
// in-flight promise.
//
// promise(key, createBlock) returns the promise stored for `key` if there is one; otherwise it
// calls createBlock(), stores the promise it returns and arranges for the entry to be removed
// when that promise settles, whatever the outcome, on the settling thread. A promise that is
// already settled when createBlock returns is removed again within the same call. There is no
// size limit and no time-out: a promise that never settles stays in the map for the life of the
// deduper. createBlock may return a Promise<Value> or a const reference to one.
//
// createBlock runs outside the deduper's lock, so it may settle or chain onto any promise,
// including another key's in-flight one. While it runs, the key holds a placeholder: other
// callers for the same key wait for it and then share its promise, so there is still one
// createBlock per in-flight key. If createBlock throws, the placeholder is removed, the
// exception reaches its caller, and a waiting caller tries again with its own createBlock.
//
// Thread rules: promise() may be called from any thread. A createBlock that asks the same
// deduper for its own key is a programming error (it would wait for itself) and stops the
// process. Lock order: a promise's lock, then the deduper's lock (the removal runs
// synchronously inside the settlement); the deduper never settles, chains onto or creates a
// promise while holding its own lock.
// Ownership: not copyable; keep it by value or through std::shared_ptr. Removals hold its state
// weakly, so a deduper may go away while its promises are still pending.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "kel/Concurrency/MutexLock.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/FatalError.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel {

template <class Key, class Value, class Hash = std::hash<Key>, class KeyEqual = std::equal_to<Key>>
class PromiseDeduper {
  public:
    PromiseDeduper() : state_(std::make_shared<State>()) {}
    PromiseDeduper(const PromiseDeduper&) = delete;
    PromiseDeduper& operator=(const PromiseDeduper&) = delete;

    template <class CreateBlock>
    requires std::is_same_v<std::remove_cvref_t<std::invoke_result_t<CreateBlock&>>, Promise<Value>>
        Promise<Value> promise(const Key& key, CreateBlock&& createBlock) {
        std::shared_ptr<Creation> creation;
        for (;;) {
            std::shared_ptr<Creation> awaited;
            {
                std::lock_guard guard(state_->lock);
                auto [entry, inserted] = state_->promises.try_emplace(key);
                if (!inserted) {
                    if (entry->second.promise) {
                        return *entry->second.promise;
                    }
                    awaited = entry->second.creation;
                } else {
                    creation = std::make_shared<Creation>();
                    entry->second.creation = creation;
                }
            }
            if (creation) {
                break;
            }
            if (std::optional<Promise<Value>> shared = awaited->wait()) {
                return std::move(*shared);
            }
            // That createBlock threw: try again, perhaps as the creator.
        }

        std::optional<Promise<Value>> created;
        try {
            created.emplace(createBlock());
        } catch (...) {
            {
                std::lock_guard guard(state_->lock);
                state_->promises.erase(key);
            }
            creation->publish(std::nullopt);
            throw;
        }
        {
            std::lock_guard guard(state_->lock);
            Entry& entry = state_->promises.find(key)->second;
            entry.promise = *created;
            entry.creation.reset();
        }
        creation->publish(*created);
        created->always(zalgo(), [state = std::weak_ptr<State>(state_), key,
                                  seal = detail::PromiseAccess::seal(*created).get()] {
            if (std::shared_ptr<State> strong = state.lock()) {
                std::lock_guard guard(strong->lock);
                // Only this promise's own entry: the key may hold a newer one by now.
                auto found = strong->promises.find(key);
                if (found != strong->promises.end() && found->second.promise &&
                    detail::PromiseAccess::seal(*found->second.promise).get() == seal) {
                    strong->promises.erase(found);
                }
            }
        });
        return std::move(*created);
    }

  private:
    // The placeholder of a key whose createBlock is running; callers for the key wait on it.
    class Creation {
      public:
        Creation() : creator_(std::this_thread::get_id()) {}

        void publish(std::optional<Promise<Value>> promise) {
            std::lock_guard guard(mutex_);
            promise_ = std::move(promise);
            done_ = true;
            finished_.notify_all();
        }

        // The created promise, or empty if createBlock threw.
        std::optional<Promise<Value>> wait() {
            KEL_PRECONDITION(creator_ != std::this_thread::get_id(),
                             "PromiseDeduper::promise: createBlock asked for its own key");
            std::unique_lock guard(mutex_);
            finished_.wait(guard, [this] { return done_; });
            return promise_;
        }

      private:
        const std::thread::id creator_;
        std::mutex mutex_;  // guards everything below
        std::condition_variable finished_;
        bool done_ = false;
        std::optional<Promise<Value>> promise_;
    };

    struct Entry {
        std::optional<Promise<Value>> promise;  // set once createBlock has returned
        std::shared_ptr<Creation> creation;     // set while createBlock runs
    };

    struct State {
        MutexLock lock;
        std::unordered_map<Key, Entry, Hash, KeyEqual> promises;  // guarded by lock
    };

    std::shared_ptr<State> state_;  // never null
};

}  // namespace kel

// kel::PromiseDeduper<Key, Value> — makes concurrent requests for the same key share one
// in-flight promise.
//
// promise(key, createBlock) returns the promise stored for `key` if there is one; otherwise it
// calls createBlock() (under the deduper's lock), stores the promise it returns and arranges for
// the entry to be removed when that promise settles, whatever the outcome, on the settling
// thread. A promise that is already settled when createBlock returns is removed again within
// the same call. There is no size limit and no time-out: a promise that never settles stays in
// the map for the life of the deduper.
//
// Thread rules: promise() may be called from any thread. createBlock runs under the deduper's
// lock: it must only start work and return a promise, never call promise() on the same deduper.
// Lock order: a promise's lock, then the deduper's lock (the removal runs synchronously inside
// the settlement); the deduper never settles a promise while holding its own lock.
// Ownership: not copyable; keep it by value or through std::shared_ptr. Removals hold its state
// weakly, so a deduper may go away while its promises are still pending.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "kel/Concurrency/MutexLock.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel {

template <class Key, class Value, class Hash = std::hash<Key>, class KeyEqual = std::equal_to<Key>>
class PromiseDeduper {
  public:
    PromiseDeduper() : state_(std::make_shared<State>()) {}
    PromiseDeduper(const PromiseDeduper&) = delete;
    PromiseDeduper& operator=(const PromiseDeduper&) = delete;

    template <class CreateBlock>
    requires std::is_same_v<std::invoke_result_t<CreateBlock&>, Promise<Value>> Promise<Value>
    promise(const Key& key, CreateBlock&& createBlock) {
        std::optional<Promise<Value>> created;
        {
            std::lock_guard guard(state_->lock);
            if (auto found = state_->promises.find(key); found != state_->promises.end()) {
                return found->second;
            }
            created.emplace(createBlock());
            state_->promises.emplace(key, *created);
        }
        created->always(zalgo(), [state = std::weak_ptr<State>(state_), key] {
            if (std::shared_ptr<State> strong = state.lock()) {
                std::lock_guard guard(strong->lock);
                strong->promises.erase(key);
            }
        });
        return std::move(*created);
    }

  private:
    struct State {
        MutexLock lock;
        std::unordered_map<Key, Promise<Value>, Hash, KeyEqual> promises;  // guarded by lock
    };

    std::shared_ptr<State> state_;  // never null
};

}  // namespace kel

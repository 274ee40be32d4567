// kel::Cache — a small thread-safe in-memory key/value store whose values remember when they
// were stored, so that readers can ask for values no older than a given age.
//
// There is no size limit and no eviction: an entry leaves only when its key is removed or the
// cache is destroyed. Age is checked when reading, never in the background: an old entry stays
// and is still returned by the reads that take no maximum age. An entry's age is the current
// wall-clock time minus the time it was stored; it is fresh when age <= maxAge (so a negative
// maxAge finds nothing, and an entry stamped in the future, after the clock was set back,
// counts as fresh). The clock is injectable (a callable returning a system_clock time point)
// so that tests can move time by hand; by default it is std::chrono::system_clock::now.
//
// Thread rules: any thread may call any member, concurrently. One UnfairLock guards the
// entries; no user code runs under it except the key's hash and equality (which must not call
// back into the cache):
//   - when key and value are both trivially copyable and the value is small, the value is
//     stored inline and copied bytewise with the entry; otherwise the value is stored with a
//     copy of its key in one std::shared_ptr<const Payload>, so that a read copies a pointer
//     under the lock and copies the value itself after releasing it, merging a whole cache
//     copies pointers under its lock and the keys after it, and a replaced or removed value is
//     destroyed after the lock is released;
//   - a single-key set builds the entry (value and time stamp) before taking the lock and swaps
//     it into place; for a new key it also builds the map node outside the lock and splices it
//     in, so nothing is allocated under the lock but the map's own bucket growth;
//   - the injected clock is called outside the lock.
//
// Ownership: a reference type, non-copyable; make it with Cache::make (std::make_shared), as
// the promises returned by read and write may outlive the caller's scope.
//
// Example:
//
//     auto prices = kel::Cache<std::string, double>::make();
//     prices->set("EUR", 1.08);
//     std::optional<double> any = prices->get("EUR");           // whatever its age
//     std::optional<double> recent = prices->get("EUR", 60.0);  // stored at most 60 s ago
//     prices->write({{"USD", 1.0}, {"GBP", 1.27}})
//         .then(kel::zalgo(), [](const auto& written) { /* both pairs are stored */ });
//
// Guarantees: every member takes the one lock, so the members are linearisable. A read sees
// the latest write that completed before it began (set, remove, += and write are complete when
// they return), and everything the writing thread did before that write happens-before the
// read that returns its value. A multi-key write (+= or write) is all-or-nothing: no read sees
// part of it. A multi-key read takes one snapshot under one lock. Time stamps come from the
// clock before the lock is taken, so two concurrent sets of one key are stored in lock order
// and the later stored wins even if its stamp is older. The promises of read and write are
// fulfilled before they are returned.
#pragma once

#include "kel/Concurrency/UnfairLock.hpp"
#include "kel/Promises/Promise.hpp"

#include <chrono>
#include <concepts>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <ranges>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kel {

namespace detail {

// A range of (key, value) pairs, such as a std::map or std::unordered_map.
template <class Values, class Key, class Value>
concept CachePairs = requires(std::ranges::range_reference_t<Values> pair) {
    Key(std::get<0>(pair));
    Value(std::get<1>(pair));
};

template <class Values, class Key, class Value>
concept CachePairRange = std::ranges::input_range<Values> && CachePairs<Values, Key, Value>;

// A list of keys, such as a std::vector or std::span of Key, that can be walked twice.
template <class Keys, class Key>
concept CacheKeyRange = std::ranges::forward_range<Keys> &&
    std::same_as<std::remove_cvref_t<std::ranges::range_reference_t<Keys>>, Key>;

}  // namespace detail

template <class Key, class Value, class Hash = std::hash<Key>, class KeyEqual = std::equal_to<Key>>
requires std::copy_constructible<Key> && std::copy_constructible<Value>
class Cache {
  public:
    using TimePoint = std::chrono::system_clock::time_point;
    using Clock = std::function<TimePoint()>;
    // Ages are seconds as a double; any std::chrono duration converts to it.
    using Age = std::chrono::duration<double>;
    using Dictionary = std::unordered_map<Key, Value, Hash, KeyEqual>;

    // An empty cache. Without a clock, time is read from std::chrono::system_clock.
    explicit Cache(Clock clock = {}) : clock_(std::move(clock)) {}

    // A cache holding every pair of `values`, each stamped with the current time.
    template <detail::CachePairRange<Key, Value> Values>
    explicit Cache(const Values& values, Clock clock = {}) : clock_(std::move(clock)) {
        for (const auto& [key, value] : values) {
            entries_.insert_or_assign(key, Entry{store(key, value), now()});
        }
    }

    Cache(const Cache&) = delete;
    Cache& operator=(const Cache&) = delete;

    static std::shared_ptr<Cache> make(Clock clock = {}) {
        return std::make_shared<Cache>(std::move(clock));
    }

    template <detail::CachePairRange<Key, Value> Values>
    static std::shared_ptr<Cache> make(const Values& values, Clock clock = {}) {
        return std::make_shared<Cache>(values, std::move(clock));
    }

    // The stored value whatever its age, or none.
    std::optional<Value> get(const Key& key) const {
        std::optional<Entry> found = copyEntry(key);
        return found ? std::optional<Value>(valueOf(found->value)) : std::nullopt;
    }

    // The stored value if its age is at most maxAge, or none.
    std::optional<Value> get(const Key& key, Age maxAge) const {
        std::optional<Entry> found = copyEntry(key);
        if (!found || !isFresh(*found, maxAge)) {
            return std::nullopt;
        }
        return std::optional<Value>(valueOf(found->value));
    }

    // Every listed key that has an entry, whatever its age. A key listed twice appears once.
    template <detail::CacheKeyRange<Key> Keys>
    Dictionary get(Keys&& keys) const {
        return collect(keys, std::nullopt);
    }
    Dictionary get(std::initializer_list<Key> keys) const { return collect(keys, std::nullopt); }

    // Every listed key whose entry's age is at most maxAge.
    template <detail::CacheKeyRange<Key> Keys>
    Dictionary get(Keys&& keys, Age maxAge) const {
        return collect(keys, maxAge);
    }
    Dictionary get(std::initializer_list<Key> keys, Age maxAge) const {
        return collect(keys, maxAge);
    }

    // Stores a value under a key, replacing any entry with a new one stamped now.
    void set(Key key, Value value) {
        Entry entry{store(key, std::move(value)), now()};
        {
            std::lock_guard guard(lock_);
            auto found = entries_.find(key);
            if (found != entries_.end()) {
                // The old entry leaves in `entry`, destroyed after the lock is released.
                std::swap(found->second, entry);
                return;
            }
        }
        // A new key needs a map node: built without the lock, then spliced in (another thread
        // may have stored the key meanwhile; the later store wins as usual).
        Node node = makeNode(std::move(key), std::move(entry));
        Node displaced;
        {
            std::lock_guard guard(lock_);
            displaced = splice(std::move(node));
        }
    }

    // Removes the key's entry; a missing key is no error.
    void remove(const Key& key) {
        Node removed;
        {
            std::lock_guard guard(lock_);
            removed = entries_.extract(key);
        }
    }

    // Stores every pair as a new entry stamped now, replacing existing ones. Readers see either
    // none or all of the pairs.
    template <detail::CachePairRange<Key, Value> Values>
    Cache& operator+=(const Values& values) {
        std::vector<Node> nodes;
        if constexpr (std::ranges::sized_range<Values>) {
            nodes.reserve(std::ranges::size(values));
        }
        for (const auto& [key, value] : values) {
            nodes.push_back(makeNode(key, Entry{store(key, value), now()}));
        }
        {
            std::lock_guard guard(lock_);
            for (Node& node : nodes) {
                node = splice(std::move(node));
            }
        }
        return *this;
    }

    // Stores every entry of another cache (or of this one) as a new entry stamped now. Under
    // the other cache's lock only entries are copied (bytes or shared pointers); keys and
    // values are copied after it is released.
    Cache& operator+=(const Cache& other) {
        std::vector<Node> nodes;
        if constexpr (storesInline) {
            std::vector<std::pair<Key, Entry>> contents;
            other.copyContents(contents, [](const Key& key, const Entry& entry) {
                return std::pair<Key, Entry>(key, entry);  // bytewise: both trivially copyable
            });
            nodes.reserve(contents.size());
            for (auto& [key, entry] : contents) {
                nodes.push_back(makeNode(key, Entry{entry.value, now()}));
            }
        } else {
            std::vector<Stored> contents;
            other.copyContents(contents,
                               [](const Key&, const Entry& entry) { return entry.value; });
            nodes.reserve(contents.size());
            for (Stored& stored : contents) {
                const Key& key = stored->key;
                nodes.push_back(makeNode(key, Entry{std::move(stored), now()}));
            }
        }
        {
            std::lock_guard guard(lock_);
            for (Node& node : nodes) {
                node = splice(std::move(node));
            }
        }
        return *this;
    }

    // A promise already fulfilled with get(keys, maxAge), so that the cache can stand in a
    // promise chain beside slower stores.
    template <detail::CacheKeyRange<Key> Keys>
    Promise<Dictionary> read(Keys&& keys, Age maxAge) const {
        return Promise<Dictionary>::fulfilled(collect(keys, maxAge));
    }
    Promise<Dictionary> read(std::initializer_list<Key> keys, Age maxAge) const {
        return Promise<Dictionary>::fulfilled(collect(keys, maxAge));
    }

    // Stores `values` as += does, then gives a promise already fulfilled with `values`
    // themselves (not with what the cache holds afterwards).
    Promise<Dictionary> write(Dictionary values) {
        *this += values;
        return Promise<Dictionary>::fulfilled(std::move(values));
    }

    // The number of entries, fresh or not.
    std::size_t size() const {
        std::lock_guard guard(lock_);
        return entries_.size();
    }

  private:
    // Small trivially copyable values of trivially copyable keys are copied under the lock (a
    // plain memory copy, no user code); everything else is shared, with a copy of its key, so
    // that only a pointer is copied under the lock.
    static constexpr bool storesInline = std::is_trivially_copyable_v<Value> &&
                                         sizeof(Value) <= 64 && std::is_trivially_copyable_v<Key>;
    struct Payload {
        Key key;
        Value value;
    };
    using Stored = std::conditional_t<storesInline, Value, std::shared_ptr<const Payload>>;

    struct Entry {
        Stored value;
        TimePoint enteredAt;  // when the entry was made
    };

    using Map = std::unordered_map<Key, Entry, Hash, KeyEqual>;
    using Node = typename Map::node_type;

    template <class V>
    static Stored store(const Key& key, V&& value) {
        if constexpr (storesInline) {
            return Value(std::forward<V>(value));
        } else {
            return std::make_shared<const Payload>(Payload{key, Value(std::forward<V>(value))});
        }
    }

    static const Value& valueOf(const Stored& stored) {
        if constexpr (storesInline) {
            return stored;
        } else {
            return stored->value;
        }
    }

    TimePoint now() const { return clock_ ? clock_() : std::chrono::system_clock::now(); }

    bool isFresh(const Entry& entry, Age maxAge) const {
        return Age(now() - entry.enteredAt) <= maxAge;
    }

    // A map node holding a key and its entry, built without the lock. The scratch map never
    // grows past its single built-in bucket, so the node is its only allocation.
    template <class K>
    static Node makeNode(K&& key, Entry&& entry) {
        Map scratch;
        scratch.max_load_factor(std::numeric_limits<float>::max());
        auto [position, inserted] = scratch.try_emplace(std::forward<K>(key), std::move(entry));
        return scratch.extract(position);
    }

    // Puts a prepared node into the map (lock held). Returns what must be destroyed after the
    // lock is released: the old entry's node when the key was present, else nothing.
    Node splice(Node&& node) {
        auto result = entries_.insert(std::move(node));
        if (!result.inserted) {
            std::swap(result.position->second, result.node.mapped());
        }
        return std::move(result.node);
    }

    std::optional<Entry> copyEntry(const Key& key) const {
        std::optional<Entry> found;
        std::lock_guard guard(lock_);
        auto entry = entries_.find(key);
        if (entry != entries_.end()) {
            found.emplace(entry->second);
        }
        return found;
    }

    // The multi-key read: the entries are copied out under the lock in one walk of `keys`,
    // into storage reserved before it; ages are checked and values copied after it.
    template <class Keys>
    Dictionary collect(Keys& keys, std::optional<Age> maxAge) const {
        std::vector<std::optional<Entry>> found(
            static_cast<std::size_t>(std::ranges::distance(keys)));
        {
            std::lock_guard guard(lock_);
            auto slot = found.begin();
            for (const Key& key : keys) {
                auto entry = entries_.find(key);
                if (entry != entries_.end()) {
                    slot->emplace(entry->second);
                }
                ++slot;
            }
        }
        Dictionary result;
        auto slot = found.begin();
        for (const Key& key : keys) {
            const std::optional<Entry>& entry = *slot++;
            if (entry && (!maxAge || isFresh(*entry, *maxAge))) {
                result.try_emplace(key, valueOf(entry->value));
            }
        }
        return result;
    }

    // Copies what `copy` makes of every entry; `copy` must run no user code (it copies
    // trivially copyable data or shared pointers), as it runs under the lock.
    template <class Item, class Copy>
    void copyContents(std::vector<Item>& contents, Copy copy) const {
        std::unique_lock guard(lock_);
        // Reserve outside the lock; retry if the cache grew meanwhile.
        while (contents.capacity() < entries_.size()) {
            const std::size_t wanted = entries_.size();
            guard.unlock();
            contents.reserve(wanted);
            guard.lock();
        }
        for (const auto& [key, entry] : entries_) {
            contents.push_back(copy(key, entry));
        }
    }

    const Clock clock_;  // set at construction; called from any thread
    mutable UnfairLock lock_{UnfairLock::Options::dataSynchronization};  // guards entries_
    Map entries_;                                                        // guarded by lock_
};

}  // namespace kel

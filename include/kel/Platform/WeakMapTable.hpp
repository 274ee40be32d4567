// kel::WeakMapTable — a map from objects, held weakly, to values, held strongly.
//
// An entry lives while its key object does: a key is a std::weak_ptr, so the table never keeps
// an object alive, and an entry whose object has been destroyed can no longer be found. The
// value of such a dead entry is released when the table prunes: on prune(), and automatically
// from set() whenever the table has doubled since its last pruning (amortised constant cost).
// Keys are compared by owner (the object's control block), so two shared_ptrs to the same
// object, aliasing ones included, name the same entry.
//
// This is the library's form of a weak-to-strong map table. It is reused wherever an object
// must be annotated from outside without extending its life.
//
// Thread rules: not synchronised, like a standard container; the owner guards it with its lock.
// Ownership: values are owned by the table; keys are not owned.
#pragma once

#include <algorithm>
#include <cstddef>
#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace kel {

template <class Key, class Value>
class WeakMapTable {
  public:
    using KeyPointer = std::shared_ptr<Key>;

    // Stores value for key, replacing any earlier value of the same object.
    void set(const KeyPointer& key, Value value) {
        auto [position, inserted] = entries_.try_emplace(std::weak_ptr<Key>(key), std::move(value));
        if (!inserted) {
            position->second = std::move(value);
            return;
        }
        if (entries_.size() >= pruneThreshold_) {
            prune();
            pruneThreshold_ = std::max(minimumPruneThreshold, 2 * entries_.size());
        }
    }

    // The value stored for key, or null when there is none. The pointer stays valid until the
    // entry is replaced or removed.
    Value* find(const KeyPointer& key) {
        auto position = entries_.find(key);
        return position == entries_.end() ? nullptr : &position->second;
    }
    const Value* find(const KeyPointer& key) const {
        auto position = entries_.find(key);
        return position == entries_.end() ? nullptr : &position->second;
    }

    bool contains(const KeyPointer& key) const { return find(key) != nullptr; }

    // Removes the entry of key; true if there was one.
    bool remove(const KeyPointer& key) {
        auto position = entries_.find(key);
        if (position == entries_.end()) {
            return false;
        }
        entries_.erase(position);
        return true;
    }

    // Drops the entries whose objects no longer exist, releasing their values.
    void prune() {
        std::erase_if(entries_, [](const auto& entry) { return entry.first.expired(); });
    }

    // The number of entries whose objects still exist.
    std::size_t count() const {
        std::size_t live = 0;
        for (const auto& entry : entries_) {
            live += entry.first.expired() ? 0 : 1;
        }
        return live;
    }

    // The live entries, each with its object held strongly for the caller.
    std::vector<std::pair<KeyPointer, Value>> entries() const {
        std::vector<std::pair<KeyPointer, Value>> live;
        for (const auto& [weakKey, value] : entries_) {
            if (KeyPointer key = weakKey.lock()) {
                live.emplace_back(std::move(key), value);
            }
        }
        return live;
    }

    void removeAll() { entries_.clear(); }

  private:
    static constexpr std::size_t minimumPruneThreshold = 16;

    // Ordered by owner: a weak_ptr keeps its control block alive, so a dead entry's position
    // stays valid and no new object can take its place.
    std::map<std::weak_ptr<Key>, Value, std::owner_less<>> entries_;
    std::size_t pruneThreshold_ = minimumPruneThreshold;
};

}  // namespace kel

// The instances of one object graph by key. Graphs are usually small and are emptied after
// every outermost resolution, so entries live in a vector that keeps its capacity (no allocation
// per instance once warm) and are found by a linear scan; past `indexThreshold` entries a hash
// index is added so that large graphs stay linear overall. Private to the pool.
#pragma once

#include "kel/Container/Key.hpp"
#include "kel/Container/detail/AnyInstance.hpp"

#include <cstddef>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kel::detail {

class GraphStore {
  public:
    static constexpr std::size_t indexThreshold = 32;

    const AnyInstance* find(const Key& key) const {
        const std::size_t at = position(key);
        return at == npos ? nullptr : &entries_[at].second;
    }

    void insertOrAssign(const Key& key, AnyInstance instance) {
        if (const std::size_t at = position(key); at != npos) {
            entries_[at].second = std::move(instance);
            return;
        }
        entries_.emplace_back(key, std::move(instance));
        if (!index_.empty()) {
            index_.emplace(key, entries_.size() - 1);
        } else if (entries_.size() > indexThreshold) {
            for (std::size_t at = 0; at < entries_.size(); ++at) {
                index_.emplace(entries_[at].first, at);
            }
        }
    }

    void clear() {
        entries_.clear();
        if (!index_.empty()) {
            index_.clear();
        }
    }

    bool empty() const noexcept { return entries_.empty(); }
    std::size_t size() const noexcept { return entries_.size(); }

  private:
    static constexpr std::size_t npos = static_cast<std::size_t>(-1);

    std::size_t position(const Key& key) const {
        if (!index_.empty()) {
            auto found = index_.find(key);
            return found == index_.end() ? npos : found->second;
        }
        for (std::size_t at = 0; at < entries_.size(); ++at) {
            const Key& entryKey = entries_[at].first;
            if (entryKey.addr == key.addr && entryKey.namespace_ == key.namespace_) {
                return at;
            }
        }
        return npos;
    }

    std::vector<std::pair<Key, AnyInstance>> entries_;
    std::unordered_map<Key, std::size_t> index_;
};

}  // namespace kel::detail

// The definitions of a container by key: an open-addressing table (linear probing, power-of-two
// capacity, at most half full) whose slots keep each key's hash beside the definition, so a
// lookup is one multiply, one probe in the common case and no string hashing for an unnamed key.
// The key itself is read from the definition, which owns it. Private to the container.
//
// Thread rules: none of its own; the container's (main-thread work, no lock).
// Ownership: slots share the definitions with the container's other copies of the index.
#pragma once

#include "kel/Container/Definition.hpp"
#include "kel/Container/Key.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

namespace kel::detail {

class DefinitionIndex {
  public:
    // The hash of a key: the identity word mixed by a multiply (the word is an aligned pointer,
    // so its low bits carry nothing), and the name's hash folded in only for a named key.
    static std::size_t hashOf(const Key& key) noexcept {
        std::size_t hash = static_cast<std::size_t>(key.addr) * 0x9E3779B97F4A7C15ull;
        if (key.namespace_) {
            hash ^= std::hash<std::string_view>{}(*key.namespace_) + 0x9E3779B9u + (hash << 6) +
                    (hash >> 2);
        }
        return hash ^ (hash >> 29);
    }

    // The definition under `key`, or null.
    const std::shared_ptr<DefinitionCore>* find(const Key& key) const noexcept {
        if (size_ == 0) {
            return nullptr;
        }
        const std::size_t hash = hashOf(key);
        for (std::size_t at = hash & mask_;; at = (at + 1) & mask_) {
            const Slot& slot = slots_[at];
            if (!slot.definition) {
                return nullptr;
            }
            if (slot.hash == hash && slot.definition->key() == key) {
                return &slot.definition;
            }
        }
    }

    // Room for `count` definitions in all without growing again.
    void reserve(std::size_t count) {
        std::size_t capacity = slots_.empty() ? 16 : slots_.size();
        while (capacity < count * 2) {
            capacity *= 2;
        }
        if (capacity != slots_.size()) {
            rehash(capacity);
        }
    }

    // Stores `definition` under its own key, replacing an earlier one of the same key.
    void insertOrAssign(std::shared_ptr<DefinitionCore> definition) {
        reserve(size_ + 1);
        const std::size_t hash = hashOf(definition->key());
        for (std::size_t at = hash & mask_;; at = (at + 1) & mask_) {
            Slot& slot = slots_[at];
            if (!slot.definition) {
                slot = Slot{hash, std::move(definition)};
                ++size_;
                return;
            }
            if (slot.hash == hash && slot.definition->key() == definition->key()) {
                slot.definition = std::move(definition);
                return;
            }
        }
    }

    // Calls `visit(definition)` for every definition, in no particular order.
    template <class Visit>
    void forEach(Visit&& visit) const {
        for (const Slot& slot : slots_) {
            if (slot.definition) {
                visit(*slot.definition);
            }
        }
    }

    std::size_t size() const noexcept { return size_; }

  private:
    struct Slot {
        std::size_t hash = 0;
        std::shared_ptr<DefinitionCore> definition;
    };

    void rehash(std::size_t capacity) {
        std::vector<Slot> old(capacity);
        old.swap(slots_);
        mask_ = capacity - 1;
        for (Slot& slot : old) {
            if (!slot.definition) {
                continue;
            }
            std::size_t at = slot.hash & mask_;
            while (slots_[at].definition) {
                at = (at + 1) & mask_;
            }
            slots_[at] = std::move(slot);
        }
    }

    std::vector<Slot> slots_;
    std::size_t mask_ = 0;  // slots_.size() - 1 once there are slots
    std::size_t size_ = 0;
};

}  // namespace kel::detail

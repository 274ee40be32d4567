#include "kel/Platform/Object.hpp"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

#include "kel/Concurrency/UnfairLock.hpp"

namespace kel {

namespace detail {

// An object's associated values: a few entries, searched linearly, guarded by `lock`.
class AssociationTable {
  public:
    struct Entry {
        std::uint64_t key;
        Object::AssociatedValue value;
    };

    UnfairLock lock{UnfairLock::Options::dataSynchronization};
    std::vector<Entry> entries;  // guarded by lock

    std::vector<Entry>::iterator find(std::uint64_t key) {
        return std::find_if(entries.begin(), entries.end(),
                            [key](const Entry& entry) { return entry.key == key; });
    }

    static bool isEmpty(const Object::AssociatedValue& value) {
        // A weak reference that never pointed anywhere and one whose object is gone look
        // alike; both mean no value.
        return value.strong == nullptr && value.weak.expired();
    }
};

}  // namespace detail

std::uint64_t Object::newAssociationKey() noexcept {
    static std::atomic<std::uint64_t> lastKey{0};
    return lastKey.fetch_add(1, std::memory_order_relaxed) + 1;
}

Object::AssociatedValue Object::associatedValue(const Object& object, std::uint64_t key) {
    detail::AssociationTable* table = object.associations_.load(std::memory_order_acquire);
    if (table == nullptr) {
        return {};
    }
    std::lock_guard guard(table->lock);
    auto entry = table->find(key);
    return entry == table->entries.end() ? AssociatedValue{} : entry->value;
}

void Object::setAssociatedValue(const Object& object, std::uint64_t key, AssociatedValue value) {
    detail::AssociationTable* table = object.associations_.load(std::memory_order_acquire);
    if (table == nullptr) {
        if (detail::AssociationTable::isEmpty(value)) {
            return;
        }
        auto made = std::make_unique<detail::AssociationTable>();
        if (object.associations_.compare_exchange_strong(
                table, made.get(), std::memory_order_acq_rel, std::memory_order_acquire)) {
            table = made.release();
        }
    }
    AssociatedValue replaced;
    {
        std::lock_guard guard(table->lock);
        auto entry = table->find(key);
        if (entry != table->entries.end()) {
            replaced = std::exchange(entry->value, std::move(value));
            if (detail::AssociationTable::isEmpty(entry->value)) {
                table->entries.erase(entry);
            }
        } else if (!detail::AssociationTable::isEmpty(value)) {
            table->entries.push_back({key, std::move(value)});
        }
    }
}

Object::~Object() {
    delete associations_.load(std::memory_order_acquire);
}

}  // namespace kel

#include "kel/Platform/KeyValueObserving.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <utility>

namespace kel {
namespace detail {

class ObservationRegistry {
  public:
    // What an announcement calls: shared so that a call in progress survives invalidation.
    struct Observer {
        std::string key;
        KeyValueObservable::Callback callback;
    };
    struct Entry {
        std::uint64_t identifier;
        std::shared_ptr<const Observer> observer;
        bool prior;
    };

    // Mirrors entries.size() so that announcements with nobody listening skip the lock; written
    // under mutex, read without it.
    std::atomic<std::size_t> count{0};
    std::mutex mutex;  // guards entries and nextIdentifier
    std::vector<Entry> entries;
    std::uint64_t nextIdentifier = 1;
};

}  // namespace detail

KeyValueObservation::KeyValueObservation(KeyValueObservation&& other) noexcept
    : registry_(std::move(other.registry_)), identifier_(std::exchange(other.identifier_, 0)) {}

KeyValueObservation& KeyValueObservation::operator=(KeyValueObservation&& other) noexcept {
    if (this != &other) {
        invalidate();
        registry_ = std::move(other.registry_);
        identifier_ = std::exchange(other.identifier_, 0);
    }
    return *this;
}

KeyValueObservation::~KeyValueObservation() {
    invalidate();
}

void KeyValueObservation::invalidate() noexcept {
    if (auto registry = registry_.lock()) {
        std::lock_guard lock(registry->mutex);
        auto& entries = registry->entries;
        entries.erase(std::remove_if(entries.begin(), entries.end(),
                                     [this](const auto& e) { return e.identifier == identifier_; }),
                      entries.end());
        registry->count.store(entries.size(), std::memory_order_release);
    }
    registry_.reset();
    identifier_ = 0;
}

KeyValueObservable::KeyValueObservable()
    : registry_(std::make_shared<detail::ObservationRegistry>()) {}

KeyValueObservable::~KeyValueObservable() = default;

KeyValueObservation KeyValueObservable::observe(std::string key, Callback callback, bool prior) {
    auto observer = std::make_shared<const detail::ObservationRegistry::Observer>(
        detail::ObservationRegistry::Observer{std::move(key), std::move(callback)});
    std::unique_lock lock(registry_->mutex);
    std::uint64_t identifier = registry_->nextIdentifier++;
    registry_->entries.push_back({identifier, std::move(observer), prior});
    // A read-modify-write, like the one in announce: a caller that reads the observed state
    // after observing either sees a change announced concurrently or the announcement sees
    // this observer, whichever of the two comes second in the count's order.
    registry_->count.exchange(registry_->entries.size(), std::memory_order_acq_rel);
    lock.unlock();
    return KeyValueObservation(registry_, identifier);
}

std::vector<std::string> KeyValueObservable::keyPathsForValuesAffectingValueForKey(
    std::string_view) const {
    return {};
}

void KeyValueObservable::changeAnnounced(std::string_view) {}

std::size_t KeyValueObservable::synchronizeWithAnnouncements() noexcept {
    return registry_->count.fetch_add(0, std::memory_order_acq_rel);
}

void KeyValueObservable::willChangeValueForKey(std::string_view key) {
    announce(key, true);
}

void KeyValueObservable::didChangeValueForKey(std::string_view key) {
    announce(key, false);
    changeAnnounced(key);
}

void KeyValueObservable::announce(std::string_view changedKey, bool prior) {
    // Most changes have nobody listening, so skip the lock then. The change itself was stored
    // just before; reading the count with a read-modify-write orders that store before it (see
    // observe), so an observer that checks the state after registering cannot miss the change.
    std::size_t observers =
        prior ? registry_->count.load(std::memory_order_acquire) : synchronizeWithAnnouncements();
    if (observers == 0) {
        return;
    }
    using Observer = detail::ObservationRegistry::Observer;
    // A few observers per object is the common case: collect them without allocating.
    std::array<std::shared_ptr<const Observer>, 4> inlineCalls;
    std::size_t inlineCount = 0;
    std::vector<std::shared_ptr<const Observer>> moreCalls;
    {
        std::lock_guard lock(registry_->mutex);
        for (const auto& entry : registry_->entries) {
            if (prior && !entry.prior) {
                continue;
            }
            const std::string& observedKey = entry.observer->key;
            bool affected = observedKey == changedKey;
            if (!affected) {
                auto keys = keyPathsForValuesAffectingValueForKey(observedKey);
                affected = std::find(keys.begin(), keys.end(), changedKey) != keys.end();
            }
            if (!affected) {
                continue;
            }
            if (inlineCount < inlineCalls.size()) {
                inlineCalls[inlineCount++] = entry.observer;
            } else {
                moreCalls.push_back(entry.observer);
            }
        }
    }
    // Outside the lock: a callback may observe, invalidate, or announce further changes.
    for (std::size_t i = 0; i < inlineCount; ++i) {
        inlineCalls[i]->callback(inlineCalls[i]->key);
    }
    for (const auto& observer : moreCalls) {
        observer->callback(observer->key);
    }
}

}  // namespace kel

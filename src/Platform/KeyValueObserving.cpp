#include "kel/Platform/KeyValueObserving.hpp"

#include <algorithm>
#include <mutex>
#include <utility>

namespace kel {
namespace detail {

class ObservationRegistry {
  public:
    struct Entry {
        std::uint64_t identifier;
        std::string key;
        std::shared_ptr<const KeyValueObservable::Callback> callback;
        bool prior;
    };

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
    }
    registry_.reset();
    identifier_ = 0;
}

KeyValueObservable::KeyValueObservable()
    : registry_(std::make_shared<detail::ObservationRegistry>()) {}

KeyValueObservable::~KeyValueObservable() = default;

KeyValueObservation KeyValueObservable::observe(std::string key, Callback callback, bool prior) {
    std::lock_guard lock(registry_->mutex);
    std::uint64_t identifier = registry_->nextIdentifier++;
    registry_->entries.push_back(
        {identifier, std::move(key), std::make_shared<const Callback>(std::move(callback)), prior});
    return KeyValueObservation(registry_, identifier);
}

std::vector<std::string> KeyValueObservable::keyPathsForValuesAffectingValueForKey(
    std::string_view) const {
    return {};
}

void KeyValueObservable::willChangeValueForKey(std::string_view key) {
    announce(key, true);
}

void KeyValueObservable::didChangeValueForKey(std::string_view key) {
    announce(key, false);
}

void KeyValueObservable::announce(std::string_view changedKey, bool prior) {
    struct Call {
        std::shared_ptr<const Callback> callback;
        std::string key;
    };
    std::vector<Call> calls;
    {
        std::lock_guard lock(registry_->mutex);
        for (const auto& entry : registry_->entries) {
            if (prior && !entry.prior) {
                continue;
            }
            bool affected = entry.key == changedKey;
            if (!affected) {
                auto keys = keyPathsForValuesAffectingValueForKey(entry.key);
                affected = std::find(keys.begin(), keys.end(), changedKey) != keys.end();
            }
            if (affected) {
                calls.push_back({entry.callback, entry.key});
            }
        }
    }
    // Outside the lock: a callback may observe, invalidate, or announce further changes.
    for (const auto& call : calls) {
        (*call.callback)(call.key);
    }
}

}  // namespace kel

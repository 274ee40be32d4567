// kel::KeyValueObservable — a small key-value observation for the library's own classes.
//
// A class derived from KeyValueObservable announces changes of its keys ("isFinished", ...)
// with willChangeValueForKey / didChangeValueForKey around the change. Observers registered
// with observe(key, callback) are called after each change of that key, or of any key that
// keyPathsForValuesAffectingValueForKey(key) names, so a subclass that keeps one "state" key can
// declare that "isReady", "isExecuting" and "isFinished" all depend on it. An observer asking
// for prior notifications is also called from willChangeValueForKey.
//
// Thread rules: observe, invalidate and the change announcements may be called from any thread.
// Callbacks run synchronously on the thread that announces the change, with no lock of the
// observable held, so they may observe, invalidate (themselves too) and read the object.
//
// Ownership: observe() returns a KeyValueObservation token; the observation lasts until the
// token is invalidated or destroyed, or the observed object is destroyed, whichever is first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kel/Export.hpp"

namespace kel {

namespace detail {
class ObservationRegistry;
}

// Ends an observation when invalidated or destroyed. Movable, not copyable.
class KEL_EXPORT KeyValueObservation {
  public:
    KeyValueObservation() noexcept = default;
    KeyValueObservation(KeyValueObservation&& other) noexcept;
    KeyValueObservation& operator=(KeyValueObservation&& other) noexcept;
    KeyValueObservation(const KeyValueObservation&) = delete;
    KeyValueObservation& operator=(const KeyValueObservation&) = delete;
    ~KeyValueObservation();

    // Stops the callback from being called for later changes. Safe to call more than once and
    // after the observed object is gone.
    void invalidate() noexcept;

  private:
    friend class KeyValueObservable;
    KeyValueObservation(std::weak_ptr<detail::ObservationRegistry> registry,
                        std::uint64_t identifier) noexcept
        : registry_(std::move(registry)), identifier_(identifier) {}

    std::weak_ptr<detail::ObservationRegistry> registry_;
    std::uint64_t identifier_ = 0;
};

class KEL_EXPORT KeyValueObservable {
  public:
    // Called with the observed key (not the key that actually changed).
    using Callback = std::function<void(std::string_view key)>;

    KeyValueObservable(const KeyValueObservable&) = delete;
    KeyValueObservable& operator=(const KeyValueObservable&) = delete;
    virtual ~KeyValueObservable();

    // Observes key: callback runs after every change of key or of a key it depends on, and,
    // with prior, also before it.
    [[nodiscard]] KeyValueObservation observe(std::string key, Callback callback,
                                              bool prior = false);

    // The keys whose changes also change key. The default names none; subclasses override.
    virtual std::vector<std::string> keyPathsForValuesAffectingValueForKey(
        std::string_view key) const;

    // Announce a change of key around the change itself, always in pairs.
    void willChangeValueForKey(std::string_view key);
    void didChangeValueForKey(std::string_view key);

  protected:
    KeyValueObservable();

    // Called on the announcing thread from didChangeValueForKey, after the observers of the
    // change have run, with the key that actually changed. Lets a subclass react to its own
    // changes without the cost of an observation; the default does nothing.
    virtual void changeAnnounced(std::string_view changedKey);

    // A read-modify-write on the atomic that every change announcement also modifies before it
    // reads any flag of the subclass. A flag set before this call is seen by an announcement
    // that this call does not see; answers the number of observations.
    std::size_t synchronizeWithAnnouncements() noexcept;

  private:
    void announce(std::string_view changedKey, bool prior);

    std::shared_ptr<detail::ObservationRegistry> registry_;  // locks itself
};

}  // namespace kel

// kel::EventLoadedLazy<T, Event> — a Lazy that loads itself when an application event fires.
//
// Made with an EventManager and one or more events, it registers a trigger on those events that
// is onlyOnce and eager: the first time they are satisfied (at once, if they already are), the
// trigger calls load() with a completion that does nothing, so the load runs where the options
// say (keepOffMain sends it to the shared scheduler). The trigger holds the Lazy weakly: once the
// Lazy is gone, the event does nothing. A load that the event starts and that fails is dropped
// (the value stays unloaded and the next read tries again); it never escapes EventManager::fire.
// Made without an EventManager it is a plain Lazy.
//
// Thread rules: those of Lazy; the forms taking an EventManager must be called on the main
// thread, as every EventManager operation must.
// Ownership: the event forms are made through make(...), which answers a std::shared_ptr (the
// trigger needs a weak reference); the plain form may be kept by value.
#pragma once

#include <memory>
#include <unordered_set>
#include <utility>

#include "kel/Concurrency/Lazy.hpp"
#include "kel/Lifecycle/EventManager.hpp"

namespace kel {

template <class T, class Event>
class EventLoadedLazy : public Lazy<T> {
  public:
    using typename Lazy<T>::LoadBlock;

    EventLoadedLazy(LazyOptions options, LoadBlock loadBlock)
        : Lazy<T>(options, std::move(loadBlock)) {}

    // Loads when `event` fires (at once if it already has).
    template <class Hash, class Equal>
    static std::shared_ptr<EventLoadedLazy> make(EventManager<Event, Hash, Equal>& eventManager,
                                                 const Event& event, LazyOptions options,
                                                 LoadBlock loadBlock) {
        return make(eventManager, std::unordered_set<Event, Hash, Equal>{event}, options,
                    std::move(loadBlock));
    }

    // Loads when `events` are satisfied: every one of them fired.
    template <class Hash, class Equal>
    static std::shared_ptr<EventLoadedLazy> make(EventManager<Event, Hash, Equal>& eventManager,
                                                 std::unordered_set<Event, Hash, Equal> events,
                                                 LazyOptions options, LoadBlock loadBlock) {
        auto lazy = std::make_shared<EventLoadedLazy>(options, std::move(loadBlock));
        eventManager.trigger(std::move(events), EventTriggerBehavior(3),
                             [weakLazy = std::weak_ptr<EventLoadedLazy>(lazy)] {
                                 if (auto lazy = weakLazy.lock()) {
                                     try {
                                         lazy->load([](const T&) {});
                                     } catch (...) {
                                         // Dropped: the value stays unloaded for the next read.
                                     }
                                 }
                             });
        return lazy;
    }
};

}  // namespace kel

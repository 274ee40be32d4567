// kel::EventManager<Event> — runs callables once a set of events has happened, also when the
// events happened before the callable was registered.
//
// The manager remembers every event ever fired (the set only grows) and keeps its triggers in
// registration order, each a set of events, an EventTriggerBehavior and a block. fire(event)
// records the event, then walks the triggers: an unsatisfied trigger is kept, a satisfied one
// has its block run and is kept unless it is onlyOnce. A kept trigger, once satisfied, stays
// satisfied (events accumulate), so its block runs again on every later fire of any event.
//
// The walk works on the list as it stood when fire began and replaces the stored list with its
// result when it ends. So a trigger that a block registers during fire is dropped when that fire
// ends (its eager block may already have run), and a fire nested in a block walks the list as it
// stood before the outer fire (plus the registrations made since) and its result is overwritten
// by the outer fire's. If a block throws, the exception leaves fire with the event recorded and
// the list not replaced: no trigger of that fire is dropped (registrations made before the throw
// stay).
//
// Thread rules: main queue only. Every operation begins with a main-queue precondition and stops
// the process when called from any other thread. No lock; blocks run synchronously on the main
// thread inside trigger or fire.
// Ownership: not copyable; keep it by value or through std::shared_ptr. Triggers are owned by
// the manager (shared with a fire walking them).
#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <memory>
#include <unordered_set>
#include <utility>
#include <vector>

#include "kel/Lifecycle/EventTriggerBehavior.hpp"
#include "kel/Platform/FatalError.hpp"
#include "kel/Platform/RunLoop.hpp"

namespace kel {

template <class Event, class Hash = std::hash<Event>, class Equal = std::equal_to<Event>>
requires std::is_invocable_r_v<std::size_t, const Hash&, const Event&>
class EventManager {
  public:
    using EventSet = std::unordered_set<Event, Hash, Equal>;
    using Block = std::function<void()>;

    EventManager() = default;
    EventManager(const EventManager&) = delete;
    EventManager& operator=(const EventManager&) = delete;

    // Registers a trigger on `events`. With `eager`, a trigger satisfied by the events fired so
    // far runs its block now, synchronously; with `onlyOnce` as well it is then not stored.
    void trigger(EventSet events, EventTriggerBehavior behavior, Block block) {
        checkMainQueue();
        auto trigger = std::make_shared<const EventTrigger>(
            EventTrigger{behavior, std::move(events), std::move(block)});
        if (behavior.contains(EventTriggerBehavior::eager) && isSatisfied(*trigger)) {
            trigger->block();
            if (behavior.contains(EventTriggerBehavior::onlyOnce)) {
                return;
            }
        }
        writableTriggers().push_back(std::move(trigger));
    }

    // The same on the one-element set of `event`.
    void trigger(const Event& event, EventTriggerBehavior behavior, Block block) {
        trigger(EventSet{event}, behavior, std::move(block));
    }

    // Records `event` and runs the triggers it satisfies, in registration order. Firing an
    // event again leaves the set as it is but runs the satisfied triggers again.
    void fire(const Event& event) {
        checkMainQueue();
        events_.insert(event);
        // The walk's own reference keeps the list unchanged: a registration made by a block
        // copies the list before appending to it. The new list is built only once a trigger is
        // dropped; until then it is the walked list itself.
        const std::shared_ptr<TriggerList> current = triggers_;
        std::shared_ptr<TriggerList> kept;
        for (std::size_t index = 0; index < current->size(); ++index) {
            const std::shared_ptr<const EventTrigger>& trigger = (*current)[index];
            const bool drop = isSatisfied(*trigger) && runBlock(*trigger);
            if (drop && !kept) {
                kept = std::make_shared<TriggerList>(current->begin(), current->begin() + index);
            } else if (!drop && kept) {
                kept->push_back(trigger);
            }
        }
        triggers_ = kept ? std::move(kept) : current;
    }

  private:
    struct EventTrigger {
        EventTriggerBehavior behavior;
        EventSet events;
        Block block;
    };
    using TriggerList = std::vector<std::shared_ptr<const EventTrigger>>;

    // Runs a satisfied trigger's block; true if the trigger is then dropped.
    static bool runBlock(const EventTrigger& trigger) {
        trigger.block();
        return trigger.behavior.contains(EventTriggerBehavior::onlyOnce);
    }

    static void checkMainQueue() {
        KEL_PRECONDITION(isMainThread(), "EventManager used off the main queue");
    }

    // `any`: at least one of the trigger's events was fired; otherwise every one of them was.
    bool isSatisfied(const EventTrigger& trigger) const {
        if (trigger.behavior.contains(EventTriggerBehavior::any)) {
            for (const Event& event : trigger.events) {
                if (events_.contains(event)) {
                    return true;
                }
            }
            return false;
        }
        for (const Event& event : trigger.events) {
            if (!events_.contains(event)) {
                return false;
            }
        }
        return true;
    }

    // The stored list, copied first when a fire in progress is walking it.
    TriggerList& writableTriggers() {
        if (triggers_.use_count() > 1) {
            triggers_ = std::make_shared<TriggerList>(*triggers_);
        }
        return *triggers_;
    }

    // Main thread only, like every member.
    EventSet events_;
    std::shared_ptr<TriggerList> triggers_ = std::make_shared<TriggerList>();
};

}  // namespace kel

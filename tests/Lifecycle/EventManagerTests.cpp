#include "kel/Lifecycle/EventManager.hpp"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <tuple>
#include <unordered_set>
#include <vector>

namespace {

using kel::EventManager;
using kel::EventTriggerBehavior;

enum class AppEvent { launched, active, signedIn, background };
using Calls = std::vector<std::string>;

struct EventManagerTest : ::testing::Test {
    EventManager<AppEvent> manager;
    Calls calls;

    EventManager<AppEvent>::Block record(std::string name) {
        return [this, name] { calls.push_back(name); };
    }
};

// Without `any` a trigger needs every event (with `all` or with neither); with `any` one is
// enough, also when `all` is set too. The empty set satisfies every trigger without `any` and
// never one with it.
TEST_F(EventManagerTest, SatisfactionTestsOnlyAny) {
    using enum AppEvent;
    using B = EventTriggerBehavior;
    const std::unordered_set<AppEvent> both{launched, active}, none;
    const std::tuple<const char*, std::unordered_set<AppEvent>, B> triggers[] = {
        {"default", both, {}}, {"all", both, B::all},
        {"any", both, B::any}, {"any+all", both, {B::any, B::all}},
        {"empty", none, {}},   {"empty any", none, B::any}};
    for (const auto& [name, events, behavior] : triggers) {
        manager.trigger(events, behavior, record(name));
    }

    manager.fire(launched);
    EXPECT_EQ(calls, (Calls{"any", "any+all", "empty"}));
    calls.clear();
    manager.fire(active);
    EXPECT_EQ(calls, (Calls{"default", "all", "any", "any+all", "empty"}));
}

// A kept trigger runs again on every later fire, related or not (a repeated event included);
// an onlyOnce one runs once and is gone.
TEST_F(EventManagerTest, KeptTriggersRerunOnEveryFireOnlyOnceRunOnce) {
    manager.trigger(AppEvent::active, {}, record("kept"));
    manager.trigger(AppEvent::active, EventTriggerBehavior::onlyOnce, record("once"));
    manager.fire(AppEvent::launched);
    EXPECT_TRUE(calls.empty());
    manager.fire(AppEvent::active);
    manager.fire(AppEvent::background);
    manager.fire(AppEvent::active);
    EXPECT_EQ(calls, (Calls{"kept", "once", "kept", "kept"}));
}

// A trigger registered after its events fired runs during registration only when eager (and is
// then not stored when onlyOnce too); otherwise it waits for the next fire of any event.
TEST_F(EventManagerTest, TriggersRegisteredAfterTheirEvents) {
    manager.fire(AppEvent::launched);
    manager.trigger(AppEvent::launched, {}, record("lazy"));
    manager.trigger(AppEvent::launched, EventTriggerBehavior::eager, record("eager"));
    manager.trigger(AppEvent::launched,
                    {EventTriggerBehavior::eager, EventTriggerBehavior::onlyOnce},
                    record("eager once"));
    manager.trigger(AppEvent::active, EventTriggerBehavior::eager, record("eager unsatisfied"));
    EXPECT_EQ(calls, (Calls{"eager", "eager once"}));
    calls.clear();
    manager.fire(AppEvent::background);
    EXPECT_EQ(calls, (Calls{"lazy", "eager"}));
}

// The list is replaced when fire ends: a trigger registered by a block is dropped (its eager
// block still ran at registration), and a nested fire walks the list as it stood before the
// outer fire and is then overwritten by it.
TEST_F(EventManagerTest, ListReplacedAtTheEndOfFire) {
    manager.trigger(AppEvent::launched, EventTriggerBehavior::onlyOnce, [this] {
        calls.push_back("outer");
        if (calls.size() == 1) {
            manager.trigger(AppEvent::launched, EventTriggerBehavior::eager, record("registered"));
            manager.fire(AppEvent::signedIn);
        }
    });
    manager.trigger(AppEvent::signedIn, EventTriggerBehavior::onlyOnce, record("signedIn"));
    manager.fire(AppEvent::launched);
    // The nested fire walked the stored list: the outer trigger (not yet dropped), signedIn and
    // the registered one. The outer fire then walked on in its own list and ran signedIn again.
    EXPECT_EQ(calls, (Calls{"outer", "registered", "outer", "signedIn", "registered", "signedIn"}));
    calls.clear();
    manager.fire(AppEvent::background);
    EXPECT_TRUE(calls.empty());
}

TEST(EventManagerDeathTest, EveryOperationOffTheMainQueueStops) {
    EventManager<int> manager;
    EXPECT_DEATH(std::thread([&] { manager.fire(1); }).join(), "off the main queue");
    EXPECT_DEATH(std::thread([&] { manager.trigger(1, {}, [] {}); }).join(), "off the main queue");
}

}  // namespace

#include "kel/Lifecycle/ApplicationStateManager.hpp"

#include <gtest/gtest.h>

#include <any>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using kel::ApplicationStateLaunchOptionKey;
using kel::ApplicationStateLaunchOptions;
using kel::ApplicationStateManager;
using kel::ApplicationStateMonitor;

using Journal = std::vector<std::string>;

// Writes "<name>.<moment>" into a shared journal; `onActive` lets a test act during a dispatch.
class RecordingMonitor : public ApplicationStateMonitor {
  public:
    RecordingMonitor(std::string name, Journal& journal)
        : name_(std::move(name)), journal_(journal) {}

    void applicationDidBecomeActive() override {
        journal_.push_back(name_ + ".active");
        if (onActive) {
            onActive();
        }
    }
    void applicationWillEnterForeground() override { journal_.push_back(name_ + ".foreground"); }
    void applicationDidEnterBackground() override { journal_.push_back(name_ + ".background"); }
    void applicationDidFinishLaunching(
        const std::optional<ApplicationStateLaunchOptions>& options) override {
        journal_.push_back(name_ + ".launch");
        receivedOptions = options ? &*options : nullptr;
    }

    std::function<void()> onActive;
    const ApplicationStateLaunchOptions* receivedOptions = nullptr;

  private:
    std::string name_;
    Journal& journal_;
};

class SilentMonitor : public ApplicationStateMonitor {};

TEST(ApplicationStateDispatch, CallsMonitorsInRegistrationOrderAndPassesOptionsThrough) {
    Journal journal;
    ApplicationStateManager manager;
    auto first = std::make_shared<RecordingMonitor>("first", journal);
    auto silent = std::make_shared<SilentMonitor>();
    auto second = std::make_shared<RecordingMonitor>("second", journal);
    manager.add(first);
    manager.add(silent);
    manager.add(second);

    const std::optional<ApplicationStateLaunchOptions> options(ApplicationStateLaunchOptions{
        {ApplicationStateLaunchOptionKey::url, std::string("kel://x")},
        {ApplicationStateLaunchOptionKey::unknown("custom"), 7}});
    manager.applicationDidFinishLaunching(options);
    manager.didBecomeActive();
    manager.didEnterBackground();
    manager.willEnterForeground();
    EXPECT_EQ(journal, (Journal{"first.launch", "second.launch", "first.active", "second.active",
                                "first.background", "second.background", "first.foreground",
                                "second.foreground"}));
    EXPECT_EQ(first->receivedOptions, &*options);  // the very dictionary, not a copy

    manager.applicationDidFinishLaunching();
    EXPECT_EQ(second->receivedOptions, nullptr);
}

TEST(ApplicationStateDispatch, EndedRegistrationsAreSkipped) {
    Journal journal;
    ApplicationStateManager manager;
    auto released = std::make_shared<RecordingMonitor>("released", journal);
    auto cleared = std::make_shared<RecordingMonitor>("cleared", journal);
    auto repointed = std::make_shared<RecordingMonitor>("repointed", journal);
    auto orphan = std::make_shared<RecordingMonitor>("orphan", journal);
    manager.add(released);
    manager.add(cleared)->keepAlive(nullptr);
    auto other = std::make_shared<int>(0);
    manager.add(repointed)->keepAlive(other);
    // Kept alive by another object, but its monitor dies: skipped as well.
    auto orphanKeeper = std::make_shared<int>(0);
    manager.add(orphan)->keepAlive(orphanKeeper);

    released.reset();
    orphan.reset();
    manager.didBecomeActive();
    EXPECT_EQ(journal, (Journal{"repointed.active"}));

    other.reset();
    journal.clear();
    manager.didBecomeActive();
    EXPECT_TRUE(journal.empty());
}

// Only the launch notification prunes. A token ended with keepAlive(nullptr) stays in the list
// through the other notifications, so pointing it at a living object again revives it; after
// the launch notification it is gone for good.
TEST(ApplicationStatePruning, OnlyTheLaunchNotificationDropsEndedTokens) {
    Journal journal;
    ApplicationStateManager manager;
    auto monitor = std::make_shared<RecordingMonitor>("m", journal);
    auto token = manager.add(monitor);

    token->keepAlive(nullptr);
    manager.didBecomeActive();
    manager.didEnterBackground();
    manager.willEnterForeground();
    token->keepAlive(monitor);
    manager.didBecomeActive();
    EXPECT_EQ(journal, (Journal{"m.active"}));

    token->keepAlive(nullptr);
    manager.applicationDidFinishLaunching();
    token->keepAlive(monitor);
    journal.clear();
    manager.didBecomeActive();
    EXPECT_TRUE(journal.empty());
}

TEST(ApplicationStateRegistration, ChangesDuringADispatchTakeEffectFromTheNextOne) {
    Journal journal;
    ApplicationStateManager manager;
    auto changer = std::make_shared<RecordingMonitor>("changer", journal);
    auto removed = std::make_shared<RecordingMonitor>("removed", journal);
    auto added = std::make_shared<RecordingMonitor>("added", journal);
    changer->onActive = [&] {
        manager.add(added);
        manager.remove(*removed);
        changer->onActive = nullptr;
    };
    manager.add(changer);
    manager.add(removed);

    manager.didBecomeActive();
    EXPECT_EQ(journal, (Journal{"changer.active", "removed.active"}));
    journal.clear();
    manager.didBecomeActive();
    EXPECT_EQ(journal, (Journal{"changer.active", "added.active"}));
}

TEST(ApplicationStateRegistration, RemoveTakesOutOneRegistrationOfThatVeryMonitor) {
    Journal journal;
    ApplicationStateManager manager;
    auto twice = std::make_shared<RecordingMonitor>("twice", journal);
    manager.add(twice);
    manager.add(twice);
    manager.remove(RecordingMonitor("twice", journal));  // equal-looking, not the same object
    manager.remove(*twice);
    manager.didBecomeActive();
    EXPECT_EQ(journal, (Journal{"twice.active"}));
}

TEST(ApplicationStateLaunchOptionKeys, EqualByCaseAndUnknownTextHashedConsistently) {
    const auto custom = ApplicationStateLaunchOptionKey::unknown("custom");
    EXPECT_EQ(custom, ApplicationStateLaunchOptionKey::unknown("custom"));
    EXPECT_NE(custom, ApplicationStateLaunchOptionKey::unknown("Custom"));
    EXPECT_NE(ApplicationStateLaunchOptionKey::unknown(""), ApplicationStateLaunchOptionKey::url);
    EXPECT_NE(ApplicationStateLaunchOptionKey::location, ApplicationStateLaunchOptionKey::url);
    EXPECT_EQ(custom.unknownText(), "custom");

    std::unordered_map<ApplicationStateLaunchOptionKey, int> byKey;
    byKey[ApplicationStateLaunchOptionKey::unknown("a")] = 1;
    byKey[ApplicationStateLaunchOptionKey::unknown("b")] = 2;
    byKey[ApplicationStateLaunchOptionKey::url] = 3;
    byKey[ApplicationStateLaunchOptionKey::unknown("a")] += 10;
    EXPECT_EQ(byKey.size(), 3u);
    EXPECT_EQ(byKey.at(ApplicationStateLaunchOptionKey::unknown("a")), 11);
}

}  // namespace

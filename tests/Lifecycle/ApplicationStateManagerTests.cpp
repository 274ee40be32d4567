#include "kel/Lifecycle/ApplicationStateManager.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

using kel::ApplicationStateLaunchOptionKey;
using kel::ApplicationStateLaunchOptions;
using kel::ApplicationStateManager;
using Journal = std::vector<std::string>;

// Writes "<name>.<moment>" into a shared journal; `onActive` lets a test act during a dispatch.
class Monitor : public kel::ApplicationStateMonitor {
  public:
    Monitor(std::string name, Journal& journal) : name_(std::move(name)), journal_(journal) {}

    void applicationDidBecomeActive() override {
        journal_.push_back(name_ + ".active");
        if (onActive) {
            std::exchange(onActive, nullptr)();
        }
    }
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

class Silent : public kel::ApplicationStateMonitor {};

TEST(ApplicationStateDispatch, CallsMonitorsInOrderAndPassesTheOptionsThemselves) {
    Journal journal;
    ApplicationStateManager manager;
    auto first = std::make_shared<Monitor>("first", journal);
    auto second = std::make_shared<Monitor>("second", journal);
    auto silent = std::make_shared<Silent>();  // overrides nothing
    manager.add(first);
    manager.add(silent);
    manager.add(second);

    const std::optional<ApplicationStateLaunchOptions> options(
        ApplicationStateLaunchOptions{{ApplicationStateLaunchOptionKey::url, 1},
                                      {ApplicationStateLaunchOptionKey::unknown("x"), 2}});
    manager.applicationDidFinishLaunching(options);
    manager.didBecomeActive();
    manager.willEnterForeground();
    manager.didEnterBackground();
    EXPECT_EQ(journal, (Journal{"first.launch", "second.launch", "first.active", "second.active",
                                "first.background", "second.background"}));
    EXPECT_EQ(first->receivedOptions, &*options);
}

// Released monitors, cleared tokens, dead re-pointed keep-alive objects and dead monitors kept
// alive by another object are all skipped. Only the launch notification prunes: until then an
// ended token can be revived by pointing it at a living object again; afterwards it is gone.
TEST(ApplicationStateDispatch, EndedRegistrationsAreSkippedAndOnlyLaunchPrunesThem) {
    Journal journal;
    ApplicationStateManager manager;
    auto released = std::make_shared<Monitor>("released", journal);
    auto cleared = std::make_shared<Monitor>("cleared", journal);
    auto repointed = std::make_shared<Monitor>("repointed", journal);
    auto orphan = std::make_shared<Monitor>("orphan", journal);
    auto other = std::make_shared<int>(0);
    manager.add(released);
    auto clearedToken = manager.add(cleared);
    clearedToken->keepAlive(nullptr);
    manager.add(repointed)->keepAlive(other);
    manager.add(orphan)->keepAlive(other);
    released.reset();
    orphan.reset();
    manager.didBecomeActive();
    other.reset();
    manager.didBecomeActive();
    EXPECT_EQ(journal, (Journal{"repointed.active"}));

    clearedToken->keepAlive(cleared);
    manager.didBecomeActive();
    clearedToken->keepAlive(nullptr);
    manager.applicationDidFinishLaunching();
    clearedToken->keepAlive(cleared);
    manager.didBecomeActive();
    EXPECT_EQ(journal, (Journal{"repointed.active", "cleared.active"}));
}

// A dispatch goes over the registrations as they were when it began. remove() takes out one
// registration of that very monitor, even if it was added twice.
TEST(ApplicationStateRegistration, ChangesDuringADispatchCountFromTheNextOne) {
    Journal journal;
    ApplicationStateManager manager;
    auto changer = std::make_shared<Monitor>("changer", journal);
    auto twice = std::make_shared<Monitor>("twice", journal);
    auto added = std::make_shared<Monitor>("added", journal);
    changer->onActive = [&] {
        manager.add(added);
        manager.remove(*twice);
    };
    manager.add(changer);
    manager.add(twice);
    manager.add(twice);

    manager.didBecomeActive();
    manager.didBecomeActive();
    EXPECT_EQ(journal, (Journal{"changer.active", "twice.active", "twice.active", "changer.active",
                                "twice.active", "added.active"}));
}

}  // namespace

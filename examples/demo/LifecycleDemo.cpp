#include "LifecycleDemo.hpp"

#include <any>
#include <chrono>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>

#include "kel/Lifecycle/ApplicationStateManager.hpp"
#include "kel/Lifecycle/BackgroundFetchManager.hpp"
#include "kel/Lifecycle/RemoteNotificationManager.hpp"
#include "kel/Lifecycle/StartupTaskManager.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/DispatchTime.hpp"
#include "kel/Platform/Error.hpp"
#include "kel/Platform/RunLoop.hpp"
#include "kel/Promises/Promise.hpp"

namespace {

using kel::DispatchQueue;
using kel::Promise;

// Settles with `value` on a background queue after `seconds`.
template <class T>
Promise<T> after(double seconds, T value) {
    return Promise<T>([seconds, value](auto fulfill, auto) {
        DispatchQueue::global().asyncAfter(kel::DispatchTime::now() + seconds,
                                           [fulfill, value] { fulfill(value); });
    });
}

template <class T>
void waitOnMain(const Promise<T>& promise) {
    kel::RunLoop::runUntil([&] { return promise.resolution().has_value(); },
                           std::chrono::seconds(5));
}

// --- start-up ---

class DemoTask final : public kel::StartupTaskType {
  public:
    DemoTask(std::string name, kel::StartupTaskGroup group, double seconds)
        : name_(std::move(name)), group_(std::move(group)), seconds_(seconds) {}

    kel::StartupTaskGroup group() const override { return group_; }
    Promise<void> run() override {
        std::cout << "  start-up: " << name_ << " (" << group_.identifier() << ") started\n";
        return after(seconds_, 0).then(DispatchQueue::main(), [name = name_](int) {
            std::cout << "  start-up: " << name << " done\n";
        });
    }

  private:
    std::string name_;
    kel::StartupTaskGroup group_;
    double seconds_;
};

void startUp() {
    const kel::StartupTaskGroup storage("storage");
    kel::StartupTaskManager startup;
    startup.onStartup(std::make_unique<DemoTask>("open database", storage, 0.05));
    startup.onStartup(std::make_unique<DemoTask>("warm caches", storage, 0.02));
    startup.onStartup(
        std::make_unique<DemoTask>("load configuration", kel::StartupTaskGroup::default_(), 0.03));
    startup.promise(storage).then(DispatchQueue::main(),
                                  [] { std::cout << "  start-up: group 'storage' finished\n"; });
    startup.startAllTasks();
    // Main-queue work runs in order, so the group's message above comes first.
    const auto all = startup.promise(kel::StartupTaskGroup::all()).then(DispatchQueue::main(), [] {
        std::cout << "  start-up: every group finished\n";
    });
    waitOnMain(all);
}

// --- application state ---

class SessionMonitor final : public kel::ApplicationStateMonitor {
  public:
    void applicationDidFinishLaunching(
        const std::optional<kel::ApplicationStateLaunchOptions>& options) override {
        std::cout << "  session: launched";
        if (options) {
            const auto url = options->find(kel::ApplicationStateLaunchOptionKey::url);
            if (url != options->end()) {
                std::cout << " to open " << std::any_cast<std::string>(url->second);
            }
            const auto campaign =
                options->find(kel::ApplicationStateLaunchOptionKey::unknown("campaign"));
            if (campaign != options->end()) {
                std::cout << ", campaign " << std::any_cast<std::string>(campaign->second);
            }
        }
        std::cout << "\n";
    }
    void applicationDidBecomeActive() override { std::cout << "  session: active\n"; }
    void applicationDidEnterBackground() override { std::cout << "  session: saved state\n"; }
    void applicationWillEnterForeground() override { std::cout << "  session: refreshing\n"; }
};

// Hears only the background moment; everything else keeps its do-nothing default.
class AnalyticsMonitor final : public kel::ApplicationStateMonitor {
  public:
    void applicationDidEnterBackground() override { std::cout << "  analytics: flushed\n"; }
};

void applicationState() {
    kel::ApplicationStateManager state;
    auto session = std::make_shared<SessionMonitor>();
    auto analytics = std::make_shared<AnalyticsMonitor>();
    state.add(session);
    state.add(analytics);

    state.applicationDidFinishLaunching(kel::ApplicationStateLaunchOptions{
        {kel::ApplicationStateLaunchOptionKey::url, std::string("kel://inbox")},
        {kel::ApplicationStateLaunchOptionKey::unknown("campaign"), std::string("spring")}});
    state.didBecomeActive();
    state.didEnterBackground();
    analytics.reset();
    std::cout << "  (analytics monitor released without removal)\n";
    state.didEnterBackground();
    state.willEnterForeground();
}

// --- remote notifications ---

class InboxHandler final : public kel::RemoteNotificationHandler {
  public:
    Promise<kel::RemoteNotificationFetchResult> handleRemoteNotification(
        const nlohmann::json& userInfo) override {
        std::cout << "  inbox: new message from " << userInfo.value("from", "?") << "\n";
        return after(0.02, kel::RemoteNotificationFetchResult::newData);
    }
};

class SyncHandler final : public kel::RemoteNotificationHandler {
  public:
    Promise<kel::RemoteNotificationFetchResult> handleRemoteNotification(
        const nlohmann::json&) override {
        std::cout << "  sync: nothing to sync\n";
        return Promise<kel::RemoteNotificationFetchResult>::fulfilled(
            kel::RemoteNotificationFetchResult::noData);
    }
};

void remoteNotifications() {
    kel::RemoteNotificationManager notifications;
    notifications.whenActive(
        [] { std::cout << "  notifications: first handler registered, deferred work runs\n"; });
    auto inbox = std::make_shared<InboxHandler>();
    auto sync = std::make_shared<SyncHandler>();
    notifications.add(inbox, kel::RemoteNotificationPattern::category("message"));
    notifications.add(sync, kel::RemoteNotificationPattern::any);

    for (const char* category : {"message", "promotion"}) {
        std::cout << "  notifications: payload of category '" << category << "'\n";
        const auto result = notifications.handleRemoteNotification(
            {{"aps", {{"category", category}}}, {"from", "bob"}});
        waitOnMain(result);
        std::cout << "  notifications: answer " << result.resolution()->value() << "\n";
    }
}

// --- background fetch ---

class FeedWorker final : public kel::BackgroundFetchWorker {
  public:
    FeedWorker(std::string name, double seconds) : name_(std::move(name)), seconds_(seconds) {}

    Promise<kel::BackgroundFetchResult> performBackgroundFetch() override {
        std::cout << "  " << name_ << ": fetching (answers in " << seconds_ << " s)\n";
        return after(seconds_, kel::BackgroundFetchResult::newData)
            .then(kel::zalgo(), [name = name_](kel::BackgroundFetchResult result) {
                std::cout << "  " << name << ": answered " << result << "\n";
                return result;
            });
    }

  private:
    std::string name_;
    double seconds_;
};

void backgroundFetch() {
    // The platform's limit is 10 s; the demo uses 0.3 s so that the time-out shows quickly.
    kel::BackgroundFetchManager fetch(0.3);
    auto feed = std::make_shared<FeedWorker>("feed", 0.05);
    auto archive = std::make_shared<FeedWorker>("archive", 0.6);
    fetch.add(feed);
    auto archiveToken = fetch.add(archive);

    std::cout << "  first fetch, time limit " << fetch.fetchTimeLimit() << " s\n";
    auto first = fetch.performBackgroundFetch();
    waitOnMain(first);
    std::cout << "  first fetch: " << kel::errorDescription(first.resolution()->error()) << "\n";
    // The late answer arrives after the time-out: it changes nothing and logs nothing.
    kel::RunLoop::runFor(std::chrono::milliseconds(400));

    archiveToken->keepAlive(nullptr);
    std::cout << "  second fetch, archive registration ended (counted once more, then pruned)\n";
    auto second = fetch.performBackgroundFetch();
    waitOnMain(second);
    std::cout << "  second fetch: " << second.resolution()->value() << "\n";
}

}  // namespace

void runLifecycleDemo() {
    std::cout << "\n== Application life cycle\n";
    startUp();
    applicationState();
    remoteNotifications();
    backgroundFetch();
}

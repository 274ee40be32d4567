#include "EventsDemo.hpp"

#include <chrono>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "kel/Collections/Observable.hpp"
#include "kel/Collections/Reportable.hpp"
#include "kel/Concurrency/EventLoadedLazy.hpp"
#include "kel/Concurrency/ObjectAssociation.hpp"
#include "kel/Lifecycle/EventManager.hpp"
#include "kel/Platform/Object.hpp"
#include "kel/Platform/RunLoop.hpp"

namespace {

using namespace std::chrono_literals;

enum class AppEvent { launched, active };

using SignedInUser = std::optional<std::string>;

// A screen that shows the signed-in user for as long as it is open.
class ProfileScreen final : public kel::Object {
  public:
    void show(const SignedInUser& user) {
        std::cout << "  profile screen: " << (user ? "hello, " + *user : "signed out") << "\n";
    }
};

void remoteSettingsDemo(kel::EventManager<AppEvent>& events) {
    // Loaded off the main thread once the application is active, not at launch.
    auto settings = kel::EventLoadedLazy<std::string, AppEvent>::make(
        events, AppEvent::active, kel::LazyOptions::keepOffMain, [] {
            std::cout << "  remote settings: loading on the main thread: " << std::boolalpha
                      << kel::isMainThread() << "\n";
            return std::string("theme=dark");
        });
    settings->onLoad([](const std::string& value) {
        std::cout << "  remote settings arrived: " << value << "\n";
    });
    events.fire(AppEvent::launched);
    std::cout << "  remote settings after launch: " << settings->loadedValue().value_or("(none)")
              << "\n";
    events.fire(AppEvent::active);
    kel::RunLoop::runUntil([&] { return settings->loadedValue().has_value(); }, 5s);
    std::cout << "  remote settings once active: " << settings->value() << "\n";
}

void signedInUserDemo() {
    auto user = kel::Observable<SignedInUser>::make(std::nullopt);
    auto screen = std::make_shared<ProfileScreen>();
    std::weak_ptr<ProfileScreen> weakScreen = screen;
    user->onNext([weakScreen](const SignedInUser& current) {
            if (auto open = weakScreen.lock()) {
                open->show(current);
            }
        })
        ->keepAlive(screen);

    static const kel::ObjectAssociation<int> unreadBadge(kel::AssociationPolicy::strong);
    unreadBadge.set(*screen, 3);
    std::cout << "  badge attached to the screen: " << unreadBadge.get(*screen).value_or(0) << "\n";

    user->next(std::string("alice"));
    if (!user->nextOnlyIfChanged(std::string("alice"), true)) {
        std::cout << "  same user again: the screen is not bothered\n";
    }
    screen.reset();
    user->next(std::nullopt);
    std::cout << "  screen closed; signing out notified nobody\n";
}

void downloadProgressDemo() {
    kel::Reportable<double> progress;
    progress.then([](const double& done) {
        std::cout << "  download: " << static_cast<int>(done * 100) << "%\n";
    });
    for (double done : {0.25, 0.5, 1.0}) {
        progress.trigger(done);
    }
    progress.reset();
}

}  // namespace

void runEventsDemo() {
    std::cout << "\n== Events, lazy values and observables\n";
    kel::EventManager<AppEvent> events;
    remoteSettingsDemo(events);
    signedInUserDemo();
    downloadProgressDemo();
}

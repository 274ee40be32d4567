#include "PromisesDemo.hpp"

#include <chrono>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/RunLoop.hpp"
#include "kel/Promises/AsyncMain.hpp"
#include "kel/Promises/DeferredPromise.hpp"
#include "kel/Promises/Firstly.hpp"
#include "kel/Promises/Promise.hpp"
#include "kel/Promises/PromiseDeduper.hpp"
#include "kel/Promises/When.hpp"

namespace {

using kel::DispatchQueue;
using kel::Promise;

// A simulated backend: answers on a background queue after a short delay.
Promise<std::string> fetchUserName(int id) {
    return Promise<std::string>([id](auto fulfill, auto) {
        DispatchQueue::global().asyncAfter(kel::DispatchTime::now() + 0.02, [fulfill, id] {
            fulfill("user-" + std::to_string(id));
        });
    });
}

Promise<std::vector<int>> fetchScores() {
    return kel::firstly(DispatchQueue::global(), [] {
        return Promise<std::vector<int>>::fulfilled({7, 3, 7, 9, 3});
    });
}

Promise<int> fetchBadgeCount() {
    return Promise<int>::rejected(std::runtime_error("badge service unavailable"));
}

struct ProfileScreen {
    std::string title;
};

template <class T>
void waitOnMain(const Promise<T>& promise) {
    kel::RunLoop::runUntil([&] { return promise.resolution().has_value(); },
                           std::chrono::seconds(5));
}

}  // namespace

void runPromisesDemo() {
    auto screen = std::make_shared<ProfileScreen>();

    std::cout << "  loading the profile: name and scores in parallel\n";
    kel::PromiseDeduper<int, std::string> names;
    auto name = names.promise(42, [] { return fetchUserName(42); });
    auto sameName = names.promise(42, [] { return fetchUserName(42); });
    std::cout << "  a second request for user 42 shares the first: "
              << (name == sameName ? "yes" : "no") << "\n";

    auto distinctScores = fetchScores().unique(kel::zalgo(), [](int s) { return s; });
    auto profile =
        kel::when(DispatchQueue::main(), name, distinctScores)
            .then(DispatchQueue::main(), screen,
                  [](const std::tuple<std::string, std::vector<int>>& loaded, ProfileScreen& view) {
                      view.title = std::get<0>(loaded);
                      return std::get<1>(loaded).size();
                  });
    profile.then(kel::zalgoIfMain(), [screen](std::size_t count) {
        std::cout << "  shown on the main thread: " << screen->title << " with " << count
                  << " distinct scores\n";
    });
    waitOnMain(profile);

    std::cout << "  an optional badge count that fails does not spoil the screen\n";
    auto withBadge = kel::whenFirst(DispatchQueue::main(), Promise<std::string>::fulfilled("ok"),
                                    fetchBadgeCount());
    withBadge.then(kel::zalgo(), [](const auto& result) {
        std::cout << "  badge: " << (std::get<1>(result) ? "present" : "absent (error dropped)")
                  << "\n";
    });
    waitOnMain(withBadge);

    std::cout << "  a request the user abandons is cancelled, not failed\n";
    auto cancelled =
        Promise<int>::fulfilled(1)
            .then(kel::zalgo(), [](int) -> int { throw kel::PromiseError::cancelled; })
            .error(kel::zalgo(), [](const kel::Error&) { std::cout << "  (not printed)\n"; })
            .cancelled(kel::zalgo(), [] { std::cout << "  cancelled handler ran\n"; });

    std::cout << "  a deferred promise settled later from a background queue\n";
    kel::DeferredPromise<std::string> ready;
    DispatchQueue::global().async([resolve = ready.resolve] { resolve("start-up finished"); });
    auto shown = ready.promise.then(DispatchQueue::main(), [](const std::string& text) {
        kel::asyncMain([text] { std::cout << "  " << text << " (printed at once: on main)\n"; });
    });
    waitOnMain(shown);
}

// A small simulated application: worker threads record page views under locks, the app reads
// its settings, and tidies up the data it shows, printing what each foundation piece does.
#include "FoundationDemo.hpp"

#include <kel/Concurrency/MutexLock.hpp>
#include <kel/Concurrency/UnfairLock.hpp>
#include <kel/Extensions/Array.hpp>
#include <kel/Extensions/ClosedRange.hpp>
#include <kel/Extensions/Dictionary.hpp>
#include <kel/Extensions/OptionSet.hpp>
#include <kel/Extensions/Sequence.hpp>
#include <kel/Extensions/String.hpp>
#include <kel/Extensions/URLString.hpp>

#include <nlohmann/json.hpp>

#include <iostream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Features : kel::OptionSet<Features> {
    using OptionSet::OptionSet;
    static const Features offlineMode;
    static const Features darkTheme;
    static const Features betaSearch;
};
inline constexpr Features Features::offlineMode{1};
inline constexpr Features Features::darkTheme{2};
inline constexpr Features Features::betaSearch{4};

}  // namespace

void runFoundationDemo() {
    std::cout << "\n== Locks\n";
    kel::UnfairLock viewsLock{kel::UnfairLock::Options::dataSynchronization};
    std::map<std::string, int> pageViews;  // guarded by viewsLock
    std::vector<std::thread> workers;
    for (const char* page : {"home", "search", "home", "settings"}) {
        workers.emplace_back([&, page] {
            for (int i = 0; i < 1000; ++i) {
                viewsLock.sync([&] { ++pageViews[page]; });
            }
        });
    }
    for (auto& worker : workers) {
        worker.join();
    }
    const int total = viewsLock.sync([&] {
        int sum = 0;
        for (const auto& [page, views] : pageViews) {
            sum += views;
        }
        return sum;
    });
    std::cout << "  4 worker threads recorded " << total << " page views under an UnfairLock"
              << " (option word 0x" << std::hex << viewsLock.optionWord() << std::dec
              << "); home has " << pageViews["home"] << "\n";
    kel::MutexLock auditLock;
    {
        std::lock_guard guard(auditLock);
        std::cout << "  a MutexLock works with std::lock_guard like any BasicLockable\n";
    }

    std::cout << "\n== Option sets\n";
    const Features enabled{Features::offlineMode, Features::betaSearch};
    std::cout << "  enabled features, raw value " << enabled.rawValue() << ", bits:";
    for (Features feature : enabled.elements()) {
        std::cout << " " << feature.rawValue();
    }
    std::cout << "; dark theme " << (enabled.contains(Features::darkTheme) ? "on" : "off") << "\n";

    std::cout << "\n== Extensions\n";
    const std::map<std::string, std::string> defaults{{"theme", "light"}, {"language", "en"}};
    const std::map<std::string, std::string> user{{"theme", "dark"}};
    const auto settings = kel::merging(defaults, user);
    std::cout << "  settings after merging user choices over defaults: theme="
              << settings.at("theme") << ", language=" << settings.at("language") << "\n";

    const std::vector<std::string> tags{"swift", "cpp", "swift", "linux", "cpp"};
    std::cout << "  tags without repeats:";
    for (const auto& tag : kel::unique(tags)) {
        std::cout << " " << kel::uppercasedFirst(tag);
    }
    std::cout << "\n";

    const std::vector<double> responseTimes{120.0, 80.5, 99.5};
    std::cout << "  average response time " << kel::average(responseTimes).value_or(0)
              << " ms; tip of the day: \""
              << kel::randomElement(std::vector<std::string>{"Save often", "Stay curious"})
                     .value_or("none")
              << "\"\n";

    const auto visibleRows = nlohmann::json::parse("[10, 24]").get<kel::ClosedRange<int>>();
    std::cout << "  visible rows decoded from JSON [10, 24]: row 12 is "
              << (visibleRows.contains(12) ? "visible" : "hidden") << "\n";
    try {
        (void)nlohmann::json::parse("[24, 10]").get<kel::ClosedRange<int>>();
    } catch (const kel::ClosedRangeDecodingError& error) {
        std::cout << "  bad range rejected: " << error.what() << "\n";
    }
    for (const char* link : {"https://example.com/help", "mailto:help@example.com"}) {
        std::cout << "  " << link
                  << (kel::isWebURL(link) ? " opens in the browser" : " is handed to another app")
                  << "\n";
    }
}

// A simulated application's debug menu and activity list: it shows when things happened as
// relative phrases, then wipes the caches its components registered.
#include "UtilitiesDemo.hpp"

#include <kel/Extensions/DebugCacheRegistry.hpp>
#include <kel/Extensions/KFCapabilities.hpp>
#include <kel/Extensions/RelativeDate.hpp>
#include <kel/Platform/Exception.hpp>
#include <kel/Platform/UserDefaults.hpp>

#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

namespace {

namespace fs = std::filesystem;

void showActivityList() {
    using namespace std::chrono_literals;
    const auto now = std::chrono::system_clock::now();
    struct Activity {
        const char* what;
        std::chrono::system_clock::duration ago;
    };
    const Activity activities[] = {{"synced inbox", 20s},         {"photo uploaded", 42min},
                                   {"settings changed", 5h},      {"friend joined", 3 * 24h},
                                   {"backup finished", 16 * 24h}, {"account created", 800 * 24h}};
    std::cout << "  activity list (medium | long):\n";
    for (const Activity& activity : activities) {
        std::cout << "    " << activity.what << ": "
                  << kel::gregorianMediumDisplayString(now - activity.ago) << " | "
                  << kel::gregorianLongDisplayString(now - activity.ago) << "\n";
    }
}

void wipeCaches() {
    std::string pattern = (fs::temp_directory_path() / "kel-demo-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        std::cout << "  (no temporary directory for the cache demo)\n";
        return;
    }
    const fs::path root = pattern;
    const fs::path thumbnails = root / "thumbnails";
    fs::create_directories(thumbnails);
    for (const char* name : {"a.png", "b.png", ".index"}) {
        std::ofstream(thumbnails / name) << "pixels";
    }
    std::ofstream(root / "feed.json") << "[]";
    auto defaults = kel::UserDefaults::atPath(root / "defaults.json");
    defaults->set("lastFeedRefresh", "2026-11-20T18:00:00Z");
    defaults->set("userName", "alice");

    auto registry = std::make_shared<kel::DebugCacheRegistry>();
    registry->registerFile(root / "feed.json");
    registry->registerFile(root / "already-gone.json");
    registry->registerContentsOfDirectory(thumbnails);
    registry->registerUserDefaultsKey("lastFeedRefresh", defaults);

    std::cout << "  debug menu: \"Clear caches\"\n";
    registry->clear();
    std::size_t left = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(thumbnails)) {
        ++left;
    }
    std::cout << "  thumbnails left: " << left << ", feed.json exists: " << std::boolalpha
              << fs::exists(root / "feed.json")
              << ", user name kept: " << defaults->value<std::string>("userName").value_or("?")
              << ", last refresh kept: " << defaults->object("lastFeedRefresh").has_value() << "\n";
    std::error_code ignored;
    fs::remove_all(root, ignored);
}

void bridgeAnException() {
    kel::DomainError error("none", 0);
    bool succeeded = kel::Exception::kf_tryCatch(
        [] { throw kel::Exception("NSInternalInconsistencyException", "cell reused twice"); },
        &error);
    std::cout << "  bridged call succeeded: " << std::boolalpha << succeeded << "; error domain "
              << error.domain() << ", code " << error.code() << ", reason \""
              << error.userInfo().at(kel::Exception::reasonKey) << "\"\n";
    std::cout << "  internal build: " << kel::KFCapabilities::isInternalBuild() << "\n";
}

}  // namespace

void runUtilitiesDemo() {
    std::cout << "\n== Platform utilities\n";
    showActivityList();
    wipeCaches();
    bridgeAnException();
}

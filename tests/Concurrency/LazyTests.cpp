#include "kel/Concurrency/EventLoadedLazy.hpp"
#include "kel/Concurrency/Lazy.hpp"

#include <gtest/gtest.h>

#include "Watchdog.hpp"

#include <atomic>
#include <chrono>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using kel::Lazy;
using kel::LazyOptions;
using kel::test::pumpUntil;

// Many readers at once, plus onLoad before and after: one load, one stored value, every reader
// and every onLoad block sees it; loadedValue never loads.
TEST(LazyTest, LoadsOnceUnderConcurrentReaders) {
    std::atomic<int> loads = 0;
    Lazy<std::string> lazy({}, [&] {
        ++loads;
        return std::string("profile");
    });
    EXPECT_EQ(lazy.loadedValue(), std::nullopt);
    std::vector<std::string> seen;
    lazy.onLoad([&](const std::string& value) { seen.push_back("before " + value); });
    EXPECT_EQ(loads, 0);

    std::vector<std::jthread> readers;
    for (int i = 0; i < 8; ++i) {
        readers.emplace_back([&] { EXPECT_EQ(lazy.value(), "profile"); });
    }
    readers.clear();
    EXPECT_EQ(loads, 1);
    lazy.onLoad([&](const std::string& value) { seen.push_back("after " + value); })
        .onLoad([&](const std::string&) { seen.push_back("chained"); });
    EXPECT_EQ(seen, (std::vector<std::string>{"before profile", "after profile", "chained"}));
    EXPECT_EQ(lazy.loadedValue(), "profile");
}

// A failing load leaves the value unloaded, releases the lock and reaches its reader; readers
// that were waiting are not left hanging: they retry, and one of them loads.
TEST(LazyTest, FailedLoadReachesItsReaderAndTheNextReadRetries) {
    constexpr int readerCount = 4;
    std::latch arrived(readerCount);
    std::atomic<int> attempts = 0;
    Lazy<int> lazy({}, [&] {
        if (attempts++ == 0) {
            arrived.wait();
            throw std::runtime_error("offline");
        }
        return 7;
    });
    int pendingCalls = 0;
    lazy.onLoad([&](int) { ++pendingCalls; });

    std::atomic<int> failures = 0, sevens = 0;
    std::vector<std::jthread> readers;
    for (int i = 0; i < readerCount; ++i) {
        readers.emplace_back([&] {
            arrived.count_down();
            try {
                sevens += lazy.value() == 7 ? 1 : 0;
            } catch (const std::runtime_error&) {
                ++failures;
            }
        });
    }
    readers.clear();
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(sevens, readerCount - 1);
    EXPECT_EQ(attempts, 2);
    EXPECT_EQ(pendingCalls, 1);
}

// keepOffMain: load on the main thread returns before the load block runs, and the completion
// comes from the shared scheduler; a value read is never redirected.
TEST(LazyTest, KeepOffMainSendsLoadToTheScheduler) {
    std::latch released(1);
    std::atomic<bool> loadedOnMain = true;
    auto lazy = std::make_shared<Lazy<int>>(LazyOptions::keepOffMain, [&] {
        released.wait();
        loadedOnMain = kel::isMainThread();
        return 3;
    });
    std::atomic<bool> completed = false, completedOnMain = true;
    lazy->load([&](int value) {
        completedOnMain = kel::isMainThread();
        completed = value == 3;
    });
    EXPECT_EQ(lazy->loadedValue(), std::nullopt);
    released.count_down();
    ASSERT_TRUE(pumpUntil([&] { return completed.load(); }));
    EXPECT_FALSE(loadedOnMain);
    EXPECT_FALSE(completedOnMain);

    Lazy<int> synchronous(LazyOptions::keepOffMain, [] { return kel::isMainThread() ? 1 : 0; });
    EXPECT_EQ(synchronous.value(), 1);
}

// keepOnMain: a background read loads on the main thread, also while the main thread reads the
// same Lazy at the same moment (whichever loads, it loads once and nobody waits forever). With
// keepOffMain as well, a background read loads on its own thread.
TEST(LazyTest, KeepOnMainLoadsOnTheMainThreadWithoutDeadlock) {
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> loads = 0, offMainLoads = 0;
        Lazy<int> lazy(LazyOptions::keepOnMain, [&] {
            ++loads;
            offMainLoads += kel::isMainThread() ? 0 : 1;
            return 5;
        });
        std::atomic<int> backgroundValue = 0;
        std::thread reader([&] { backgroundValue = lazy.value(); });
        if (round % 2 == 0) {
            EXPECT_EQ(lazy.value(), 5);
        }
        ASSERT_TRUE(pumpUntil([&] { return backgroundValue.load() == 5; }));
        reader.join();
        EXPECT_EQ(loads, 1);
        EXPECT_EQ(offMainLoads, 0);
    }

    Lazy<bool> both({LazyOptions::keepOnMain, LazyOptions::keepOffMain},
                    [] { return kel::isMainThread(); });
    bool loadedOnMain = true;
    std::thread([&] { loadedOnMain = both.value(); }).join();
    EXPECT_FALSE(loadedOnMain);
}

TEST(LazyDeathTest, LoadBlockReadingItsOwnLazyStops) {
    EXPECT_DEATH(
        {
            Lazy<int>* self = nullptr;
            Lazy<int> lazy({}, [&] { return self->value() + 1; });
            self = &lazy;
            lazy.value();
        },
        "Lazy read from its own load block");
}

enum class AppEvent { launched, active };
using AppLazy = kel::EventLoadedLazy<int, AppEvent>;

// The lazy loads when its event fires, or at once when it already has (the trigger is eager),
// and only once; a failing event-driven load stays inside the trigger; a lazy that is gone
// makes its event do nothing.
TEST(EventLoadedLazyTest, LoadsWhenItsEventFires) {
    kel::EventManager<AppEvent> events;
    int loads = 0;
    auto settings = AppLazy::make(events, AppEvent::active, {}, [&] {
        ++loads;
        return 42;
    });
    events.fire(AppEvent::launched);
    EXPECT_EQ(settings->loadedValue(), std::nullopt);
    events.fire(AppEvent::active);
    events.fire(AppEvent::active);
    EXPECT_EQ(settings->loadedValue(), 42);
    EXPECT_EQ(loads, 1);

    auto eager =
        AppLazy::make(events, {AppEvent::launched, AppEvent::active}, {}, [] { return 1; });
    EXPECT_EQ(eager->loadedValue(), 1);

    int failingAttempts = 0;
    kel::EventManager<AppEvent> fresh;
    auto failing = AppLazy::make(fresh, AppEvent::active, {}, [&]() -> int {
        if (failingAttempts++ == 0) {
            throw std::runtime_error("not yet");
        }
        return 2;
    });
    EXPECT_NO_THROW(fresh.fire(AppEvent::active));
    EXPECT_EQ(failing->loadedValue(), std::nullopt);
    EXPECT_EQ(failing->value(), 2);

    int goneLoads = 0;
    AppLazy::make(fresh, AppEvent::launched, {}, [&] { return ++goneLoads; }).reset();
    fresh.fire(AppEvent::launched);
    EXPECT_EQ(goneLoads, 0);
}

}  // namespace

#include "kel/Collections/Cache.hpp"

#include <gtest/gtest.h>

#include "Watchdog.hpp"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Map = std::unordered_map<std::string, int>;
using TimePoint = std::chrono::system_clock::time_point;

TEST(CacheAge, FreshUpToAndIncludingMaxAgeNeverWithNegativeAlwaysFromTheFuture) {
    // A wall clock that moves only when the test moves *time.
    auto time = std::make_shared<TimePoint>(std::chrono::system_clock::now());
    auto cache = kel::Cache<std::string, int>::make(Map{{"a", 1}}, [time] { return *time; });
    EXPECT_EQ(cache->get("a", 0s), 1);  // age 0 <= maxAge 0
    EXPECT_EQ(cache->get("a", -1ns), std::nullopt);
    EXPECT_TRUE(cache->get({"a"}, -1ns).empty());

    *time += 2s;
    EXPECT_EQ(cache->get("a", 2s), 1);
    EXPECT_EQ(cache->get("a", 1999ms), std::nullopt);
    EXPECT_EQ(cache->get("a"), 1);  // old entries stay for reads without a maximum age

    // Writes restamp their entries; write gives back what it wrote, read what is fresh.
    cache->set("b", 2);
    EXPECT_EQ(cache->write({{"c", 3}}).resolution()->value(), (Map{{"c", 3}}));
    EXPECT_EQ(cache->read({"a", "b", "c", "missing"}, 0s).resolution()->value(),
              (Map{{"b", 2}, {"c", 3}}));
    // The read without a maximum age lists every found key, however old.
    EXPECT_EQ(cache->get({"a", "b", "missing"}), (Map{{"a", 1}, {"b", 2}}));
    EXPECT_EQ(cache->get({"a", "b", "missing"}, 1s), (Map{{"b", 2}}));
    EXPECT_TRUE(cache->get(std::vector<std::string>{}).empty());

    *time -= 1h;  // the clock was set back: the entries' ages are negative
    EXPECT_EQ(cache->get("a", 0s), 1);
    EXPECT_EQ(cache->get({"a"}, 0s), (Map{{"a", 1}}));
}

TEST(CacheWrites, RemoveAndMergeReplaceEntriesAndReadsListEachFoundKeyOnce) {
    auto cache = kel::Cache<std::string, int>::make(Map{{"a", 1}, {"b", 2}});
    cache->remove("missing");
    cache->remove("a");
    *cache += std::map<std::string, int>{{"b", 20}, {"c", 30}};
    *cache += *kel::Cache<std::string, int>::make(Map{{"c", 300}, {"d", 400}});
    *cache += *cache;  // merging a cache into itself only restamps it

    const std::vector<std::string> keys{"d", "a", "b", "c", "b", "missing", "b"};
    const Map expected{{"b", 20}, {"c", 300}, {"d", 400}};
    EXPECT_EQ(cache->get(keys, 1h), expected);
    EXPECT_EQ(cache->get(keys), expected);
}

// A key and value type that records whether it is ever copied or destroyed while the cache's
// lock is held: it asks another thread to take the lock (through size()) and sees whether
// that thread gets through.
struct LockProbe {
    static inline std::function<void()> takeLock;  // set while a test probes a cache
    static inline std::atomic<int> copiesUnderLock{0};

    std::string text;

    explicit LockProbe(std::string t) : text(std::move(t)) {}
    LockProbe(const LockProbe& other) : text(other.text) { check(); }
    LockProbe& operator=(const LockProbe& other) {
        text = other.text;
        check();
        return *this;
    }
    ~LockProbe() { check(); }
    friend bool operator==(const LockProbe& a, const LockProbe& b) { return a.text == b.text; }

    static void check() {
        if (!takeLock) {
            return;
        }
        auto done = std::make_shared<std::promise<void>>();
        std::future<void> through = done->get_future();
        std::thread([done, takeLock = takeLock] {
            takeLock();
            done->set_value();
        }).detach();
        if (through.wait_for(kel::test::kWatchdogTimeout) != std::future_status::ready) {
            ++copiesUnderLock;
        }
    }
};

using LockProbeHash = decltype([](const LockProbe& probe) {
    return std::hash<std::string>()(probe.text);
});

TEST(CacheConcurrency, NoKeyOrValueIsCopiedOrDestroyedUnderTheLock) {
    using ProbeCache = kel::Cache<LockProbe, LockProbe, LockProbeHash>;
    auto cache = ProbeCache::make();
    auto other = ProbeCache::make();
    LockProbe::takeLock = [cache] { (void)cache->size(); };
    cache->set(LockProbe("a"), LockProbe("1"));
    cache->set(LockProbe("a"), LockProbe("2"));  // replaced: the old value dies
    (void)cache->get(LockProbe("a"));
    (void)cache->get(LockProbe("a"), 1h);
    (void)cache->get({LockProbe("a"), LockProbe("b")});
    (void)cache->get({LockProbe("a")}, 1h);
    *other += *cache;  // copies out of `cache` under its lock
    *cache += *other;
    *cache += std::vector<std::pair<LockProbe, LockProbe>>{{LockProbe("b"), LockProbe("3")}};
    cache->remove(LockProbe("a"));
    LockProbe::takeLock = nullptr;
    EXPECT_EQ(LockProbe::copiesUnderLock, 0);
    EXPECT_EQ(cache->get(LockProbe("b")), LockProbe("3"));
}

// Readers and writers on real threads: every value read must be one that some writer stored
// for that key, never a torn or foreign one. The values are too long to be stored inline.
TEST(CacheConcurrency, ReadersOnlySeeValuesWrittenForTheirKey) {
    constexpr int keyCount = 16;
    const auto valueFor = [](int key, int round) {
        return std::to_string(key) + std::string(40 + round % 8, '.');
    };
    auto cache = kel::Cache<int, std::string>::make();
    std::atomic<int> wrongValues{0};
    std::vector<std::thread> threads;
    for (int writer = 0; writer < 2; ++writer) {
        threads.emplace_back([&, writer] {
            for (int round = 0; round < 2000; ++round) {
                const int key = (round + writer) % keyCount;
                const int next = (key + 1) % keyCount;
                if (round % 10 == 9) {
                    cache->remove(key);
                } else if (round % 10 == 5) {
                    *cache += std::map<int, std::string>{{key, valueFor(key, round)},
                                                         {next, valueFor(next, round)}};
                } else {
                    cache->set(key, valueFor(key, round));
                }
            }
        });
        threads.emplace_back([&, writer] {
            for (int round = 0; round < 2000; ++round) {
                const int key = (round * 7 + writer) % keyCount;
                if (auto value = cache->get(key, 1h); value && std::stoi(*value) != key) {
                    ++wrongValues;
                }
                for (const auto& [found, value] : cache->get({0, 3, 5, 3, 15})) {
                    wrongValues += std::stoi(value) != found ? 1 : 0;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrongValues, 0);
}

}  // namespace

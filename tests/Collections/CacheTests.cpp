#include "kel/Collections/Cache.hpp"
#include "kel/Platform/DispatchQueue.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using TimePoint = std::chrono::system_clock::time_point;

// A wall clock that moves only when the test says so.
class ManualClock {
  public:
    kel::Cache<std::string, int>::Clock callable() {
        return [now = now_] { return TimePoint(std::chrono::nanoseconds(now->load())); };
    }
    void set(std::chrono::nanoseconds since) { now_->store(since.count()); }
    void advance(std::chrono::nanoseconds by) { now_->fetch_add(by.count()); }

  private:
    std::shared_ptr<std::atomic<long long>> now_ =
        std::make_shared<std::atomic<long long>>(std::chrono::nanoseconds(1'000'000s).count());
};

TEST(CacheAge, EntryIsFreshUpToAndIncludingMaxAge) {
    ManualClock clock;
    auto cache = kel::Cache<std::string, int>::make(clock.callable());
    cache->set("a", 1);

    EXPECT_EQ(cache->get("a", 0s), 1);  // age 0 <= maxAge 0
    clock.advance(2s);
    EXPECT_EQ(cache->get("a", 2s), 1);
    EXPECT_EQ(cache->get("a", 2500ms), 1);
    EXPECT_EQ(cache->get("a", 1999ms), std::nullopt);
    EXPECT_EQ(cache->get("a", -1s), std::nullopt);
    EXPECT_EQ(cache->get("missing", 10s), std::nullopt);
}

TEST(CacheAge, NegativeMaxAgeFindsNothingEvenForANewEntry) {
    ManualClock clock;
    auto cache = kel::Cache<std::string, int>::make(clock.callable());
    cache->set("a", 1);
    EXPECT_EQ(cache->get("a", -1ns), std::nullopt);
    EXPECT_TRUE(cache->get(std::vector<std::string>{"a"}, -1ns).empty());
}

TEST(CacheAge, EntryStampedInTheFutureCountsAsFresh) {
    ManualClock clock;
    auto cache = kel::Cache<std::string, int>::make(clock.callable());
    cache->set("a", 1);
    clock.advance(-1h);  // the clock was set back after the entry was made
    EXPECT_EQ(cache->get("a", 0s), 1);
    EXPECT_EQ(cache->get({"a"}, 0s).size(), 1u);
}

TEST(CacheAge, OldEntriesStayAndAreReturnedByReadsWithoutAge) {
    ManualClock clock;
    auto cache = kel::Cache<std::string, int>::make(clock.callable());
    cache->set("a", 1);
    clock.advance(24h * 365);
    EXPECT_EQ(cache->get("a", 1s), std::nullopt);
    EXPECT_EQ(cache->get("a"), 1);
    EXPECT_EQ(cache->get({"a"}), (std::unordered_map<std::string, int>{{"a", 1}}));
    EXPECT_EQ(cache->size(), 1u);
}

TEST(CacheAge, ReplacingAValueRestampsIt) {
    ManualClock clock;
    auto cache = kel::Cache<std::string, int>::make(clock.callable());
    cache->set("a", 1);
    clock.advance(10s);
    cache->set("a", 2);
    EXPECT_EQ(cache->get("a", 0s), 2);

    clock.advance(10s);
    *cache += std::map<std::string, int>{{"a", 3}};
    EXPECT_EQ(cache->get("a", 0s), 3);
}

TEST(CacheAge, WithTheSystemClockAFreshEntryIsFoundWithAGenerousMaxAge) {
    auto cache = kel::Cache<std::string, std::string>::make();
    cache->set("a", "value");
    EXPECT_EQ(cache->get("a", 1h), "value");
    EXPECT_EQ(cache->get("a", -1s), std::nullopt);
}

TEST(CacheMultiKeyRead, SkipsMissingKeysAndListsRepeatedKeysOnce) {
    auto cache = kel::Cache<std::string, int>::make();
    cache->set("a", 1);
    cache->set("b", 2);
    cache->set("c", 3);

    const std::vector<std::string> keys{"b", "missing", "a", "b", "b"};
    EXPECT_EQ(cache->get(keys), (std::unordered_map<std::string, int>{{"a", 1}, {"b", 2}}));
    EXPECT_EQ(cache->get(keys, 1h), (std::unordered_map<std::string, int>{{"a", 1}, {"b", 2}}));
    EXPECT_TRUE(cache->get(std::vector<std::string>{}).empty());
    EXPECT_TRUE(cache->get({"x", "y"}).empty());
}

TEST(CacheMultiKeyRead, MaxAgeFiltersEachEntryByItsOwnAge) {
    ManualClock clock;
    auto cache = kel::Cache<std::string, int>::make(clock.callable());
    cache->set("old", 1);
    clock.advance(5s);
    cache->set("mid", 2);
    clock.advance(5s);
    cache->set("new", 3);

    EXPECT_EQ(cache->get({"old", "mid", "new"}, 5s),
              (std::unordered_map<std::string, int>{{"mid", 2}, {"new", 3}}));
    EXPECT_EQ(cache->get({"old", "mid", "new"}, 0s),
              (std::unordered_map<std::string, int>{{"new", 3}}));
}

TEST(CacheMultiKeyRead, AcceptsKeysFromAnyForwardRange) {
    auto cache = kel::Cache<int, std::string>::make();
    for (int key = 0; key < 10; ++key) {
        cache->set(key, std::to_string(key));
    }
    auto evens = std::views::iota(0, 20) | std::views::filter([](int key) { return key % 2 == 0; });
    const auto found = cache->get(evens);
    EXPECT_EQ(found.size(), 5u);
    EXPECT_EQ(found.at(8), "8");
}

TEST(CacheWrites, RemoveDropsTheEntryAndIgnoresMissingKeys) {
    auto cache = kel::Cache<std::string, int>::make();
    cache->set("a", 1);
    cache->remove("missing");
    EXPECT_EQ(cache->size(), 1u);
    EXPECT_EQ(cache->get("a"), 1);

    cache->remove("a");
    EXPECT_EQ(cache->get("a"), std::nullopt);
    EXPECT_EQ(cache->size(), 0u);
}

TEST(CacheWrites, MergingStoresEveryPairAndReplacesExistingOnes) {
    auto cache = kel::Cache<std::string, int>::make(std::map<std::string, int>{{"a", 1}, {"b", 2}});
    *cache += std::unordered_map<std::string, int>{{"b", 20}, {"c", 30}};
    EXPECT_EQ(cache->get({"a", "b", "c"}),
              (std::unordered_map<std::string, int>{{"a", 1}, {"b", 20}, {"c", 30}}));

    *cache += std::map<std::string, int>{};
    EXPECT_EQ(cache->size(), 3u);
}

TEST(CacheWrites, MergingAnotherCacheCopiesItsEntriesStampedNow) {
    ManualClock clock;
    auto source =
        kel::Cache<std::string, std::string>::make(std::map<std::string, std::string>{{"a", "1"}});
    auto target = kel::Cache<std::string, std::string>::make(
        std::map<std::string, std::string>{{"a", "old"}, {"b", "2"}});

    *target += *source;
    EXPECT_EQ(target->get("a"), "1");
    EXPECT_EQ(target->get("b"), "2");
    EXPECT_EQ(source->size(), 1u);

    *target += *target;  // merging a cache into itself only restamps it
    EXPECT_EQ(target->size(), 2u);
    EXPECT_EQ(target->get("a"), "1");
}

TEST(CacheWrites, ConstructionStampsEveryPairWithTheCurrentTime) {
    ManualClock clock;
    auto cache = kel::Cache<std::string, int>::make(
        std::vector<std::pair<std::string, int>>{{"a", 1}, {"b", 2}}, clock.callable());
    clock.advance(1s);
    EXPECT_EQ(cache->get({"a", "b"}, 1s).size(), 2u);
    EXPECT_TRUE(cache->get({"a", "b"}, 999ms).empty());
}

// The value of an already fulfilled promise, read synchronously.
template <class T>
std::optional<T> valueOf(const kel::Promise<T>& promise) {
    std::optional<T> value;
    promise.then(kel::zalgo(), [&](const T& fulfilled) { value = fulfilled; });
    return value;
}

TEST(CachePromises, ReadIsFulfilledWithTheFreshEntries) {
    ManualClock clock;
    auto cache = kel::Cache<std::string, int>::make(clock.callable());
    cache->set("old", 1);
    clock.advance(10s);
    cache->set("new", 2);

    EXPECT_EQ(valueOf(cache->read({"old", "new", "missing"}, 5s)),
              (std::unordered_map<std::string, int>{{"new", 2}}));
    EXPECT_EQ(valueOf(cache->read(std::vector<std::string>{}, 5s)),
              (std::unordered_map<std::string, int>{}));
}

TEST(CachePromises, WriteStoresAndIsFulfilledWithTheValuesWritten) {
    auto cache = kel::Cache<std::string, int>::make(std::map<std::string, int>{{"a", 1}});
    const auto written = cache->write({{"b", 2}});
    EXPECT_EQ(valueOf(written), (std::unordered_map<std::string, int>{{"b", 2}}));
    EXPECT_EQ(cache->get({"a", "b"}), (std::unordered_map<std::string, int>{{"a", 1}, {"b", 2}}));

    EXPECT_EQ(valueOf(cache->write({})), (std::unordered_map<std::string, int>{}));
    EXPECT_EQ(cache->size(), 2u);
}

TEST(CachePromises, APromiseOutlivesTheCachesLastOwner) {
    kel::Promise<std::unordered_map<std::string, int>> promise = [] {
        auto cache = kel::Cache<std::string, int>::make();
        cache->set("a", 1);
        return cache->read({"a"}, 1h);
    }();
    EXPECT_EQ(valueOf(promise), (std::unordered_map<std::string, int>{{"a", 1}}));
}

// Counts live instances, to see when the cache lets go of replaced and removed values.
struct Tracked {
    static inline std::atomic<int> alive{0};
    int value;
    explicit Tracked(int v) : value(v) { ++alive; }
    Tracked(const Tracked& other) : value(other.value) { ++alive; }
    ~Tracked() { --alive; }
};

TEST(CacheWrites, ReplacedAndRemovedValuesAreReleased) {
    {
        auto cache = kel::Cache<int, Tracked>::make();
        cache->set(1, Tracked(1));
        cache->set(2, Tracked(2));
        EXPECT_EQ(Tracked::alive, 2);
        cache->set(1, Tracked(10));
        EXPECT_EQ(Tracked::alive, 2);
        cache->remove(2);
        EXPECT_EQ(Tracked::alive, 1);
        EXPECT_EQ(cache->get(1)->value, 10);
    }
    EXPECT_EQ(Tracked::alive, 0);
}

// A value whose copy constructor and destructor read the cache that holds it. If the cache
// copied or destroyed a value while holding its lock, the non-recursive lock would deadlock.
void touchReentrantCache();

struct Reentrant {
    int value;
    explicit Reentrant(int v) : value(v) {}
    Reentrant(const Reentrant& other) : value(other.value) { touchReentrantCache(); }
    ~Reentrant() { touchReentrantCache(); }
};

kel::Cache<int, Reentrant>* reentrantCache = nullptr;

void touchReentrantCache() {
    if (reentrantCache != nullptr) {
        (void)reentrantCache->size();
    }
}

TEST(CacheConcurrency, NoValueIsCopiedOrDestroyedWhileTheLockIsHeld) {
    auto cache = kel::Cache<int, Reentrant>::make();
    reentrantCache = cache.get();
    std::promise<void> finished;
    std::thread worker([&] {
        cache->set(1, Reentrant(1));
        cache->set(1, Reentrant(2));  // replaces: the old value dies after the lock is released
        (void)cache->get(1);
        (void)cache->get(1, 1h);
        (void)cache->get({1, 2, 1}, 1h);
        *cache += std::map<int, Reentrant>{{2, Reentrant(3)}};
        *cache += *cache;
        cache->remove(2);
        finished.set_value();
    });
    // A deadlock shows as a time-out here instead of a hung test run.
    const bool done = finished.get_future().wait_for(60s) == std::future_status::ready;
    if (done) {
        worker.join();
    } else {
        worker.detach();
    }
    ASSERT_TRUE(done) << "a cache operation deadlocked on its own lock";
    EXPECT_EQ(cache->get(1)->value, 2);
    reentrantCache = nullptr;
}

// Readers and writers on real threads: every value read must be one some writer stored for
// that key (value = key * 1000000 + version), never a torn or foreign one.
template <class Value>
Value encode(int key, int version) {
    if constexpr (std::is_same_v<Value, std::string>) {
        return std::to_string(key) + ":" + std::to_string(version) + std::string(40, '.');
    } else {
        return key * 1'000'000 + version;
    }
}

template <class Value>
bool belongsTo(const Value& value, int key) {
    if constexpr (std::is_same_v<Value, std::string>) {
        return value.starts_with(std::to_string(key) + ":");
    } else {
        return value / 1'000'000 == key;
    }
}

template <class Value>
class CacheConcurrencyTyped : public ::testing::Test {};
using CacheValueTypes = ::testing::Types<int, std::string>;
TYPED_TEST_SUITE(CacheConcurrencyTyped, CacheValueTypes);

TYPED_TEST(CacheConcurrencyTyped, ReadersOnlySeeValuesWrittenForTheirKey) {
    using Value = TypeParam;
    constexpr int keyCount = 16;
    constexpr int rounds = 2000;
    auto cache = kel::Cache<int, Value>::make();
    std::atomic<int> wrongValues{0};

    std::vector<std::thread> threads;
    for (int writer = 0; writer < 2; ++writer) {
        threads.emplace_back([&, writer] {
            for (int round = 0; round < rounds; ++round) {
                const int key = (round + writer) % keyCount;
                if (round % 10 == 9) {
                    cache->remove(key);
                } else if (round % 10 == 5) {
                    *cache += std::map<int, Value>{
                        {key, encode<Value>(key, round)},
                        {(key + 1) % keyCount, encode<Value>((key + 1) % keyCount, round)}};
                } else {
                    cache->set(key, encode<Value>(key, round));
                }
            }
        });
    }
    for (int reader = 0; reader < 2; ++reader) {
        threads.emplace_back([&, reader] {
            std::vector<int> keys{0, 3, 5, 3, 15};
            for (int round = 0; round < rounds; ++round) {
                const int key = (round * 7 + reader) % keyCount;
                if (auto value = cache->get(key, 1h); value && !belongsTo(*value, key)) {
                    ++wrongValues;
                }
                for (const auto& [found, value] : cache->get(keys)) {
                    if (!belongsTo(value, found)) {
                        ++wrongValues;
                    }
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrongValues, 0);
    EXPECT_LE(cache->size(), static_cast<std::size_t>(keyCount));
}

}  // namespace

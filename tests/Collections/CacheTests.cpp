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
    void advance(std::chrono::nanoseconds by) { now_->fetch_add(by.count()); }

  private:
    std::shared_ptr<std::atomic<long long>> now_ =
        std::make_shared<std::atomic<long long>>(std::chrono::nanoseconds(1'000'000s).count());
};

using Map = std::unordered_map<std::string, int>;

TEST(CacheAge, FreshUpToAndIncludingMaxAgeNeverWithNegativeAlwaysFromTheFuture) {
    ManualClock clock;
    auto cache = kel::Cache<std::string, int>::make(clock.callable());
    cache->set("a", 1);
    EXPECT_EQ(cache->get("a", 0s), 1);  // age 0 <= maxAge 0
    EXPECT_EQ(cache->get("a", -1ns), std::nullopt);
    EXPECT_TRUE(cache->get({"a"}, -1ns).empty());

    clock.advance(2s);
    EXPECT_EQ(cache->get("a", 2s), 1);
    EXPECT_EQ(cache->get("a", 1999ms), std::nullopt);
    EXPECT_EQ(cache->get("missing", 10s), std::nullopt);

    clock.advance(-1h);  // the clock was set back: the entry's age is negative
    EXPECT_EQ(cache->get("a", 0s), 1);
    EXPECT_EQ(cache->get({"a"}, 0s), (Map{{"a", 1}}));

    auto systemClocked = kel::Cache<std::string, std::string>::make();
    systemClocked->set("a", "value");
    EXPECT_EQ(systemClocked->get("a", 1h), "value");
}

TEST(CacheAge, EntriesStayUntilRemovedAndWritesRestampThem) {
    ManualClock clock;
    auto cache = kel::Cache<std::string, int>::make(Map{{"a", 1}, {"b", 2}}, clock.callable());
    clock.advance(24h * 365);
    EXPECT_EQ(cache->get("a", 1s), std::nullopt);
    EXPECT_EQ(cache->get({"a", "b"}), (Map{{"a", 1}, {"b", 2}}));

    cache->set("a", 10);
    clock.advance(5s);
    *cache += std::map<std::string, int>{{"c", 30}};
    EXPECT_EQ(cache->get({"a", "b", "c"}, 5s), (Map{{"a", 10}, {"c", 30}}));
    EXPECT_EQ(cache->get({"a", "b", "c"}, 0s), (Map{{"c", 30}}));
}

TEST(CacheMultiKeyRead, SkipsMissingKeysListsRepeatedKeysOnceAndTakesAnyForwardRange) {
    auto cache = kel::Cache<std::string, int>::make(Map{{"a", 1}, {"b", 2}, {"c", 3}});
    const std::vector<std::string> keys{"b", "missing", "a", "b", "b"};
    EXPECT_EQ(cache->get(keys), (Map{{"a", 1}, {"b", 2}}));
    EXPECT_EQ(cache->get(keys, 1h), (Map{{"a", 1}, {"b", 2}}));
    EXPECT_TRUE(cache->get(std::vector<std::string>{}).empty());

    auto numbers = kel::Cache<int, int>::make();
    for (int key = 0; key < 10; ++key) {
        numbers->set(key, key * key);
    }
    auto evens = std::views::iota(0, 20) | std::views::filter([](int key) { return key % 2 == 0; });
    EXPECT_EQ(numbers->get(evens).size(), 5u);
}

TEST(CacheWrites, RemoveAndMergeReplaceEntries) {
    auto cache = kel::Cache<std::string, int>::make(Map{{"a", 1}, {"b", 2}});
    cache->remove("missing");
    cache->remove("a");
    EXPECT_EQ(cache->get({"a", "b"}), (Map{{"b", 2}}));

    *cache += Map{{"b", 20}, {"c", 30}};
    auto other = kel::Cache<std::string, int>::make(Map{{"c", 300}, {"d", 400}});
    *cache += *other;
    *cache += *cache;  // merging a cache into itself only restamps it
    EXPECT_EQ(cache->get({"a", "b", "c", "d"}), (Map{{"b", 20}, {"c", 300}, {"d", 400}}));
    EXPECT_EQ(other->size(), 2u);
}

// The value of an already fulfilled promise, read synchronously.
template <class T>
std::optional<T> valueOf(const kel::Promise<T>& promise) {
    std::optional<T> value;
    promise.then(kel::zalgo(), [&](const T& fulfilled) { value = fulfilled; });
    return value;
}

TEST(CachePromises, ReadGivesFreshEntriesAndWriteGivesBackWhatItWrote) {
    ManualClock clock;
    auto cache = kel::Cache<std::string, int>::make(Map{{"old", 1}}, clock.callable());
    clock.advance(10s);
    EXPECT_EQ(valueOf(cache->write({{"new", 2}})), (Map{{"new", 2}}));
    EXPECT_EQ(valueOf(cache->read({"old", "new", "missing"}, 5s)), (Map{{"new", 2}}));
    EXPECT_EQ(valueOf(cache->write({})), Map{});
    EXPECT_EQ(cache->size(), 2u);
}

TEST(CachePromises, APromiseOutlivesTheCachesLastOwner) {
    auto promise = [] {
        auto cache = kel::Cache<std::string, int>::make(Map{{"a", 1}});
        return cache->read({"a"}, 1h);
    }();
    EXPECT_EQ(valueOf(promise), (Map{{"a", 1}}));
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

// Readers and writers on real threads: every value read must be one that some writer stored
// for that key, never a torn or foreign one. int values are stored inline, strings shared.
template <class Value>
class CacheConcurrency : public ::testing::Test {
  protected:
    static Value encode(int key, int version) {
        const int code = key * 1'000'000 + version;
        if constexpr (std::is_same_v<Value, std::string>) {
            return std::to_string(code) + std::string(40, '.');  // too long for inline storage
        } else {
            return code;
        }
    }
    static int keyOf(const Value& value) {
        if constexpr (std::is_same_v<Value, std::string>) {
            return std::stoi(value) / 1'000'000;
        } else {
            return value / 1'000'000;
        }
    }
};
using CacheValueTypes = ::testing::Types<int, std::string>;
TYPED_TEST_SUITE(CacheConcurrency, CacheValueTypes);

TYPED_TEST(CacheConcurrency, ReadersOnlySeeValuesWrittenForTheirKey) {
    constexpr int keyCount = 16;
    auto cache = kel::Cache<int, TypeParam>::make();
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
                    *cache += std::map<int, TypeParam>{{key, this->encode(key, round)},
                                                       {next, this->encode(next, round)}};
                } else {
                    cache->set(key, this->encode(key, round));
                }
            }
        });
        threads.emplace_back([&, writer] {
            for (int round = 0; round < 2000; ++round) {
                const int key = (round * 7 + writer) % keyCount;
                if (auto value = cache->get(key, 1h); value && this->keyOf(*value) != key) {
                    ++wrongValues;
                }
                for (const auto& [found, value] : cache->get({0, 3, 5, 3, 15})) {
                    wrongValues += this->keyOf(value) != found ? 1 : 0;
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

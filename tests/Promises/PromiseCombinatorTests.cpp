#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "PromiseTestSupport.hpp"
#include "kel/Promises/DeferredPromise.hpp"

namespace kel {
namespace {

using namespace test;

TEST(PromiseAll, CollectionOrderDecidesTheValuesAndWhichFailureWins) {
    EXPECT_TRUE(Promise<int>::all(std::vector<Promise<int>>{}).resolution()->value().empty());

    DeferredPromise<int> a, b, c;
    auto all = Promise<int>::all({a.promise, b.promise, c.promise});
    c.resolve(3);
    b.resolve(2);
    EXPECT_FALSE(all.resolution().has_value());
    a.resolve(1);
    EXPECT_EQ(all.resolution()->value(), (std::vector<int>{1, 2, 3}));

    // The first failure in collection order wins, and a cancelled element cancels.
    DeferredPromise<int> p1, p2;
    auto failed = Promise<int>::all({p1.promise, p2.promise});
    p2.reject(makeTestError("e2"));
    EXPECT_FALSE(failed.resolution().has_value());  // p2 is not looked at before p1 has fulfilled
    Error e1 = makeTestError("e1");
    p1.reject(e1);
    EXPECT_TRUE(failed.resolution()->error() == e1);

    auto cancelled = Promise<void>::all({Promise<void>::fulfilled(), cancelledPromise<void>()});
    EXPECT_TRUE(cancelled.resolution()->isCancelled());
}

TEST(PromiseAll, SamePendingPromiseListedTwice) {
    // A deduper hands one in-flight promise to every caller, so a list may hold it twice.
    DeferredPromise<int> shared, other;
    auto all = Promise<int>::all({shared.promise, other.promise, shared.promise});
    other.resolve(2);
    // Settled from another thread: a deadlock there fails the wait below instead of hanging.
    std::thread settler([&] { shared.resolve(1); });
    EXPECT_EQ(await(all).value(), (std::vector<int>{1, 2, 1}));
    settler.join();
}

TEST(PromiseAll, ManySettledElementsDoNotDeepenTheStack) {
    std::vector<Promise<int>> promises;
    for (int i = 0; i < 200000; ++i) {
        promises.push_back(Promise<int>::fulfilled(i));
    }
    DeferredPromise<int> head;
    promises.insert(promises.begin(), head.promise);
    auto all = Promise<int>::all(promises);
    head.resolve(-1);  // the rest is walked from inside head's settlement
    ASSERT_TRUE(all.isFulfilled());
    EXPECT_EQ(all.value().size(), 200001u);
    EXPECT_EQ(all.value().back(), 199999);
}

TEST(PromiseRace, CancellationsAreIgnoredAndTheFirstOutcomeDecides) {
    EXPECT_FALSE(Promise<int>::race(std::vector<Promise<int>>{}).resolution().has_value());

    Pending<int> cancelled;
    DeferredPromise<int> slow, fast;
    auto race = Promise<int>::race({cancelled.promise, slow.promise, fast.promise});
    (*cancelled.cancel)();
    EXPECT_FALSE(race.resolution().has_value());
    // The result's handler runs inside fast's settlement and may settle a losing input.
    race.error(zalgo(), [&](const Error&) { slow.resolve(1); });
    Error error = makeTestError("fast");
    fast.reject(error);
    EXPECT_TRUE(race.resolution()->error() == error);
    EXPECT_EQ(slow.promise.resolution()->value(), 1);
}

TEST(PromiseRace, DecidesOnceUnderConcurrentSettles) {
    constexpr int kInputs = 4;
    for (int iteration = 0; iteration < 100; ++iteration) {
        std::vector<DeferredPromise<int>> inputs(kInputs);
        auto race = Promise<int>::race(promisesOf(inputs));
        std::atomic<int> outcomes{0};
        race.always(zalgo(), [&] { ++outcomes; });
        std::latch start(kInputs);
        std::vector<std::jthread> threads;
        for (int i = 0; i < kInputs; ++i) {
            threads.emplace_back([&, i] {
                start.arrive_and_wait();
                i % 2 == 0 ? inputs[i].resolve(i) : inputs[i].reject(makeTestError("lost"));
            });
        }
        threads.clear();
        ASSERT_EQ(outcomes.load(), 1);
        ASSERT_TRUE(race.isRejected() || race.value() % 2 == 0);
    }
}

TEST(PromiseSequences, MapFlatMapAndReduce) {
    auto numbers = Promise<std::vector<int>>::fulfilled({3, 1, 4, 1, 5, 9, 2, 6});
    DispatchQueue queue("test.sequences");
    auto doubled = numbers.map(queue, [](int v) { return v * 2; });
    EXPECT_EQ(await(doubled).value(), (std::vector<int>{6, 2, 8, 2, 10, 18, 4, 12}));

    auto evens = numbers.flatMap(zalgo(), [](int v) {
        return v % 2 == 0 ? std::optional<std::string>(std::to_string(v)) : std::nullopt;
    });
    EXPECT_EQ(evens.resolution()->value(), (std::vector<std::string>{"4", "2", "6"}));
    EXPECT_EQ(numbers.reduce(zalgo(), 0, [](int acc, int v) { return acc + v; }).value(), 31);

    auto counts = numbers.reduceInto(zalgo(), std::map<int, int>{},
                                     [](std::map<int, int>& acc, int v) { ++acc[v % 3]; });
    EXPECT_EQ(counts.value(), (std::map<int, int>{{0, 3}, {1, 3}, {2, 2}}));
    // unique keeps the first element of each key.
    EXPECT_EQ(numbers.unique(zalgo(), [](int v) { return v % 2; }).value(),
              (std::vector<int>{3, 4}));
    auto failing = numbers.reduceInto(zalgo(), 0, [](int&, int v) {
        if (v == 9) {
            throw PromiseError::cancelled;
        }
    });
    EXPECT_TRUE(failing.isCancelled());
    // The accumulator is moved, never copied: it may be move-only.
    auto total = numbers.reduceInto(zalgo(), std::make_unique<int>(0),
                                    [](std::unique_ptr<int>& acc, int v) { *acc += v; });
    EXPECT_EQ(*total.value(), 31);
}

}  // namespace
}  // namespace kel

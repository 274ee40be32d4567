#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "PromiseTestSupport.hpp"
#include "kel/Promises/DeferredPromise.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel {
namespace {

using testing::await;
using testing::makeTestError;

TEST(PromiseAll, EmptyCollectionIsAlreadyFulfilled) {
    auto all = Promise<int>::all(std::vector<Promise<int>>{});
    ASSERT_TRUE(all.resolution().has_value());
    EXPECT_TRUE(all.resolution()->value().empty());
}

TEST(PromiseAll, ValuesKeepCollectionOrderWhateverTheSettleOrder) {
    DeferredPromise<int> a, b, c;
    auto all = Promise<int>::all({a.promise, b.promise, c.promise});
    c.resolve(3);
    b.resolve(2);
    EXPECT_FALSE(all.resolution().has_value());
    a.resolve(1);
    EXPECT_EQ(all.resolution()->value(), (std::vector<int>{1, 2, 3}));
}

TEST(PromiseAll, FirstFailureInCollectionOrderWins) {
    DeferredPromise<int> p1, p2;
    auto all = Promise<int>::all({p1.promise, p2.promise});
    Error e1 = makeTestError("e1");
    Error e2 = makeTestError("e2");
    p2.reject(e2);
    EXPECT_FALSE(all.resolution().has_value());  // p2 is not looked at before p1 has fulfilled
    p1.reject(e1);
    EXPECT_TRUE(all.resolution()->error() == e1);
}

TEST(PromiseAll, CancelledElementCancelsTheResult) {
    auto all = Promise<void>::all(
        {Promise<void>::fulfilled(), Promise<void>([](auto, auto, auto cancel) { cancel(); })});
    EXPECT_TRUE(all.resolution()->isCancelled());
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

    DeferredPromise<int> twice;
    auto adjacent = Promise<int>::all({twice.promise, twice.promise});
    std::thread again([&] { twice.resolve(3); });
    EXPECT_EQ(await(adjacent).value(), (std::vector<int>{3, 3}));
    again.join();
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
    ASSERT_TRUE(all.resolution().has_value());
    EXPECT_EQ(all.resolution()->value().size(), 200001u);
    EXPECT_EQ(all.resolution()->value().back(), 199999);
}

TEST(PromiseRace, EmptyCollectionNeverSettles) {
    auto race = Promise<int>::race(std::vector<Promise<int>>{});
    EXPECT_FALSE(race.resolution().has_value());
}

TEST(PromiseRace, CancellationsAreIgnoredAndTheFirstOutcomeDecides) {
    DeferredPromise<int> slow;
    std::optional<Promise<int>::Cancel> cancel;
    Promise<int> cancelled([&](auto, auto, auto c) { cancel.emplace(c); });
    DeferredPromise<int> fast;
    auto race = Promise<int>::race({cancelled, slow.promise, fast.promise});
    (*cancel)();
    EXPECT_FALSE(race.resolution().has_value());
    Error error = makeTestError("fast");
    fast.reject(error);
    slow.resolve(1);
    EXPECT_TRUE(race.resolution()->error() == error);
}

TEST(PromiseRace, ResultHandlerMaySettleTheLosingInput) {
    DeferredPromise<int> winner, loser;
    auto race = Promise<int>::race({winner.promise, loser.promise});
    race.then(zalgo(), [&](int) { loser.reject(makeTestError("too late")); });
    winner.resolve(1);
    EXPECT_EQ(race.resolution()->value(), 1);
    EXPECT_TRUE(loser.promise.resolution()->isRejected());
}

TEST(PromiseRace, DecidesOnceUnderConcurrentSettles) {
    constexpr int kInputs = 4;
    for (int iteration = 0; iteration < 100; ++iteration) {
        std::vector<DeferredPromise<int>> inputs(kInputs);
        std::vector<Promise<int>> promises;
        for (auto& input : inputs) {
            promises.push_back(input.promise);
        }
        auto race = Promise<int>::race(promises);
        std::atomic<int> outcomes{0};
        race.always(zalgo(), [&] { ++outcomes; });
        std::latch start(kInputs);
        std::vector<std::thread> threads;
        for (int i = 0; i < kInputs; ++i) {
            threads.emplace_back([&, i] {
                start.arrive_and_wait();
                if (i % 2 == 0) {
                    inputs[i].resolve(i);
                } else {
                    inputs[i].reject(makeTestError("lost"));
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(outcomes.load(), 1);
        auto resolution = *race.resolution();
        ASSERT_TRUE(resolution.isRejected() || resolution.value() % 2 == 0);
    }
}

TEST(PromiseSequences, MapFlatMapReduceAndUnique) {
    auto numbers = Promise<std::vector<int>>::fulfilled({3, 1, 4, 1, 5, 9, 2, 6});
    DispatchQueue queue("test.sequences");

    auto doubled = numbers.map(queue, [](int v) { return v * 2; });
    EXPECT_EQ(await(doubled).value(), (std::vector<int>{6, 2, 8, 2, 10, 18, 4, 12}));

    auto evens = numbers.flatMap(queue, [](int v) {
        return v % 2 == 0 ? std::optional<std::string>(std::to_string(v)) : std::nullopt;
    });
    EXPECT_EQ(await(evens).value(), (std::vector<std::string>{"4", "2", "6"}));

    auto sum = numbers.reduce(queue, 0, [](int acc, int v) { return acc + v; });
    EXPECT_EQ(await(sum).value(), 31);

    auto text = numbers.reduceInto(queue, std::string(),
                                   [](std::string& acc, int v) { acc += std::to_string(v); });
    EXPECT_EQ(await(text).value(), "31415926");

    auto uniqueByParity = numbers.unique(queue, [](int v) { return v % 2; });
    EXPECT_EQ(await(uniqueByParity).value(), (std::vector<int>{3, 4}));
}

TEST(PromiseSequences, ThrowingCallableFollowsTheThenRules) {
    auto numbers = Promise<std::vector<int>>::fulfilled({1, 2, 3});
    auto rejected = numbers.map(zalgo(), [](int v) {
        if (v == 2) {
            throw std::out_of_range("two");
        }
        return v;
    });
    EXPECT_TRUE(errorIs<std::out_of_range>(rejected.resolution()->error()));

    auto cancelled =
        numbers.reduce(zalgo(), 0, [](int, int) -> int { throw PromiseError::cancelled; });
    EXPECT_TRUE(cancelled.resolution()->isCancelled());
}

}  // namespace
}  // namespace kel

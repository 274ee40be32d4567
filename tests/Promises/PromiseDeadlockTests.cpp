// Combinators and handlers that settle or chain onto other promises from inside a settlement,
// on one thread and on two racing threads. Each scenario runs under a watchdog, so a deadlock
// fails the test instead of hanging the suite.
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "PromiseTestSupport.hpp"
#include "Watchdog.hpp"
#include "kel/Promises/DeferredPromise.hpp"
#include "kel/Promises/PromiseDeduper.hpp"

namespace kel {
namespace {

using namespace test;
using test::finishesWithin;

constexpr int kRounds = 200;

// Runs a and b on two threads released at the same moment.
template <class A, class B>
void atOnce(A&& a, B&& b) {
    std::latch start(2);
    std::jthread other([&] {
        start.arrive_and_wait();
        b();
    });
    start.arrive_and_wait();
    a();
}

TEST(PromiseDeadlock, AllOverADerivedInputListedBeforeItsSource) {
    EXPECT_TRUE(finishesWithin("all({p.then(zalgo), p})", [] {
        DeferredPromise<int> p;
        auto q = p.promise.then(zalgo(), [](int v) { return v * 10; });
        auto all = Promise<int>::all({q, p.promise});
        std::jthread([&] { p.resolve(4); }).join();
        ASSERT_TRUE(all.isFulfilled());
        EXPECT_EQ(all.value(), (std::vector<int>{40, 4}));
    }));
}

TEST(PromiseDeadlock, TwoAllsInOppositeOrdersSettledOnTwoThreads) {
    EXPECT_TRUE(finishesWithin("all({a, b}) and all({b, a})", [] {
        for (int round = 0; round < kRounds; ++round) {
            DeferredPromise<int> a, b;
            auto ab = Promise<int>::all({a.promise, b.promise});
            auto ba = Promise<int>::all({b.promise, a.promise});
            atOnce([&] { a.resolve(1); }, [&] { b.resolve(2); });
            ASSERT_EQ(ab.value(), (std::vector<int>{1, 2}));
            ASSERT_EQ(ba.value(), (std::vector<int>{2, 1}));
        }
    }));
}

TEST(PromiseDeadlock, RaceWhoseResultCancelsTheLoserWhileBothSettle) {
    EXPECT_TRUE(finishesWithin("race that cancels its loser", [] {
        // Every round's promises live to the end: a seal's mutex is never destroyed, so
        // ThreadSanitizer would take a later round's seal at a reused address for the earlier
        // one and join the two rounds' (opposite) lock orders into a cycle that no round has.
        std::deque<Pending<int>> inputs;
        std::vector<Promise<int>> races;
        for (int round = 0; round < kRounds; ++round) {
            Pending<int>& a = inputs.emplace_back();
            Pending<int>& b = inputs.emplace_back();
            auto race = races.emplace_back(Promise<int>::race({a.promise, b.promise}));
            race.always(zalgo(), [&] {
                (*a.cancel)();
                (*b.cancel)();
            });
            atOnce([&] { (*a.fulfill)(1); }, [&] { (*b.fulfill)(2); });
            ASSERT_TRUE(race.isFulfilled());
            int winner = race.value();
            ASSERT_TRUE(winner == 1 || winner == 2);
            // The loser was cancelled by the result's handler, or lost the race to settle.
            ASSERT_TRUE((winner == 1 ? b : a).promise.isCancelled() ||
                        (winner == 1 ? b : a).promise.isFulfilled());
        }
    }));
}

TEST(PromiseDeadlock, DeduperCreateBlockSettlesAnotherKeysPromise) {
    EXPECT_TRUE(finishesWithin("createBlock settling another key", [] {
        PromiseDeduper<int, int> deduper;
        DeferredPromise<int> first;
        deduper.promise(1, [&] { return first.promise; });
        auto second = deduper.promise(2, [&] {
            first.resolve(1);  // removes key 1 from the deduper, inside its settlement
            return Promise<int>::fulfilled(2);
        });
        EXPECT_EQ(second.value(), 2);
        int created = 0;
        deduper.promise(1, [&] {
            ++created;
            return Promise<int>::fulfilled(3);
        });
        EXPECT_EQ(created, 1);
    }));
}

// Callers of one deduper racing a settlement, and racing each other for one key.
TEST(PromiseDeadlock, DeduperCallersRaceASettlementAndEachOther) {
    EXPECT_TRUE(finishesWithin("deduper callers racing", [] {
        for (int round = 0; round < kRounds; ++round) {
            PromiseDeduper<int, int> deduper;
            DeferredPromise<int> first, work;
            // A createBlock chains onto a promise another thread settles.
            deduper.promise(1, [&] { return first.promise; });
            Promise<int> chained = Promise<int>::fulfilled(0);
            atOnce([&] { first.resolve(5); },
                   [&] {
                       chained = deduper.promise(2, [&] {
                           return first.promise.then(zalgo(), [](int v) { return v + 1; });
                       });
                   });
            ASSERT_EQ(await(chained).value(), 6) << "createBlock chaining onto a settling promise";

            // Two callers of one key at once share one createBlock.
            std::atomic<int> created{0};
            auto create = [&] {
                ++created;
                return work.promise;
            };
            Promise<int> a = Promise<int>::fulfilled(0), b = Promise<int>::fulfilled(0);
            atOnce([&] { a = deduper.promise(7, create); },
                   [&] { b = deduper.promise(7, create); });
            ASSERT_EQ(created.load(), 1) << "same-key callers";
            ASSERT_TRUE(a == b) << "same-key callers";
            work.resolve(1);
        }
    }));
}

}  // namespace
}  // namespace kel

#include "kel/Promises/DeferredPromise.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "PromiseTestSupport.hpp"
#include "kel/Promises/AsyncMain.hpp"
#include "kel/Promises/PromiseDeduper.hpp"

namespace kel {
namespace {

using testing::await;
using testing::makeTestError;

TEST(DeferredPromise, FirstSettlementStandsAndCopiesShareIt) {
    DeferredPromise<int> deferred;
    DeferredPromise<int> copy = deferred;
    EXPECT_TRUE(copy.promise == deferred.promise);
    Error error = makeTestError("rejected");
    copy.reject(error);
    deferred.resolve(1);
    EXPECT_TRUE(deferred.promise.resolution()->error() == error);

    DeferredPromise<void> noValue;
    noValue.resolve();
    noValue.reject(std::runtime_error("late"));
    EXPECT_TRUE(noValue.promise.resolution()->isResolved());
}

TEST(PromiseDeduper, SharesTheInFlightPromise) {
    PromiseDeduper<std::string, int> deduper;
    DeferredPromise<int> work;
    int creates = 0;
    auto first = deduper.promise("k", [&] {
        ++creates;
        return work.promise;
    });
    auto second = deduper.promise("k", [&] {
        ++creates;
        return Promise<int>::fulfilled(2);
    });
    EXPECT_TRUE(first == second);
    EXPECT_EQ(creates, 1);
    auto other = deduper.promise("other", [&] {
        ++creates;
        return Promise<int>([](auto, auto) {});
    });
    EXPECT_FALSE(other == first);
    EXPECT_EQ(creates, 2);
}

TEST(PromiseDeduper, EvictsOnEveryOutcome) {
    PromiseDeduper<int, int> deduper;
    for (int outcome = 0; outcome < 3; ++outcome) {
        std::optional<Promise<int>::Cancel> cancel;
        std::optional<Promise<int>::Reject> reject;
        std::optional<Promise<int>::Fulfill> fulfill;
        auto shared = deduper.promise(1, [&] {
            return Promise<int>([&](auto f, auto r, auto c) {
                fulfill.emplace(f);
                reject.emplace(r);
                cancel.emplace(c);
            });
        });
        if (outcome == 0) {
            (*fulfill)(1);
        } else if (outcome == 1) {
            (*reject)(makeTestError("x"));
        } else {
            (*cancel)();
        }
        bool created = false;
        auto next = deduper.promise(1, [&] {
            created = true;
            return Promise<int>::fulfilled(2);
        });
        EXPECT_TRUE(created) << "outcome " << outcome;
        EXPECT_FALSE(next == shared);
    }
}

TEST(PromiseDeduper, AlreadySettledPromiseIsNotKept) {
    PromiseDeduper<int, std::string> deduper;
    auto first = deduper.promise(7, [] { return Promise<std::string>::fulfilled("a"); });
    auto second = deduper.promise(7, [] { return Promise<std::string>::fulfilled("b"); });
    EXPECT_FALSE(first == second);
    EXPECT_EQ(second.resolution()->value(), "b");
}

TEST(PromiseDeduper, ConcurrentCallersAndSettlersAgree) {
    PromiseDeduper<int, int> deduper;
    std::atomic<int> creates{0};
    std::atomic<int> wrongKey{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                auto shared = deduper.promise(i % 4, [&] {
                    ++creates;
                    // Settled from another thread while callers keep asking for the key.
                    return Promise<int>([&](auto fulfill, auto) {
                        DispatchQueue::global().async([fulfill, i] { fulfill(i); });
                    });
                });
                if (await(shared).value() % 4 != i % 4) {
                    ++wrongKey;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrongKey.load(), 0);
    EXPECT_GE(creates.load(), 1);
    EXPECT_LE(creates.load(), 6000);
}

TEST(PromiseDeduper, OutlivedByItsPromises) {
    DeferredPromise<int> work;
    {
        PromiseDeduper<int, int> deduper;
        deduper.promise(1, [&] { return work.promise; });
    }
    work.resolve(1);  // the removal finds the deduper gone and does nothing
    EXPECT_EQ(work.promise.resolution()->value(), 1);
}

TEST(AsyncMain, RunsAtOnceOnTheMainThreadAndLaterFromOthers) {
    bool ran = false;
    asyncMain([&] { ran = true; });
    EXPECT_TRUE(ran);

    std::atomic<bool> ranFromThread{false};
    std::atomic<bool> onMain{false};
    std::thread([&] {
        asyncMain([&] {
            onMain = isMainThread();
            ranFromThread = true;
        });
    }).join();
    EXPECT_FALSE(ranFromThread.load());
    EXPECT_TRUE(RunLoop::runUntil([&] { return ranFromThread.load(); }, testing::kTimeout));
    EXPECT_TRUE(onMain.load());
}

}  // namespace
}  // namespace kel

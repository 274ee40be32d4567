#include "kel/Promises/PromiseDeduper.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "PromiseTestSupport.hpp"
#include "kel/Promises/AsyncMain.hpp"
#include "kel/Promises/DeferredPromise.hpp"

namespace kel {
namespace {

using namespace test;

TEST(PromiseDeduper, SharesTheInFlightPromisePerKey) {
    PromiseDeduper<std::string, int> deduper;
    DeferredPromise<int> work;
    int creates = 0;
    const auto create = [&] {
        ++creates;
        return creates == 1 ? work.promise : Promise<int>([](auto, auto) {});
    };
    auto first = deduper.promise("k", create);
    EXPECT_TRUE(deduper.promise("k", [&]() -> const Promise<int>& { return work.promise; }) ==
                first);
    EXPECT_EQ(creates, 1);
    EXPECT_FALSE(deduper.promise("other", create) == first);
    EXPECT_EQ(creates, 2);
}

TEST(PromiseDeduper, EvictsOnEveryOutcomeIncludingAnAlreadySettledPromise) {
    PromiseDeduper<int, int> deduper;
    for (int outcome = 0; outcome < 4; ++outcome) {
        Pending<int> pending;
        deduper.promise(
            1, [&] { return outcome == 3 ? Promise<int>::fulfilled(3) : pending.promise; });
        if (outcome == 0) {
            (*pending.fulfill)(1);
        } else if (outcome == 1) {
            (*pending.reject)(makeTestError("x"));
        } else if (outcome == 2) {
            (*pending.cancel)();
        }
        auto next = deduper.promise(1, [] { return Promise<int>::fulfilled(2); });
        EXPECT_EQ(next.resolution()->value(), 2) << "outcome " << outcome;
    }
}

TEST(PromiseDeduper, ConcurrentCallersAndSettlersAgree) {
    PromiseDeduper<int, int> deduper;
    std::atomic<int> wrongKey{0};
    std::vector<std::jthread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                auto shared = deduper.promise(i % 4, [&] {
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
    threads.clear();
    EXPECT_EQ(wrongKey.load(), 0);
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

TEST(AsyncMain, AsyncMainAndSyncValueRunAtOnceOnTheMainThreadAndViaTheRunLoopFromOthers) {
    bool ran = false;
    asyncMain([&] { ran = true; });
    EXPECT_TRUE(ran);
    EXPECT_EQ(DispatchQueue::main().syncValue([] { return isMainThread(); }), true);

    std::atomic<int> ranOnMain{0};
    std::thread([&] { asyncMain([&] { ranOnMain += isMainThread() ? 1 : 100; }); }).join();
    EXPECT_EQ(ranOnMain.load(), 0);  // it waits for the run loop
    std::thread caller([&] {
        ranOnMain += DispatchQueue::main().syncValue([] { return isMainThread() ? 1 : 100; });
    });
    EXPECT_TRUE(RunLoop::runUntil([&] { return ranOnMain.load() >= 2; }, kWatchdogTimeout));
    caller.join();
    EXPECT_EQ(ranOnMain.load(), 2);
}

}  // namespace
}  // namespace kel

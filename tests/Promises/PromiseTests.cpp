#include "kel/Promises/Promise.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "PromiseTestSupport.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/RunLoop.hpp"
#include "kel/Promises/DeferredPromise.hpp"

namespace kel {
namespace {

using testing::await;
using testing::makeTestError;
using testing::pumpUntilSettled;

TEST(PromiseSettlement, FirstSettlementWinsAndLaterOnesAreIgnored) {
    Promise<int> fulfilledFirst([](auto fulfill, auto reject, auto cancel) {
        fulfill(1);
        fulfill(2);
        reject(makeTestError("late"));
        cancel();
    });
    EXPECT_EQ(fulfilledFirst.resolution()->value(), 1);

    Error error = makeTestError("first");
    Promise<int> rejectedFirst([&](auto fulfill, auto reject) {
        reject(error);
        fulfill(3);
    });
    EXPECT_TRUE(rejectedFirst.resolution()->error() == error);

    Promise<void> cancelledFirst([](auto fulfill, auto, auto cancel) {
        cancel();
        fulfill();
    });
    EXPECT_TRUE(cancelledFirst.resolution()->isCancelled());
}

TEST(PromiseSettlement, ConstructionForms) {
    EXPECT_EQ(Promise<std::string>::fulfilled("v").resolution()->value(), "v");
    EXPECT_TRUE(Promise<void>::fulfilled().resolution()->isResolved());
    EXPECT_TRUE(errorIs<std::runtime_error>(
        Promise<int>::rejected(std::runtime_error("x")).resolution()->error()));

    auto success =
        Promise<int>::withCompletion([](auto completion) { completion(Result<int>::success(5)); });
    EXPECT_EQ(success.resolution()->value(), 5);

    Error error = makeTestError("failed");
    std::optional<Promise<int>::Completion> later;
    auto failed = Promise<int>::withCompletion([&](auto completion) { later.emplace(completion); });
    EXPECT_FALSE(failed.resolution().has_value());
    (*later)(Result<int>::failed(error));
    EXPECT_TRUE(failed.resolution()->error() == error);

    auto pending = Promise<int>([](auto, auto) {});
    EXPECT_FALSE(pending.resolution().has_value());
}

TEST(PromiseSettlement, DelayFulfilsAfterTheDeadline) {
    auto start = DispatchTime::now();
    auto delayed = Promise<void>::delay(start + 0.02);
    EXPECT_TRUE(await(delayed).isResolved());
    EXPECT_GE(DispatchTime::now(), start + 0.02);
}

TEST(PromiseSettlement, ExactlyOnceUnderConcurrentSettleAndRegister) {
    constexpr int kIterations = 300;
    constexpr int kSettlers = 3;
    constexpr int kRegistrars = 3;
    constexpr int kHandlersPerRegistrar = 20;
    for (int iteration = 0; iteration < kIterations; ++iteration) {
        std::optional<Promise<int>::Fulfill> fulfill;
        std::optional<Promise<int>::Reject> reject;
        std::optional<Promise<int>::Cancel> cancel;
        Promise<int> promise([&](auto f, auto r, auto c) {
            fulfill.emplace(f);
            reject.emplace(r);
            cancel.emplace(c);
        });
        std::atomic<int> calls{0};
        std::atomic<int> outcomes{0};  // bit set of the outcomes the handlers saw
        std::latch start(kSettlers + kRegistrars);
        std::vector<std::thread> threads;
        for (int s = 0; s < kSettlers; ++s) {
            threads.emplace_back([&, s] {
                start.arrive_and_wait();
                if (s == 0) {
                    (*fulfill)(7);
                } else if (s == 1) {
                    (*reject)(makeTestError("r"));
                } else {
                    (*cancel)();
                }
            });
        }
        for (int r = 0; r < kRegistrars; ++r) {
            threads.emplace_back([&] {
                start.arrive_and_wait();
                for (int h = 0; h < kHandlersPerRegistrar; ++h) {
                    promise.always(zalgo(), [&] { ++calls; });
                    promise.then(zalgo(), [&](int) { outcomes |= 1; });
                    promise.error(zalgo(), [&](const Error&) { outcomes |= 2; });
                    promise.cancelled(zalgo(), [&] { outcomes |= 4; });
                }
            });
        }
        // A reader polling without registering: once it sees an outcome, that outcome is final.
        std::optional<Resolution<int>> firstSeen;
        threads.emplace_back([&] {
            while (!(firstSeen = promise.resolution())) {
            }
        });
        for (auto& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(calls.load(), kRegistrars * kHandlersPerRegistrar);
        int seen = outcomes.load();
        ASSERT_TRUE(seen == 1 || seen == 2 || seen == 4) << seen;
        ASSERT_EQ(firstSeen->isResolved(), seen == 1);
        ASSERT_EQ(firstSeen->isRejected(), seen == 2);
        ASSERT_EQ(firstSeen->isCancelled(), seen == 4);
        if (seen == 1) {
            ASSERT_EQ(firstSeen->value(), 7);
        }
    }
}

TEST(PromiseSettlement, KeptSettleCallablesOutliveTheConstructorAndThePromise) {
    std::optional<Promise<int>::Fulfill> copied;
    std::optional<Promise<int>::Fulfill> moved;
    std::optional<Promise<int>> next;
    {
        Promise<int> promise([&](auto fulfill, auto reject) {
            copied.emplace(fulfill);
            moved.emplace(std::move(fulfill));
            auto reassigned = reject;
            reassigned = std::move(reject);
        });
        next.emplace(promise.then(zalgo(), [](int value) { return value + 1; }));
    }
    moved.reset();
    std::thread([&] { (*copied)(41); }).join();
    copied.reset();
    EXPECT_EQ(next->resolution()->value(), 42);
}

// Promises made on one thread, settled and dropped on others, by threads that come and go: the
// storage of a promise may be taken on one thread and given back on another.
TEST(PromiseSettlement, PromisesCrossThreadsThatComeAndGo) {
    constexpr int kRounds = 20;
    constexpr int kPromises = 200;
    for (int round = 0; round < kRounds; ++round) {
        std::vector<Promise<int>::Fulfill> fulfills;
        std::vector<Promise<std::string>> results;
        std::thread([&] {
            for (int index = 0; index < kPromises; ++index) {
                Promise<int> promise(
                    [&](auto fulfill, auto) { fulfills.push_back(std::move(fulfill)); });
                results.push_back(
                    promise.then(zalgo(), [](int value) { return std::to_string(value); }));
            }
        }).join();
        std::thread([&] {
            for (int index = 0; index < kPromises; ++index) {
                fulfills[index](index);
            }
            fulfills.clear();
        }).join();
        std::thread([&] {
            for (int index = 0; index < kPromises; ++index) {
                ASSERT_EQ(results[index].resolution()->value(), std::to_string(index));
            }
            results.clear();
        }).join();
    }
}

TEST(PromiseQueues, ZalgoRunsBeforeThenReturns) {
    bool ran = false;
    auto derived = Promise<int>::fulfilled(1).then(zalgo(), [&](int v) {
        ran = true;
        return v + 1;
    });
    EXPECT_TRUE(ran);
    EXPECT_EQ(derived.resolution()->value(), 2);
}

TEST(PromiseQueues, OrdinaryQueueRunsOnlyAfterTheCurrentWorkOnIt) {
    DispatchQueue queue("test.serial");
    std::atomic<bool> ran{false};
    std::optional<Promise<void>> derived;
    queue.sync([&] {
        derived = Promise<int>::fulfilled(1).then(queue, [&](int) {
            EXPECT_TRUE(queue.isCurrent());
            ran = true;
        });
        EXPECT_FALSE(ran.load());
    });
    EXPECT_TRUE(await(*derived).isResolved());
    EXPECT_TRUE(ran.load());
}

TEST(PromiseQueues, MainQueueCallableWaitsForTheRunLoop) {
    bool ran = false;
    auto derived = Promise<int>::fulfilled(1).then(DispatchQueue::main(), [&](int) { ran = true; });
    EXPECT_FALSE(ran);
    EXPECT_TRUE(pumpUntilSettled(derived).isResolved());
    EXPECT_TRUE(ran);
}

TEST(PromiseQueues, ZalgoIfMainRunsAtOnceOnlyOnTheMainThread) {
    bool ranAtOnce = false;
    Promise<int>::fulfilled(1).then(zalgoIfMain(), [&](int) { ranAtOnce = true; });
    EXPECT_TRUE(ranAtOnce);

    // Settled on another thread: the callable goes to the main queue.
    std::optional<Promise<int>::Fulfill> fulfill;
    Promise<int> promise([&](auto f, auto) { fulfill.emplace(f); });
    std::atomic<bool> ran{false};
    std::atomic<bool> onMain{false};
    auto derived = promise.then(zalgoIfMain(), [&](int) {
        onMain = isMainThread();
        ran = true;
    });
    std::thread([&] { (*fulfill)(2); }).join();
    EXPECT_FALSE(ran.load());
    pumpUntilSettled(derived);
    EXPECT_TRUE(ran.load());
    EXPECT_TRUE(onMain.load());
}

TEST(PromiseQueues, ThenForwardsRejectionAndCancellationOnItsQueue) {
    // The forwarding hops queues as a value would: observers on zalgo registered before the
    // settlement run where the forwarding runs.
    DispatchQueue queue("test.forward");
    DeferredPromise<int> failing;
    std::optional<Promise<int>::Cancel> cancel;
    Promise<int> cancelling([&](auto, auto, auto c) { cancel.emplace(c); });
    std::atomic<bool> rejectedOnQueue{false};
    std::atomic<bool> cancelledOnQueue{false};
    auto rejected =
        failing.promise.then(queue, [](int v) { return v; }).error(zalgo(), [&](const Error&) {
            rejectedOnQueue = queue.isCurrent();
        });
    auto cancelled = cancelling.then(queue, [](int v) { return v; }).cancelled(zalgo(), [&] {
        cancelledOnQueue = queue.isCurrent();
    });
    failing.reject(makeTestError("x"));
    (*cancel)();
    EXPECT_TRUE(await(rejected).isRejected());
    EXPECT_TRUE(await(cancelled).isCancelled());
    EXPECT_TRUE(rejectedOnQueue.load());
    EXPECT_TRUE(cancelledOnQueue.load());

    // On zalgoIfMain, a cancellation arriving on another thread goes through the main queue.
    std::optional<Promise<int>::Cancel> cancelElsewhere;
    Promise<int> source([&](auto, auto, auto c) { cancelElsewhere.emplace(c); });
    auto viaMain = source.then(zalgoIfMain(), [](int v) { return v; });
    std::thread([&] { (*cancelElsewhere)(); }).join();
    EXPECT_FALSE(viaMain.resolution().has_value());
    EXPECT_TRUE(pumpUntilSettled(viaMain).isCancelled());
}

TEST(PromiseQueues, HandlersRunInRegistrationOrder) {
    std::optional<Promise<int>::Fulfill> fulfill;
    Promise<int> promise([&](auto f, auto) { fulfill.emplace(f); });
    std::vector<int> order;
    DispatchQueue queue("test.order");
    std::mutex mutex;
    std::vector<int> queueOrder;
    for (int i = 0; i < 10; ++i) {
        promise.always(zalgo(), [&order, i] { order.push_back(i); });
        promise.then(queue, [&, i](int) {
            std::lock_guard lock(mutex);
            queueOrder.push_back(i);
        });
    }
    auto last = promise.then(queue, [](int) {});
    (*fulfill)(1);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    await(last);
    std::lock_guard lock(mutex);
    EXPECT_EQ(queueOrder, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST(PromiseErrors, RejectionTravelsDownTheChainUnchanged) {
    Error error = makeTestError("boom");
    bool thenRan = false;
    Error seen;
    DispatchQueue queue("test.errors");
    auto end = Promise<int>::rejected(error)
                   .then(queue,
                         [&](int v) {
                             thenRan = true;
                             return v;
                         })
                   .then(zalgo(), [&](int) { thenRan = true; })
                   .error(zalgo(), [&](const Error& e) { seen = e; });
    auto resolution = await(end);
    EXPECT_FALSE(thenRan);
    EXPECT_TRUE(resolution.error() == error);
    EXPECT_TRUE(seen == error);
}

TEST(PromiseErrors, ThrowingCancelledCancelsAndThrowingAbandonedRejects) {
    int errors = 0;
    int cancels = 0;
    int always = 0;
    auto cancelledChain = Promise<int>::fulfilled(1)
                              .then(zalgo(), [](int) -> int { throw PromiseError::cancelled; })
                              .error(zalgo(), [&](const Error&) { ++errors; })
                              .cancelled(zalgo(), [&] { ++cancels; })
                              .always(zalgo(), [&] { ++always; });
    EXPECT_TRUE(cancelledChain.resolution()->isCancelled());
    EXPECT_EQ(errors, 0);
    EXPECT_EQ(cancels, 1);
    EXPECT_EQ(always, 1);

    auto abandonedChain = Promise<int>::fulfilled(1)
                              .then(zalgo(), [](int) { throw PromiseError::abandoned; })
                              .error(zalgo(), [&](const Error&) { ++errors; })
                              .cancelled(zalgo(), [&] { ++cancels; });
    EXPECT_EQ(errorAs<PromiseError>(abandonedChain.resolution()->error()), PromiseError::abandoned);
    EXPECT_EQ(errors, 1);
    EXPECT_EQ(cancels, 1);

    auto otherThrow = Promise<void>::fulfilled().then(
        zalgo(), []() -> std::string { throw std::logic_error("bad"); });
    EXPECT_TRUE(errorIs<std::logic_error>(otherThrow.resolution()->error()));
}

TEST(PromiseErrors, CancellationIsForwardedAndSkipsErrorCallables) {
    bool errorRan = false;
    bool alwaysRan = false;
    DispatchQueue queue("test.cancel");
    auto end = Promise<int>([](auto, auto, auto cancel) { cancel(); })
                   .then(queue, [](int v) { return v; })
                   .error(zalgo(), [&](const Error&) { errorRan = true; })
                   .always(zalgo(), [&] { alwaysRan = true; });
    EXPECT_TRUE(await(end).isCancelled());
    EXPECT_FALSE(errorRan);
    EXPECT_TRUE(alwaysRan);
}

TEST(PromiseErrors, ThenFollowsTheInnerPromiseItReturns) {
    std::optional<Promise<std::string>::Fulfill> innerFulfill;
    Promise<std::string> inner([&](auto f, auto) { innerFulfill.emplace(f); });
    auto followed = Promise<int>::fulfilled(1).then(zalgo(), [&](int) { return inner; });
    EXPECT_FALSE(followed.resolution().has_value());
    (*innerFulfill)("inner");
    EXPECT_EQ(followed.resolution()->value(), "inner");

    Error error = makeTestError("inner error");
    auto rejected =
        Promise<void>::fulfilled().then(zalgo(), [&] { return Promise<int>::rejected(error); });
    EXPECT_TRUE(rejected.resolution()->error() == error);

    auto cancelled = Promise<void>::fulfilled().then(
        zalgo(), [] { return Promise<void>([](auto, auto, auto cancel) { cancel(); }); });
    EXPECT_TRUE(cancelled.resolution()->isCancelled());
}

struct Owner {
    int base = 10;
};

TEST(PromiseOwner, LiveOwnerIsPassedToTheCallable) {
    auto owner = std::make_shared<Owner>();
    auto result =
        Promise<int>::fulfilled(1).then(zalgo(), owner, [](int v, Owner& o) { return v + o.base; });
    EXPECT_EQ(result.resolution()->value(), 11);
    EXPECT_EQ(owner.use_count(), 1);  // held weakly, not kept
}

TEST(PromiseOwner, VanishedOwnerAbandonsThenAndSkipsErrorAndAlways) {
    std::optional<Promise<int>::Fulfill> fulfill;
    std::optional<Promise<int>::Reject> reject;
    Promise<int> promise([&](auto f, auto r) {
        fulfill.emplace(f);
        reject.emplace(r);
    });
    auto owner = std::make_shared<Owner>();
    bool called = false;
    auto derived = promise.then(zalgo(), owner, [&](int, Owner&) { called = true; });
    auto voidDerived =
        promise.then(zalgo(), owner, [&](int, Owner&) { return Promise<void>::fulfilled(); });
    owner.reset();
    (*fulfill)(1);
    EXPECT_FALSE(called);
    EXPECT_EQ(errorAs<PromiseError>(derived.resolution()->error()), PromiseError::abandoned);
    EXPECT_EQ(errorAs<PromiseError>(voidDerived.resolution()->error()), PromiseError::abandoned);

    Promise<int> failing([&](auto, auto r) { reject.emplace(r); });
    auto gone = std::make_shared<Owner>();
    bool errorCalled = false;
    bool alwaysCalled = false;
    failing.error(zalgo(), gone, [&](const Error&, Owner&) { errorCalled = true; })
        .always(zalgo(), gone, [&](Owner&) { alwaysCalled = true; });
    gone.reset();
    (*reject)(makeTestError("x"));
    EXPECT_FALSE(errorCalled);
    EXPECT_FALSE(alwaysCalled);
}

TEST(PromiseOwner, RejectionIsForwardedEvenWithoutTheOwner) {
    Error error = makeTestError("x");
    auto owner = std::make_shared<Owner>();
    std::weak_ptr<Owner> weak = owner;
    owner.reset();
    auto derived = Promise<int>::rejected(error).then(zalgo(), weak.lock(), [](int, Owner&) {});
    EXPECT_TRUE(derived.resolution()->error() == error);
}

TEST(PromiseValues, CallablesAndValuesAreNotCopiedAlongTheChain) {
    using testing::CopyCounted;
    auto copies = std::make_shared<std::atomic<int>>(0);
    CopyCounted counter(copies);
    DispatchQueue queue("test.copies");
    std::optional<Promise<CopyCounted>::Fulfill> fulfill;
    Promise<CopyCounted> source([&](auto f, auto) { fulfill.emplace(f); });
    auto end =
        source
            .then(queue, [counter = std::move(counter)](const CopyCounted& v) { return v.copies; })
            .then(zalgo(), [](const std::shared_ptr<std::atomic<int>>& c) { return c->load(); });
    (*fulfill)(CopyCounted(copies));
    EXPECT_EQ(await(end).value(), 0);
    EXPECT_EQ(copies->load(), 0);
}

}  // namespace
}  // namespace kel

#include "kel/Promises/Promise.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

#include "PromiseTestSupport.hpp"
#include "kel/Platform/DispatchQueue.hpp"

namespace kel {
namespace {

using namespace test;

// Only a promise's creator can settle it: the settle callables cannot be made from a promise,
// and the seal that a holder can reach (even through the library's internals) has no settle.
template <class Seal>
concept Settleable = requires(Seal& seal) {
    seal.settle(Resolution<int>::resolved(1));
};
static_assert(!std::is_constructible_v<Promise<int>::Fulfill, Promise<int>>);
static_assert(!std::is_constructible_v<Promise<int>::Reject, Promise<int>>);
static_assert(!std::is_constructible_v<Promise<int>::Cancel, Promise<int>>);
static_assert(!std::is_constructible_v<Promise<int>::Completion, Promise<int>>);
static_assert(!Settleable<std::remove_cvref_t<
                  decltype(*detail::PromiseAccess::seal(std::declval<const Promise<int>&>()))>>);

TEST(PromiseSettlement, FirstSettlementWinsAndACompletionMayBeCalledLater) {
    Promise<int> fulfilledFirst([](auto fulfill, auto reject, auto cancel) {
        fulfill(1);
        fulfill(2);
        reject(makeTestError("late"));
        cancel();
    });
    EXPECT_EQ(fulfilledFirst.resolution()->value(), 1);

    Error error = makeTestError("failed");
    std::optional<Promise<int>::Completion> later;
    auto failed = Promise<int>::withCompletion([&](auto completion) { later.emplace(completion); });
    EXPECT_FALSE(failed.resolution().has_value());
    (*later)(Result<int>::failed(error));
    EXPECT_TRUE(failed.resolution()->error() == error);
}

TEST(PromiseSettlement, ExactlyOnceUnderConcurrentSettleAndRegister) {
    constexpr int kSettlers = 3, kRegistrars = 3, kHandlersPerRegistrar = 20;
    for (int iteration = 0; iteration < 300; ++iteration) {
        Pending<int> pending;
        Promise<int>& promise = pending.promise;
        std::atomic<int> calls{0}, outcomes{0};  // outcomes: bit set of what the handlers saw
        std::latch start(kSettlers + kRegistrars);
        std::vector<std::jthread> threads;
        for (int s = 0; s < kSettlers; ++s) {
            threads.emplace_back([&, s] {
                start.arrive_and_wait();
                s == 0   ? (*pending.fulfill)(7)
                : s == 1 ? (*pending.reject)(makeTestError("r"))
                         : (*pending.cancel)();
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
        threads.clear();
        ASSERT_EQ(calls.load(), kRegistrars * kHandlersPerRegistrar);
        const int seen = outcomes.load();
        ASSERT_TRUE(seen == 1 || seen == 2 || seen == 4) << seen;
        ASSERT_EQ(firstSeen->isResolved() ? 1 : firstSeen->isRejected() ? 2 : 4, seen);
        ASSERT_TRUE(seen != 1 || firstSeen->value() == 7);
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
    constexpr int kPromises = 200;
    for (int round = 0; round < 20; ++round) {
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

TEST(PromiseQueues, ZalgoRunsAtOnceMainQueueWaitsAndZalgoIfMainDependsOnTheThread) {
    int ranAtOnce = 0;
    Promise<int>::fulfilled(1).then(zalgo(), [&](int) { ++ranAtOnce; });
    Promise<int>::fulfilled(1).then(zalgoIfMain(), [&](int) { ++ranAtOnce; });  // on main
    EXPECT_EQ(ranAtOnce, 2);

    // The main queue runs the callable from the run loop, even when then is called there.
    auto viaMain = Promise<int>::fulfilled(1).then(DispatchQueue::main(), [](int v) { return v; });
    EXPECT_FALSE(viaMain.resolution().has_value());
    EXPECT_EQ(pumpUntilSettled(viaMain).value(), 1);

    // Settled on another thread, a zalgoIfMain callable goes through the main queue.
    Pending<int> pending;
    std::atomic<bool> onMain{false};
    auto derived = pending.promise.then(zalgoIfMain(), [&](int) { onMain = isMainThread(); });
    std::thread([&] { (*pending.fulfill)(2); }).join();
    EXPECT_FALSE(derived.resolution().has_value());
    pumpUntilSettled(derived);
    EXPECT_TRUE(onMain.load());
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

TEST(PromiseQueues, HandlersRunInRegistrationOrder) {
    Pending<int> pending;
    std::vector<int> order;
    for (int i = 0; i < 10; ++i) {
        pending.promise.always(zalgo(), [&order, i] { order.push_back(i); });
    }
    (*pending.fulfill)(1);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));

    // On one serial queue too, for mixed kinds of handler, before and after the settlement.
    DispatchQueue serial("test.order");
    Pending<int> later;
    std::vector<int> serialOrder;  // touched on `serial` only
    auto record = [&](int i) { return [&serialOrder, i] { serialOrder.push_back(i); }; };
    later.promise.always(serial, record(0));
    later.promise.then(serial, [&](int) { serialOrder.push_back(1); });
    later.promise.always(serial, record(2));
    (*later.fulfill)(1);
    later.promise.always(serial, record(3));
    serial.sync([] {});
    EXPECT_EQ(serialOrder, (std::vector<int>{0, 1, 2, 3}));
}

TEST(PromiseQueues, DelayFulfilsOnTheGlobalQueueAfterTheDeadline) {
    auto start = DispatchTime::now();
    auto delayed = Promise<void>::delay(start + 0.02);
    EXPECT_TRUE(delayed.isPending());
    EXPECT_TRUE(await(delayed).isResolved());
    EXPECT_GE(DispatchTime::now().timePoint() - start.timePoint(), std::chrono::milliseconds(20));
}

// A rejection or a cancellation skips then callables and is forwarded on the then's own queue:
// observers on zalgo registered before the settlement run where the forwarding runs.
TEST(PromiseErrors, RejectionAndCancellationTravelDownTheChainOnEachThensQueue) {
    DispatchQueue queue("test.forward");
    std::atomic<int> thenCalls{0};
    Error error = makeTestError("boom");
    Pending<int> failing;
    std::atomic<bool> rejectedOnQueue{false};
    auto rejected = failing.promise.then(queue, [&](int v) { return v + ++thenCalls; })
                        .then(zalgo(), [&](int) { ++thenCalls; })
                        .error(zalgo(), [&](const Error& e) {
                            rejectedOnQueue = queue.isCurrent() && e == error;
                        });

    Pending<int> cancelling;
    std::atomic<int> errorCalls{0};
    std::atomic<bool> cancelledOnQueue{false}, alwaysRan{false};
    auto cancelled = cancelling.promise.then(queue, [&](int v) { return v + ++thenCalls; })
                         .error(zalgo(), [&](const Error&) { ++errorCalls; })
                         .cancelled(zalgo(), [&] { cancelledOnQueue = queue.isCurrent(); })
                         .always(zalgo(), [&] { alwaysRan = true; });

    (*failing.reject)(error);
    (*cancelling.cancel)();
    EXPECT_TRUE(await(rejected).error() == error);
    EXPECT_TRUE(await(cancelled).isCancelled());
    EXPECT_EQ(thenCalls.load(), 0);
    EXPECT_EQ(errorCalls.load(), 0);
    EXPECT_TRUE(rejectedOnQueue.load());
    EXPECT_TRUE(cancelledOnQueue.load());
    EXPECT_TRUE(alwaysRan.load());
}

// What the then callable gives decides the derived promise: a throw of PromiseError::cancelled
// cancels it, any other throw rejects it (a thrown kel::Error, itself an exception_ptr, is the
// error it points to), a returned promise is followed whatever its outcome.
TEST(PromiseErrors, ThenCallableThrowsOrReturnsAPromise) {
    auto one = Promise<int>::fulfilled(1);
    EXPECT_TRUE(one.then(zalgo(), [](int) -> int { throw PromiseError::cancelled; }).isCancelled());
    auto otherThrow = Promise<void>::fulfilled().then(
        zalgo(), []() -> std::string { throw std::logic_error("bad"); });
    EXPECT_TRUE(errorIs<std::logic_error>(otherThrow.resolution()->error()));
    Error error = makeTestError("inner");
    auto rejected = one.then(zalgo(), [&](int) -> int { throw error; });
    ASSERT_TRUE(rejected.isRejected());
    EXPECT_TRUE(rejected.error() == error);
    Error cancel = std::make_exception_ptr(PromiseError::cancelled);
    EXPECT_TRUE(one.then(zalgo(), [&](int) -> int { throw cancel; }).isCancelled());

    Pending<std::string> inner;
    auto followed = one.then(zalgo(), [&](int) { return inner.promise; });
    EXPECT_FALSE(followed.resolution().has_value());
    (*inner.fulfill)("inner");
    EXPECT_EQ(followed.resolution()->value(), "inner");
    auto cancelled = one.then(zalgo(), [](int) { return cancelledPromise<void>(); });
    EXPECT_TRUE(cancelled.resolution()->isCancelled());

    // abandoned is an error like any other; only cancelled cancels.
    auto abandoned = one.then(zalgo(), [](int) -> int { throw PromiseError::abandoned; });
    ASSERT_TRUE(abandoned.isRejected());
    EXPECT_TRUE(errorAs<PromiseError>(abandoned.error()) == PromiseError::abandoned);
}

struct Owner {
    int base = 10;
};

TEST(PromiseOwner, VanishedOwnerAbandonsThenSkipsErrorAndAlwaysAndForwardsRejections) {
    auto owner = std::make_shared<Owner>();
    auto live =
        Promise<int>::fulfilled(1).then(zalgo(), owner, [](int v, Owner& o) { return v + o.base; });
    EXPECT_EQ(live.resolution()->value(), 11);

    Pending<int> fulfilling, failing;
    bool called = false;
    auto derived = fulfilling.promise.then(zalgo(), owner, [&](int, Owner&) { called = true; });
    auto forwarded = failing.promise.then(zalgo(), owner, [&](int, Owner&) { called = true; });
    failing.promise.error(zalgo(), owner, [&](const Error&, Owner&) { called = true; })
        .always(zalgo(), owner, [&](Owner&) { called = true; });

    EXPECT_EQ(owner.use_count(), 1);  // held weakly
    owner.reset();
    (*fulfilling.fulfill)(1);
    Error error = makeTestError("x");
    (*failing.reject)(error);
    EXPECT_FALSE(called);
    EXPECT_EQ(errorAs<PromiseError>(derived.resolution()->error()), PromiseError::abandoned);
    EXPECT_TRUE(forwarded.resolution()->error() == error);
}

}  // namespace
}  // namespace kel

#include "kel/Promises/When.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "PromiseTestSupport.hpp"
#include "kel/Platform/RunLoop.hpp"
#include "kel/Promises/DeferredPromise.hpp"
#include "kel/Promises/Firstly.hpp"

namespace kel {
namespace {

using testing::await;
using testing::makeTestError;
using testing::pumpUntilSettled;

std::vector<Error> whenErrors(const Error& error) {
    auto whenError = errorAs<WhenError>(error);
    EXPECT_TRUE(whenError.has_value());
    return whenError ? whenError->errors() : std::vector<Error>{};
}

TEST(WhenList, EmptyListFulfilsAsynchronouslyOnTheQueue) {
    auto joined = when(DispatchQueue::main(), std::vector<Promise<int>>{});
    EXPECT_FALSE(joined.resolution().has_value());
    EXPECT_TRUE(pumpUntilSettled(joined).value().empty());
}

TEST(WhenList, CollectsEveryErrorInIndexOrderAfterAllSettle) {
    DeferredPromise<int> p1, p2, p3;
    auto joined = when(zalgo(), {p1.promise, p2.promise, p3.promise});
    Error e2 = makeTestError("e2");
    Error e3 = makeTestError("e3");
    p3.reject(e3);
    p2.reject(e2);
    EXPECT_FALSE(joined.resolution().has_value());  // waits for p1 too
    p1.resolve(1);
    auto errors = whenErrors(await(joined).error());
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_TRUE(errors[0] == e2);
    EXPECT_TRUE(errors[1] == e3);
}

TEST(WhenList, ValuesComeBackInInputOrderAndCancelledInputsVanish) {
    DeferredPromise<std::string> a, b;
    Promise<std::string> cancelled([](auto, auto, auto cancel) { cancel(); });
    auto joined = when(DispatchQueue("test.when"), {a.promise, cancelled, b.promise});
    b.resolve("b");
    a.resolve("a");
    EXPECT_EQ(await(joined).value(), (std::vector<std::string>{"a", "b"}));
}

TEST(WhenList, InputsSettledOnManyThreadsWithAConcurrentQueue) {
    constexpr int kInputs = 64;
    for (int iteration = 0; iteration < 20; ++iteration) {
        std::vector<DeferredPromise<int>> inputs(kInputs);
        std::vector<Promise<int>> promises;
        for (auto& input : inputs) {
            promises.push_back(input.promise);
        }
        auto joined = when(DispatchQueue::global(), promises);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = t; i < kInputs; i += 4) {
                    if (i % 16 == 5) {
                        inputs[i].reject(makeTestError(std::to_string(i)));
                    } else {
                        inputs[i].resolve(i);
                    }
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        auto errors = whenErrors(await(joined).error());
        ASSERT_EQ(errors.size(), 4u);
        for (std::size_t i = 0; i < errors.size(); ++i) {
            EXPECT_EQ(errorDescription(errors[i]), std::to_string(5 + 16 * i));
        }
    }
}

TEST(WhenTuple, PairAndTripleOfMixedTypes) {
    DeferredPromise<int> a;
    DeferredPromise<void> c;
    auto pair = when(zalgo(), a.promise, Promise<std::string>::fulfilled("b"));
    auto triple = when(zalgo(), a.promise, Promise<std::string>::fulfilled("b"), c.promise);
    c.resolve();
    a.resolve(1);
    EXPECT_EQ(await(pair).value(), std::make_tuple(1, std::string("b")));
    EXPECT_EQ(std::get<0>(await(triple).value()), 1);
}

TEST(WhenTuple, FailuresAreReportedInPositionOrderAndCancellationLeavesNoEntry) {
    Error ea = makeTestError("a");
    Error ec = makeTestError("c");
    DeferredPromise<int> a;
    DeferredPromise<double> c;
    auto triple = when(zalgo(), a.promise, Promise<int>::fulfilled(2), c.promise);
    c.reject(ec);
    a.reject(ea);
    auto errors = whenErrors(await(triple).error());
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_TRUE(errors[0] == ea);
    EXPECT_TRUE(errors[1] == ec);

    auto withCancel = when(zalgo(), Promise<int>::fulfilled(1),
                           Promise<int>([](auto, auto, auto cancel) { cancel(); }));
    EXPECT_TRUE(whenErrors(await(withCancel).error()).empty());
}

TEST(WhenSome, OneValueIsEnoughAndBothErrorsAreReported) {
    Error e = makeTestError("e");
    auto some = whenSome(zalgo(), Promise<int>::rejected(e), Promise<std::string>::fulfilled("b"));
    auto value = await(some).value();
    EXPECT_FALSE(std::get<0>(value).has_value());
    EXPECT_EQ(std::get<1>(value), "b");

    Error ea = makeTestError("a");
    Error eb = makeTestError("b");
    DeferredPromise<int> a;
    auto none = whenSome(zalgo(), a.promise, Promise<void>::rejected(eb));
    a.reject(ea);
    auto errors = whenErrors(await(none).error());
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_TRUE(errors[0] == ea);
    EXPECT_TRUE(errors[1] == eb);
}

TEST(WhenFirst, SecondInputIsOptional) {
    auto first = whenFirst(zalgo(), Promise<int>::fulfilled(1),
                           Promise<std::string>::rejected(makeTestError("dropped")));
    auto value = await(first).value();
    EXPECT_EQ(std::get<0>(value), 1);
    EXPECT_FALSE(std::get<1>(value).has_value());

    Error ea = makeTestError("a");
    auto failed = whenFirst(zalgo(), Promise<int>::rejected(ea), Promise<int>::fulfilled(2));
    auto errors = whenErrors(await(failed).error());
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(errors[0] == ea);
}

struct Owner {
    std::string name = "owner";
};

TEST(Firstly, PlainFormReturnsTheVeryPromise) {
    auto inner = Promise<int>::fulfilled(1);
    EXPECT_TRUE(firstly([&] { return inner; }) == inner);
}

TEST(Firstly, QueueFormRunsOnTheQueueAndFollowsValueAndError) {
    DispatchQueue queue("test.firstly");
    std::atomic<bool> onQueue{false};
    auto value = firstly(queue, [&] {
        onQueue = queue.isCurrent();
        return Promise<int>::fulfilled(4);
    });
    EXPECT_EQ(await(value).value(), 4);
    EXPECT_TRUE(onQueue.load());

    Error error = makeTestError("x");
    auto rejected = firstly(queue, [&] { return Promise<void>::rejected(error); });
    EXPECT_TRUE(await(rejected).error() == error);
}

TEST(Firstly, CancelledInnerPromiseLeavesTheResultPending) {
    DispatchQueue queue("test.firstly.cancel");
    auto outer =
        firstly(queue, [] { return Promise<int>([](auto, auto, auto cancel) { cancel(); }); });
    auto outerSync =
        firstlySync(queue, [] { return Promise<int>([](auto, auto, auto cancel) { cancel(); }); });
    queue.sync([] {});  // the asynchronous work item has run
    EXPECT_FALSE(outer.resolution().has_value());
    EXPECT_FALSE(outerSync.resolution().has_value());
}

TEST(Firstly, VanishedOwnerRejectsWithAbandoned) {
    DispatchQueue queue("test.firstly.owner");
    auto owner = std::make_shared<Owner>();
    bool called = false;
    std::optional<Promise<std::string>> result;
    queue.sync([&] {
        // The work item runs after this one, by which time the owner is gone.
        result = firstly(queue, owner, [&](Owner& o) {
            called = true;
            return Promise<std::string>::fulfilled(o.name);
        });
        owner.reset();
    });
    EXPECT_EQ(errorAs<PromiseError>(await(*result).error()), PromiseError::abandoned);
    EXPECT_FALSE(called);

    auto live = std::make_shared<Owner>();
    auto named =
        firstlySync(queue, live, [](Owner& o) { return Promise<std::string>::fulfilled(o.name); });
    EXPECT_EQ(named.resolution()->value(), "owner");  // ran before firstlySync returned
}

}  // namespace
}  // namespace kel

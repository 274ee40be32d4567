#include "kel/Promises/When.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "PromiseTestSupport.hpp"
#include "kel/Promises/DeferredPromise.hpp"
#include "kel/Promises/Firstly.hpp"

namespace kel {
namespace {

using namespace test;

// The errors a join reported, which must be the given ones in this order.
void expectWhenErrors(const Error& error, const std::vector<Error>& expected) {
    auto whenError = errorAs<WhenError>(error);
    ASSERT_TRUE(whenError.has_value());
    EXPECT_TRUE(whenError->errors() == expected);
}

TEST(WhenList, EmptyListFulfilsAsynchronouslyOnTheQueue) {
    auto joined = when(DispatchQueue::main(), std::vector<Promise<int>>{});
    EXPECT_FALSE(joined.resolution().has_value());
    EXPECT_TRUE(pumpUntilSettled(joined).value().empty());
}

// Values and errors both come back in input order, errors only once every input has settled;
// cancelled inputs vanish.
TEST(WhenList, InputOrderForValuesAndEveryErrorAfterAllSettle) {
    DeferredPromise<std::string> a, b;
    auto joined =
        when(DispatchQueue("test.when"), {a.promise, cancelledPromise<std::string>(), b.promise});
    b.resolve("b");
    a.resolve("a");
    EXPECT_EQ(await(joined).value(), (std::vector<std::string>{"a", "b"}));

    DeferredPromise<int> p1, p2, p3;
    auto failed = when(zalgo(), {p1.promise, p2.promise, p3.promise});
    Error e2 = makeTestError("e2"), e3 = makeTestError("e3");
    p3.reject(e3);
    p2.reject(e2);
    EXPECT_FALSE(failed.resolution().has_value());  // waits for p1 too
    p1.resolve(1);
    expectWhenErrors(await(failed).error(), {e2, e3});
}

TEST(WhenList, InputsSettledOnManyThreadsWithAConcurrentQueue) {
    constexpr int kInputs = 64;
    for (int iteration = 0; iteration < 20; ++iteration) {
        std::vector<DeferredPromise<int>> inputs(kInputs);
        std::vector<Error> errors;  // inputs 5, 21, 37 and 53 fail
        for (int i = 5; i < kInputs; i += 16) {
            errors.push_back(makeTestError(std::to_string(i)));
        }
        auto joined = when(DispatchQueue::global(), promisesOf(inputs));
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = t; i < kInputs; i += 4) {
                    i % 16 == 5 ? inputs[i].reject(errors[i / 16]) : inputs[i].resolve(i);
                }
            });
        }
        threads.clear();
        expectWhenErrors(await(joined).error(), errors);
    }
}

TEST(WhenTuple, ValuesOfMixedTypesOrEveryFailureInPositionOrder) {
    DeferredPromise<int> a;
    DeferredPromise<void> c;
    auto triple = when(zalgo(), a.promise, Promise<std::string>::fulfilled("b"), c.promise);
    c.resolve();
    a.resolve(1);
    EXPECT_EQ(std::get<1>(await(triple).value()), "b");

    Error ea = makeTestError("a"), ec = makeTestError("c");
    DeferredPromise<int> failingA;
    DeferredPromise<double> failingC;
    auto failed = when(zalgo(), failingA.promise, Promise<int>::fulfilled(2), failingC.promise);
    failingC.reject(ec);
    failingA.reject(ea);
    expectWhenErrors(await(failed).error(), {ea, ec});

    auto withCancel = when(zalgo(), Promise<int>::fulfilled(1), cancelledPromise<int>());
    expectWhenErrors(await(withCancel).error(), {});
}

TEST(WhenSomeAndFirst, OneValueIsEnoughOtherwiseEveryErrorIsReported) {
    auto some = whenSome(zalgo(), Promise<int>::rejected(makeTestError("e")),
                         Promise<std::string>::fulfilled("b"));
    auto value = await(some).value();
    EXPECT_FALSE(std::get<0>(value).has_value());
    EXPECT_EQ(std::get<1>(value), "b");

    Error ea = makeTestError("a"), eb = makeTestError("b");
    auto none = whenSome(zalgo(), Promise<int>::rejected(ea), Promise<void>::rejected(eb));
    expectWhenErrors(await(none).error(), {ea, eb});
    auto cancelledBoth = whenSome(zalgo(), cancelledPromise<int>(), cancelledPromise<void>());
    expectWhenErrors(await(cancelledBoth).error(), {});

    // whenFirst needs only the first input.
    auto first = whenFirst(zalgo(), Promise<int>::fulfilled(1),
                           Promise<std::string>::rejected(makeTestError("dropped")));
    auto [firstValue, dropped] = await(first).value();
    EXPECT_EQ(firstValue, 1);
    EXPECT_FALSE(dropped.has_value());
}

struct Owner {
    std::string name = "owner";
};

TEST(Firstly, QueueFormsRunOnTheQueueAndFollowValueButNotCancellation) {
    DispatchQueue queue("test.firstly");
    std::atomic<bool> onQueue{false};
    auto value = firstly(queue, [&] {
        onQueue = queue.isCurrent();
        return Promise<int>::fulfilled(4);
    });
    EXPECT_EQ(await(value).value(), 4);
    EXPECT_TRUE(onQueue.load());
    // A callable may hand back a reference to a promise it keeps, as with then.
    const Promise<int> kept = Promise<int>::fulfilled(5);
    auto viaReference = firstly(queue, [&]() -> const Promise<int>& { return kept; });
    EXPECT_EQ(await(viaReference).value(), 5);
    EXPECT_TRUE(firstly([&]() -> const Promise<int>& { return kept; }) == kept);

    // A cancelled inner promise leaves the result pending for ever.
    const auto cancelledInner = [] { return cancelledPromise<int>(); };
    auto outer = firstly(queue, cancelledInner);
    auto outerSync = firstlySync(queue, cancelledInner);
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
}

}  // namespace
}  // namespace kel

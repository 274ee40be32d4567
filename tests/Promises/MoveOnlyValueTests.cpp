// Move-only values through every form that has one consumer, and moves instead of copies when
// a promise's last reader hands its value on.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "PromiseTestSupport.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Promises/DeferredPromise.hpp"
#include "kel/Promises/Firstly.hpp"
#include "kel/Promises/Promise.hpp"
#include "kel/Promises/When.hpp"

namespace kel {
namespace {

using Box = std::unique_ptr<int>;

// Waits until the promise settles and returns its value, read in place: a move-only value
// cannot be copied out.
template <class T>
const T& settledValue(const Promise<T>& promise) {
    test::waitUntilSettled(promise);
    return promise.value();
}

// A Promise<Box> fulfilled now, and one fulfilled later from `queue`.
Promise<Box> boxNow(int value) {
    return Promise<Box>::fulfilled(std::make_unique<int>(value));
}
Promise<Box> boxLater(const DispatchQueue& queue, int value) {
    return Promise<Box>([&queue, value](auto fulfil, auto) {
        queue.async([fulfil, value] { fulfil(std::make_unique<int>(value)); });
    });
}

// A list that owns the only handles of its promises (a braced list would copy them).
template <class T, class... More>
std::vector<Promise<T>> listOf(Promise<T> first, More... more) {
    std::vector<Promise<T>> list;
    list.push_back(std::move(first));
    (list.push_back(std::move(more)), ...);
    return list;
}

// Counts the copies made of it; moves are free, and copy assignment would not compile.
struct Counted {
    explicit Counted(std::shared_ptr<std::atomic<int>> counter) : copies(std::move(counter)) {}
    Counted(const Counted& other) : copies(other.copies) { ++*copies; }
    Counted(Counted&&) noexcept = default;
    Counted& operator=(const Counted&) = delete;
    Counted& operator=(Counted&&) noexcept = default;
    std::shared_ptr<std::atomic<int>> copies;
};

TEST(MoveOnlyValue, SettledByEveryKindOfSettlerAndReadByConstReference) {
    auto global = DispatchQueue::global();
    auto fromFulfilled = boxNow(1).then(zalgo(), [](const Box& b) { return *b + 1; });
    EXPECT_EQ(settledValue(fromFulfilled), 2);

    auto fromBody = boxLater(global, 3).then(
        global, [](const Box& b) { return std::make_unique<int>(*b * 2); });
    EXPECT_EQ(*settledValue(fromBody), 6);

    DeferredPromise<Box> deferred;
    auto fromDeferred = deferred.promise.then(zalgo(), [](const Box& b) { return *b; });
    deferred.resolve(std::make_unique<int>(7));
    EXPECT_EQ(settledValue(fromDeferred), 7);
}

TEST(MoveOnlyValue, FlatteningThenAndFirstlyHandTheInnerValueOn) {
    auto global = DispatchQueue::global();
    auto start = Promise<int>::fulfilled(1);
    auto settledInner = start.then(
        global, [](int v) { return Promise<Box>::fulfilled(std::make_unique<int>(v + 1)); });
    auto pendingInner = start.then(global, [global](int v) { return boxLater(global, v + 2); });
    // The inner promise is itself a `then`: its settler is the handler, not a reader.
    auto derivedInner = start.then(zalgo(), [global](int v) {
        return Promise<int>::fulfilled(v + 3).then(global,
                                                   [](int w) { return std::make_unique<int>(w); });
    });
    EXPECT_EQ(*settledValue(settledInner), 2);
    EXPECT_EQ(*settledValue(pendingInner), 3);
    EXPECT_EQ(*settledValue(derivedInner), 4);

    auto firstSettled = firstly(global, [] { return boxNow(5); });
    auto firstPending = firstly(global, [global] { return boxLater(global, 6); });
    EXPECT_EQ(*settledValue(firstSettled), 5);
    EXPECT_EQ(*settledValue(firstPending), 6);
}

TEST(MoveOnlyValue, RaceAllAndWhenMoveEachInputTheyAreTheLastReaderOfAndPassSharedErrors) {
    auto global = DispatchQueue::global();
    DeferredPromise<Box> never;
    auto raced = Promise<Box>::race(
        listOf(never.promise.then(zalgo(), [](const Box&) { return std::make_unique<int>(0); }),
               boxLater(global, 1)));
    EXPECT_EQ(*settledValue(raced), 1);

    auto all = Promise<Box>::all(listOf(boxNow(2), boxLater(global, 3)));
    const auto& allValues = settledValue(all);
    ASSERT_EQ(allValues.size(), 2U);
    EXPECT_EQ(*allValues[0] + *allValues[1], 5);

    auto list = when(global, listOf(boxLater(global, 4), boxNow(5)));
    const auto& listValues = settledValue(list);
    ASSERT_EQ(listValues.size(), 2U);
    EXPECT_EQ(*listValues[0] * 10 + *listValues[1], 45);

    auto pair = when(global, boxLater(global, 6), boxNow(7));
    EXPECT_EQ(*std::get<1>(settledValue(pair)), 7);
    auto triple =
        when(global, boxLater(global, 8), Promise<std::string>::fulfilled("x"), boxNow(9));
    EXPECT_EQ(*std::get<0>(settledValue(triple)) + *std::get<2>(settledValue(triple)), 17);

    // A rejection carries no value: a shared move-only input may still fail a join.
    auto failed = Promise<Box>::rejected(std::runtime_error("no box"));
    auto keptCopy = failed;
    EXPECT_TRUE(Promise<Box>::race(listOf(failed, keptCopy)).isRejected());
}

TEST(MoveOnlyValueDeathTest, HandingOnAValueOthersCanStillReadStopsTheProcess) {
    EXPECT_DEATH(
        {
            auto shared = boxNow(1);
            auto flattened =
                Promise<int>::fulfilled(0).then(zalgo(), [shared](int) { return shared; });
        },
        "move-only value");
}

TEST(MoveOnlyValue, AUniquelyOwnedCopyableValueIsMovedAndASharedOneCopied) {
    auto copies = std::make_shared<std::atomic<int>>(0);
    auto flattened = Promise<int>::fulfilled(0).then(
        zalgo(), [copies](int) { return Promise<Counted>::fulfilled(Counted(copies)); });
    auto joined = Promise<Counted>::all(
        listOf(Promise<Counted>([copies](auto fulfil, auto) { fulfil(Counted(copies)); })));
    test::Pending<Counted> pending;
    auto raced = Promise<Counted>::race(std::vector<Promise<Counted>>(1, pending.promise));
    (*pending.fulfill)(Counted(copies));
    settledValue(flattened);
    settledValue(joined);
    settledValue(raced);
    // `pending` still holds its promise: the race copies that value, and nothing else is copied.
    EXPECT_EQ(copies->load(), 1);
}

TEST(MoveOnlyValue, CallablesAndValuesAreNotCopiedAlongTheChain) {
    auto copies = std::make_shared<std::atomic<int>>(0);
    DispatchQueue queue("test.copies");
    test::Pending<Counted> source;
    auto end =
        source.promise
            .then(queue, [counter = Counted(copies)](const Counted& v) { return v.copies; })
            .then(zalgo(), [](const std::shared_ptr<std::atomic<int>>& c) { return c->load(); });
    (*source.fulfill)(Counted(copies));
    EXPECT_EQ(test::await(end).value(), 0);
    EXPECT_EQ(copies->load(), 0);
}

}  // namespace
}  // namespace kel

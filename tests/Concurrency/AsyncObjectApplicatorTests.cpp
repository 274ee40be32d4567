#include "kel/Concurrency/AsyncObjectApplicator.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "SchedulerTestSupport.hpp"
#include "kel/Promises/DeferredPromise.hpp"

namespace {

using kel::schedulertest::drainMainQueue;
using kel::schedulertest::pumpUntil;

struct ImageView {
    std::vector<std::string> shown;  // main thread only
};

using Applicator = kel::AsyncObjectApplicator<ImageView, std::string>;

void show(ImageView& view, const std::string& image) {
    view.shown.push_back(image);
}

TEST(AsyncObjectApplicatorOrder, OnlyTheLatestPromisePerObjectIsApplied) {
    Applicator applicator;
    auto view = std::make_shared<ImageView>();
    kel::DeferredPromise<std::string> older;
    kel::DeferredPromise<std::string> newer;
    applicator.apply(view, older.promise, show);
    applicator.apply(view, newer.promise, show);

    // The newer value arrives first, the older one after it: the older must not overwrite it.
    newer.resolve("new");
    pumpUntil([&] { return !view->shown.empty(); });
    older.resolve("old");
    drainMainQueue();
    EXPECT_EQ(view->shown, std::vector<std::string>{"new"});

    // The other way round: an older value arriving first is dropped as well.
    kel::DeferredPromise<std::string> first;
    kel::DeferredPromise<std::string> second;
    applicator.apply(view, first.promise, show);
    applicator.apply(view, second.promise, show);
    first.resolve("first");
    second.resolve("second");
    pumpUntil([&] { return view->shown.size() == 2; });
    drainMainQueue();
    EXPECT_EQ(view->shown, (std::vector<std::string>{"new", "second"}));
}

TEST(AsyncObjectApplicatorOrder, ObjectsAreIndependentAndFailuresApplyNothing) {
    Applicator applicator;
    auto left = std::make_shared<ImageView>();
    auto right = std::make_shared<ImageView>();
    applicator.apply(left, kel::Promise<std::string>::fulfilled("l"), show);
    applicator.apply(right, kel::Promise<std::string>::fulfilled("r"), show);
    pumpUntil([&] { return !left->shown.empty() && !right->shown.empty(); });
    EXPECT_EQ(left->shown, std::vector<std::string>{"l"});
    EXPECT_EQ(right->shown, std::vector<std::string>{"r"});

    applicator.apply(left, kel::Promise<std::string>::rejected(std::runtime_error("no image")),
                     show);
    drainMainQueue();
    EXPECT_EQ(left->shown, std::vector<std::string>{"l"});
}

TEST(AsyncObjectApplicatorThreads, AppliesOnTheMainThreadWhateverThreadAsked) {
    Applicator applicator;
    auto view = std::make_shared<ImageView>();
    bool onMain = false;
    std::thread caller([&] {
        applicator.apply(view, kel::Promise<std::string>::fulfilled("x"),
                         [&](const std::shared_ptr<ImageView>& target, const std::string& image) {
                             onMain = kel::isMainThread();
                             target->shown.push_back(image);
                         });
    });
    caller.join();
    pumpUntil([&] { return !view->shown.empty(); });
    EXPECT_TRUE(onMain);
}

TEST(AsyncObjectApplicatorLifetime, DoesNotKeepObjectsAliveAndDropsDeadOnes) {
    Applicator applicator;
    auto view = std::make_shared<ImageView>();
    std::weak_ptr<ImageView> watcher = view;
    kel::DeferredPromise<std::string> pending;
    bool called = false;
    applicator.apply(view, pending.promise, [&](ImageView&, const std::string&) { called = true; });

    view.reset();
    EXPECT_TRUE(watcher.expired());
    pending.resolve("late");
    drainMainQueue();
    EXPECT_FALSE(called);
}

TEST(AsyncObjectApplicatorLifetime, PendingApplicationsOutliveTheApplicatorHarmlessly) {
    auto view = std::make_shared<ImageView>();
    kel::DeferredPromise<std::string> pending;
    {
        Applicator applicator;
        applicator.apply(view, pending.promise, show);
    }
    pending.resolve("after");
    drainMainQueue();
    EXPECT_TRUE(view->shown.empty());
}

}  // namespace

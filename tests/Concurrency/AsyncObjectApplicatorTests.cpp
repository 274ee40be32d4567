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
using Images = std::vector<std::string>;

void show(ImageView& view, const std::string& image) {
    view.shown.push_back(image);
}

TEST(AsyncObjectApplicatorOrder, OnlyTheLatestPromisePerObjectIsApplied) {
    Applicator applicator;
    auto view = std::make_shared<ImageView>();
    auto other = std::make_shared<ImageView>();
    kel::DeferredPromise<std::string> older, newer;
    applicator.apply(view, older.promise, show);
    applicator.apply(view, newer.promise, show);
    applicator.apply(other, kel::Promise<std::string>::fulfilled("other"), show);

    newer.resolve("new");
    pumpUntil([&] { return !view->shown.empty(); });
    older.resolve("old");  // arrives after the newer one was applied
    drainMainQueue();
    EXPECT_EQ(view->shown, Images{"new"});
    EXPECT_EQ(other->shown, Images{"other"});

    kel::DeferredPromise<std::string> first, second;
    applicator.apply(view, first.promise, show);
    applicator.apply(view, second.promise, show);
    first.resolve("first");  // arrives before the newer one
    second.resolve("second");
    applicator.apply(other, kel::Promise<std::string>::rejected(std::runtime_error("none")), show);
    drainMainQueue();
    EXPECT_EQ(view->shown, (Images{"new", "second"}));
    EXPECT_EQ(other->shown, Images{"other"});
}

TEST(AsyncObjectApplicatorThreads, AppliesOnTheMainThreadWhateverThreadAsked) {
    Applicator applicator;
    auto view = std::make_shared<ImageView>();
    bool onMain = false;
    std::thread([&] {
        applicator.apply(view, kel::Promise<std::string>::fulfilled("x"),
                         [&](const std::shared_ptr<ImageView>& target, const std::string& image) {
                             onMain = kel::isMainThread();
                             show(*target, image);
                         });
    }).join();
    pumpUntil([&] { return !view->shown.empty(); });
    EXPECT_TRUE(onMain);
}

TEST(AsyncObjectApplicatorLifetime, DropsDeadObjectsAndOutlivesItsApplicator) {
    auto applicator = std::make_unique<Applicator>();
    auto doomed = std::make_shared<ImageView>();
    std::weak_ptr<ImageView> watcher = doomed;
    auto survivor = std::make_shared<ImageView>();
    kel::DeferredPromise<std::string> forDoomed, forSurvivor;
    bool doomedApplied = false;
    applicator->apply(doomed, forDoomed.promise,
                      [&](ImageView&, const std::string&) { doomedApplied = true; });
    applicator->apply(survivor, forSurvivor.promise, show);

    doomed.reset();
    EXPECT_TRUE(watcher.expired()) << "a pending application kept its object alive";
    forDoomed.resolve("late");
    applicator.reset();
    forSurvivor.resolve("after the applicator");
    drainMainQueue();
    EXPECT_FALSE(doomedApplied);
    EXPECT_TRUE(survivor->shown.empty());
}

}  // namespace

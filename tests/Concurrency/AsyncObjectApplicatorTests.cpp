#include "kel/Concurrency/AsyncObjectApplicator.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Watchdog.hpp"
#include "kel/Promises/DeferredPromise.hpp"

namespace {

using kel::test::drainMainQueue;

struct ImageView {
    std::vector<std::string> shown;  // main thread only
};

using Applicator = kel::AsyncObjectApplicator<ImageView, std::string>;
using Images = std::vector<std::string>;

void show(ImageView& view, const std::string& image) {
    EXPECT_TRUE(kel::isMainThread());
    view.shown.push_back(image);
}

// The first promise settles before the latest one, the second after the latest was applied:
// neither reaches the view.
TEST(AsyncObjectApplicatorOrder, OnlyTheLatestPromisePerObjectIsAppliedOnTheMainThread) {
    Applicator applicator;
    auto view = std::make_shared<ImageView>();
    auto other = std::make_shared<ImageView>();
    kel::DeferredPromise<std::string> first, second, latest;
    applicator.apply(view, first.promise, show);
    applicator.apply(view, second.promise, show);
    std::thread([&] { applicator.apply(view, latest.promise, show); }).join();
    applicator.apply(other, kel::Promise<std::string>::fulfilled("other"), show);

    first.resolve("first");
    latest.resolve("latest");
    drainMainQueue();
    second.resolve("second");
    drainMainQueue();
    EXPECT_EQ(view->shown, Images{"latest"});
    EXPECT_EQ(other->shown, Images{"other"});
}

// A pending application keeps neither its object nor the applicator's state alive, and applies
// nothing once either is gone.
TEST(AsyncObjectApplicatorLifetime, DropsDeadObjectsAndOutlivesItsApplicator) {
    auto applicator = std::make_unique<Applicator>();
    auto doomed = std::make_shared<ImageView>();
    std::weak_ptr<ImageView> watcher = doomed;
    auto survivor = std::make_shared<ImageView>();
    kel::DeferredPromise<std::string> forDoomed, forSurvivor;
    applicator->apply(doomed, forDoomed.promise, show);
    applicator->apply(survivor, forSurvivor.promise, show);

    doomed.reset();
    EXPECT_TRUE(watcher.expired());
    forDoomed.resolve("late");
    applicator.reset();
    forSurvivor.resolve("after the applicator");
    drainMainQueue();
    EXPECT_TRUE(survivor->shown.empty());
}

}  // namespace

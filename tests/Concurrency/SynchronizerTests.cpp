#include "kel/Concurrency/Synchronizer.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "Watchdog.hpp"
#include "kel/Promises/DeferredPromise.hpp"

namespace {

using kel::test::drainMainQueue;
using kel::test::pumpUntil;

bool isSettled(const kel::Promise<void>& promise) {
    return promise.resolution().has_value();
}

// A result is only ever fulfilled, so settling is success. A rejected job and a closure that
// throws leave the group without holding up the others, and the rejected job's result never
// settles.
TEST(SynchronizerJobs, ResultsWaitOnTheQueueUntilEveryOverlappingJobHasSettled) {
    kel::Synchronizer synchronizer;
    const kel::DispatchQueue& main = kel::DispatchQueue::main();
    kel::DeferredPromise<void> first, second, failing;
    auto firstResult = synchronizer.synchronize(main, [&] { return first.promise; });
    bool onMain = false;
    auto secondResult =
        synchronizer.synchronize(main, [&] { return second.promise; }).then(kel::zalgo(), [&] {
            onMain = kel::isMainThread();
        });
    // A job may capture move-only state.
    auto failedResult = synchronizer.synchronize(
        main, [&, owned = std::make_unique<int>(1)] { return failing.promise; });
    EXPECT_THROW(synchronizer.synchronize(
                     main, []() -> kel::Promise<void> { throw std::runtime_error("no job"); }),
                 std::runtime_error);

    second.resolve();
    failing.reject(std::runtime_error("job failed"));
    drainMainQueue();
    EXPECT_FALSE(isSettled(secondResult)) << "fulfilled while the first job ran";
    first.resolve();
    ASSERT_TRUE(pumpUntil([&] { return isSettled(firstResult) && isSettled(secondResult); }));
    EXPECT_TRUE(onMain);
    drainMainQueue();
    EXPECT_FALSE(isSettled(failedResult));
}

}  // namespace

#include "SchedulersDemo.hpp"

#include <chrono>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kel/Concurrency/AsyncObjectApplicator.hpp"
#include "kel/Concurrency/AsyncOperation.hpp"
#include "kel/Concurrency/Synchronizer.hpp"
#include "kel/Concurrency/TaskScheduler.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/RunLoop.hpp"
#include "kel/Promises/DeferredPromise.hpp"
#include "kel/Promises/Promise.hpp"

namespace {

using kel::DispatchQueue;
using kel::Promise;

// A simulated feed download: answers from a timer a little later, on another thread.
class FetchFeedOperation final : public kel::AsyncOperation<std::vector<std::string>> {
  protected:
    void perform(CompletionHandler completion) override {
        DispatchQueue::global().asyncAfter(kel::DispatchTime::now() + 0.02, [completion] {
            completion(kel::Result<std::vector<std::string>>::success(
                {"Release notes", "Team offsite", "Quarterly report"}));
        });
    }
};

// A table cell that is reused for several rows while their avatars load.
struct AvatarCell {
    std::string avatar = "(placeholder)";
};

template <class T>
void waitOnMain(const Promise<T>& promise) {
    kel::RunLoop::runUntil([&] { return promise.resolution().has_value(); },
                           std::chrono::seconds(5));
}

void waitOnMain(const std::function<bool()>& done) {
    kel::RunLoop::runUntil(done, std::chrono::seconds(5));
}

}  // namespace

void runSchedulersDemo() {
    auto& scheduler = kel::TaskScheduler::shared();
    std::cout << "  shared scheduler queues: " << scheduler.concurrentDispatchQueue().label()
              << ", " << scheduler.concurrentOperationQueue()->name() << ", "
              << scheduler.serialOperationQueue()->name() << "\n";

    // An operation that completes on another thread, turned into a promise.
    auto fetch = std::make_shared<FetchFeedOperation>();
    std::cout << "  fetching the feed with operation " << fetch->operationID() << "\n";
    auto shown = scheduler.promise(fetch).then(
        DispatchQueue::main(), [](const std::vector<std::string>& items) {
            std::cout << "  feed arrived on the main thread with " << items.size()
                      << " items; first: \"" << items.front() << "\"\n";
        });
    waitOnMain(shown);

    // An operation cancelled before it starts cancels its promise instead of failing it.
    auto abandoned = std::make_shared<FetchFeedOperation>();
    abandoned->cancel();
    bool heardCancel = false;
    scheduler.promise(abandoned).cancelled(DispatchQueue::main(), [&heardCancel] {
        std::cout << "  a cancelled fetch cancelled its promise\n";
        heardCancel = true;
    });
    waitOnMain([&] { return heardCancel; });

    // Low-priority work runs one item at a time, in order.
    std::mutex linesLock;
    std::vector<std::string> lines;  // guarded by linesLock
    for (const char* line : {"open log", "write entry", "close log"}) {
        scheduler.scheduleLowPriority([&, line] {
            std::lock_guard guard(linesLock);
            lines.emplace_back(line);
        });
    }
    bool reminded = false;
    scheduler.scheduleAfter(0.03, [&] { DispatchQueue::main().async([&] { reminded = true; }); });
    waitOnMain([&] {
        std::lock_guard guard(linesLock);
        return lines.size() == 3 && reminded;
    });
    std::cout << "  low-priority log work ran in order: " << lines[0] << ", " << lines[1] << ", "
              << lines[2] << "; a delayed reminder fired after 30 ms\n";

    // Two syncs overlap: each caller hears "done" only once neither is running any more.
    auto synchronizer = std::make_shared<kel::Synchronizer>();
    kel::DeferredPromise<void> contacts;
    kel::DeferredPromise<void> calendar;
    auto contactsDone =
        synchronizer->synchronize(DispatchQueue::main(), [&] { return contacts.promise; });
    auto calendarDone =
        synchronizer->synchronize(DispatchQueue::main(), [&] { return calendar.promise; });
    auto calendarReported = calendarDone.then(DispatchQueue::main(), [&] {
        std::cout << "  calendar sync reported done (contacts finished: "
                  << (contacts.promise.resolution().has_value() ? "yes" : "no") << ")\n";
    });
    calendar.resolve();
    DispatchQueue::global().asyncAfter(kel::DispatchTime::now() + 0.02,
                                       [resolve = contacts.resolve] { resolve(); });
    waitOnMain([&] {
        return contactsDone.resolution().has_value() && calendarReported.resolution().has_value();
    });

    // A reused cell asks for two avatars; only the later request may reach it.
    kel::AsyncObjectApplicator<AvatarCell, std::string> applicator;
    auto cell = std::make_shared<AvatarCell>();
    kel::DeferredPromise<std::string> slowAvatar;
    auto fastAvatar = Promise<std::string>::fulfilled("bob.png");
    auto setAvatar = [](AvatarCell& target, const std::string& avatar) { target.avatar = avatar; };
    applicator.apply(cell, slowAvatar.promise, setAvatar);
    applicator.apply(cell, fastAvatar, setAvatar);
    waitOnMain([&] { return cell->avatar == "bob.png"; });
    slowAvatar.resolve("alice.png");
    bool settledLate = false;
    DispatchQueue::main().async([&] { settledLate = true; });
    waitOnMain([&] { return settledLate; });
    std::cout << "  the reused cell shows " << cell->avatar
              << " (the older alice.png arrived later and was dropped)\n";
}

#include "DispatchDemo.hpp"

#include <kel/Platform/DispatchGroup.hpp>
#include <kel/Platform/DispatchQueue.hpp>
#include <kel/Platform/Operation.hpp>
#include <kel/Platform/OperationQueue.hpp>
#include <kel/Platform/RunLoop.hpp>

#include <atomic>
#include <chrono>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

// Lines printed from several threads stay whole.
void say(const std::string& line) {
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    std::cout << "  " << line << "\n";
}

}  // namespace

void runDispatchDemo() {
    using namespace std::chrono_literals;
    std::cout << "\n== Dispatch queues and operations\n";

    // A serial queue owns the application's settings; readers use sync, writers async.
    kel::DispatchQueue settingsQueue("demo.settings");
    std::vector<std::string> settings;  // touched only on settingsQueue
    settingsQueue.async([&] { settings.push_back("theme=dark"); });
    settingsQueue.async([&] { settings.push_back("sync=on"); });
    auto count = settingsQueue.sync([&] { return settings.size(); });
    say("settings queue holds " + std::to_string(count) + " entries (writes ran in order)");

    // Thumbnails are decoded in parallel on the global queue; a group reports on the main queue.
    kel::DispatchGroup thumbnails;
    std::atomic<int> decoded{0};
    for (int i = 0; i < 8; ++i) {
        kel::DispatchQueue::global(kel::DispatchQoS::userInitiated).async(thumbnails, [&] {
            decoded.fetch_add(1);
        });
    }
    bool gallery = false;
    thumbnails.notify(kel::DispatchQueue::main(), [&] {
        say("main queue: all " + std::to_string(decoded.load()) +
            " thumbnails decoded, gallery shown");
        gallery = true;
    });

    // A delayed retry on the main queue, on the runtime's one timer thread.
    bool retried = false;
    auto scheduled = kel::DispatchTime::now();
    kel::DispatchQueue::main().asyncAfter(scheduled + 0.05, [&] {
        auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(
            kel::DispatchTime::now().timePoint() - scheduled.timePoint());
        say("main queue: retry timer fired after " + std::to_string(waited.count()) + " ms");
        retried = true;
    });

    // An import pipeline: download -> parse -> save, two at a time, with one cancelled job.
    auto imports = std::make_shared<kel::OperationQueue>();
    imports->setName("demo.imports");
    imports->setMaxConcurrentOperationCount(2);
    std::vector<std::shared_ptr<kel::Operation>> steps;
    for (const char* step : {"download", "parse", "save"}) {
        auto operation = kel::BlockOperation::make([step] { say(std::string("import: ") + step); });
        if (!steps.empty()) {
            operation->addDependency(steps.back());
        }
        steps.push_back(operation);
    }
    auto obsolete = kel::BlockOperation::make([] { say("import: obsolete job ran (unexpected)"); });
    obsolete->setCompletionBlock([] { say("import: obsolete job cancelled before it started"); });
    obsolete->addDependency(steps.back());
    obsolete->cancel();
    imports->addOperations({steps[2], steps[1], steps[0], obsolete}, false);

    kel::RunLoop::runUntil([&] { return gallery && retried; }, 5s);
    imports->waitUntilAllOperationsAreFinished();
    say("operation queue empty: " + std::to_string(imports->operationCount()) + " left");
}

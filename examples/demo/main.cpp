// KelDemo — a simulated application life cycle on top of KelFoundation.
//
// It plays the part of an application: it launches, starts its services, does its work on
// queues and promises, handles a few events on the main run loop, and quits, printing what each
// subsystem does along the way. Each subsystem's part lives in <Area>Demo.cpp.
#include <kel/KelFoundation.hpp>

#include <iostream>
#include <memory>

#include "CollectionsDemo.hpp"
#include "ContainerDemo.hpp"
#include "DispatchDemo.hpp"
#include "EventsDemo.hpp"
#include "FoundationDemo.hpp"
#include "LifecycleDemo.hpp"
#include "NetworkingDemo.hpp"
#include "PromisesDemo.hpp"
#include "SchedulersDemo.hpp"
#include "UtilitiesDemo.hpp"

namespace {

// Log lines of the library go to the journal by default; the demo shows them on the terminal,
// redacted as the system log would show them.
class TerminalLogSink final : public kel::LogSink {
  public:
    void write(const kel::LogRecord& record) override {
        std::cout << (record.level == kel::LogLevel::error ? "  [log:error] " : "  [log] ")
                  << record.message(true) << "\n";
    }
};

}  // namespace

int main() {
    kel::ScopedLogSink terminal(std::make_shared<TerminalLogSink>());

    std::cout << "== Launch\n";
    kel::Log::write(kel::LogLevel::default_, "launching %{public}@ for user %@", "KelDemo",
                    "alice");
    kel::Error error = kel::makeError(kel::DomainError("com.example.demo", 42));
    std::cout << "  errors are values: " << kel::errorDescription(error) << "\n";

    runFoundationDemo();
    runDispatchDemo();
    std::cout << "\n== Promises\n";
    runPromisesDemo();
    std::cout << "\n== Task schedulers and asynchronous operations\n";
    runSchedulersDemo();
    runCollectionsDemo();
    runEventsDemo();
    runLifecycleDemo();
    runContainerDemo();
    runUtilitiesDemo();
    runNetworkingDemo();

    // The application's main thread ends in its run loop; events arrive as main-queue work.
    std::cout << "\n== Event loop\n";
    kel::DispatchQueue::global().async([] {
        kel::DispatchQueue::main().async([] {
            std::cout << "  main queue: handled the 'will terminate' event on the main thread: "
                      << std::boolalpha << kel::isMainThread() << "\n";
            kel::RunLoop::stop();
        });
    });
    kel::RunLoop::run();

    std::cout << "\nDemo finished.\n";
    return 0;
}

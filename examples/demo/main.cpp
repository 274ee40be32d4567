// KelDemo — a simulated application life cycle on top of KelFoundation.
//
// It plays the part of an application: start-up, work on queues, events forwarded to the
// library, and shutdown, printing what each subsystem does along the way.
#include <kel/KelFoundation.hpp>

#include "FoundationDemo.hpp"
#include "UtilitiesDemo.hpp"

#include <iostream>
#include <memory>

namespace {

// Log lines of the library go to the journal by default; the demo shows them on the terminal.
class TerminalLogSink final : public kel::LogSink {
public:
    void write(const kel::LogRecord& record) override {
        std::cout << (record.level == kel::LogLevel::error ? "  [log:error] " : "  [log] ")
                  << record.message(true) << "\n";
    }
};

void section(const char* title) { std::cout << "\n== " << title << "\n"; }

}  // namespace

int main() {
    kel::ScopedLogSink terminal(std::make_shared<TerminalLogSink>());

    section("Errors and logging");
    kel::Error error = kel::makeError(kel::DomainError("com.example.demo", 42));
    std::cout << "  an error value: " << kel::errorDescription(error) << "\n";
    kel::Log::write(kel::LogLevel::default_, "launching %{public}@ for user %@", "KelDemo",
                    "alice");

    runFoundationDemo();
    runUtilitiesDemo();

    std::cout << "\nDemo finished.\n";
    return 0;
}

#include "kel/Lifecycle/BackgroundFetchManager.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "PromiseTestSupport.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/Log.hpp"
#include "kel/Promises/WhenError.hpp"

namespace {

using kel::BackgroundFetchManager;
using kel::LogRecord;
using kel::Promise;
using kel::test::makeTestError;
using kel::test::pumpUntilSettled;
using Result = kel::BackgroundFetchResult;

// The lines as the system log shows them: public arguments shown, private ones redacted.
const std::string skipped =
    "Background fetch manager will skip background fetch because there are no workers";
std::string performing(int workers) {
    return "Background fetch manager will perform background fetch with " +
           std::to_string(workers) + " workers";
}
const std::string timedOut = "Background fetch manager timed out performing background fetch";
std::string succeeded(const std::string& result) {
    return "Background fetch manager successfully performed background fetch with result: " +
           result;
}

// Answers with a settled result, or with its pending promise when made without one.
class Worker : public kel::BackgroundFetchWorker {
  public:
    explicit Worker(std::optional<Result> answer = std::nullopt) : answer_(answer) {}

    Promise<Result> performBackgroundFetch() override {
        ++calls;
        return answer_ ? Promise<Result>::fulfilled(*answer_) : pending.promise;
    }

    int calls = 0;
    kel::test::Pending<Result> pending;

  private:
    std::optional<Result> answer_;
};

struct BackgroundFetch : ::testing::Test {
    // Every line written so far, at the default level, as the system log renders it.
    void expectLines(const std::vector<std::string>& expected) const {
        std::vector<std::string> lines;
        for (const LogRecord& record : capture->records()) {
            EXPECT_TRUE(record.level == kel::LogLevel::default_) << record.format;
            lines.push_back(record.message(true));
        }
        EXPECT_EQ(lines, expected);
    }

    // Pumps the main queue until main-queue work due `seconds` from now has run.
    static void pumpPast(double seconds) {
        bool reached = false;
        kel::DispatchQueue::main().asyncAfter(kel::DispatchTime::now() + seconds,
                                              [&reached] { reached = true; });
        kel::test::requireSettled(
            kel::RunLoop::runUntil([&] { return reached; }, kel::test::kWatchdogTimeout));
    }

    std::shared_ptr<kel::CapturingLogSink> capture = std::make_shared<kel::CapturingLogSink>();
    kel::ScopedLogSink scopedSink{capture};
};

TEST_F(BackgroundFetch, WithoutRegistrationsAnswersNoDataAtOnceAndSchedulesNothing) {
    BackgroundFetchManager manager(0.05);
    EXPECT_EQ(manager.performBackgroundFetch().resolution()->value(), Result::noData);
    pumpPast(0.2);
    expectLines({skipped});
}

// Registrations whose workers died, or that were ended, count in the first line but do not run;
// each fetch prunes them. With every worker dead the answer is noData, and the next fetch finds
// no registration at all.
TEST_F(BackgroundFetch, NewDataIfAnyWorkerHasItAndEndedRegistrationsArePruned) {
    BackgroundFetchManager manager;
    EXPECT_EQ(manager.fetchTimeLimit(), 10.0);
    auto quiet = std::make_shared<Worker>(Result::noData);
    auto busy = std::make_shared<Worker>(Result::newData);
    manager.add(quiet);
    manager.add(std::make_shared<Worker>(Result::newData));
    manager.add(busy);
    manager.add(busy)->keepAlive(nullptr);
    EXPECT_EQ(pumpUntilSettled(manager.performBackgroundFetch()).value(), Result::newData);
    EXPECT_EQ(busy->calls, 1);

    quiet.reset();
    busy.reset();
    EXPECT_EQ(pumpUntilSettled(manager.performBackgroundFetch()).value(), Result::noData);
    EXPECT_EQ(pumpUntilSettled(manager.performBackgroundFetch()).value(), Result::noData);
    expectLines({performing(4), succeeded("newData"), performing(2), succeeded("noData"), skipped});
}

TEST_F(BackgroundFetch, TimesOutAndIgnoresALateAnswer) {
    BackgroundFetchManager manager(0.1);
    auto prompt = std::make_shared<Worker>(Result::newData);
    auto silent = std::make_shared<Worker>();
    manager.add(prompt);
    manager.add(silent);
    const auto fetch = manager.performBackgroundFetch();
    const auto error = pumpUntilSettled(fetch).error();
    EXPECT_EQ(kel::errorAs<BackgroundFetchManager::Errors>(error),
              BackgroundFetchManager::Errors::timedOut);

    // The late answer goes through the join on the zalgo queue, then to the main queue.
    (*silent->pending.fulfill)(Result::newData);
    kel::zalgo().sync([] {});
    pumpPast(0);
    EXPECT_TRUE(fetch.resolution()->isRejected());
    expectLines({performing(2), timedOut});
}

// The join waits for every worker and reports every failure in registration order, whatever
// order they failed in; the time limit passing afterwards changes nothing.
TEST_F(BackgroundFetch, FailsWithTheWorkersErrorsAndIgnoresTheTimeLimitAfterwards) {
    BackgroundFetchManager manager(1.0);
    auto first = std::make_shared<Worker>();
    auto second = std::make_shared<Worker>();
    manager.add(first);
    manager.add(second);
    const auto firstError = makeTestError("first"), secondError = makeTestError("second");
    const auto fetch = manager.performBackgroundFetch();
    (*second->pending.reject)(secondError);
    (*first->pending.reject)(firstError);
    const auto error = kel::errorAs<kel::WhenError>(pumpUntilSettled(fetch).error());
    EXPECT_EQ(error->errors(), (std::vector<kel::Error>{firstError, secondError}));
    pumpPast(manager.fetchTimeLimit());
    expectLines({performing(2),
                 "Background fetch manager failed background fetch with error: "
                 "WhenError.errors([first, second])"});
}

}  // namespace

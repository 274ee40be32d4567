#include "kel/Lifecycle/BackgroundFetchManager.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "LifecycleTestSupport.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/DispatchTime.hpp"
#include "kel/Platform/Log.hpp"
#include "kel/Promises/WhenError.hpp"

namespace {

using kel::BackgroundFetchManager;
using kel::BackgroundFetchResult;
using kel::BackgroundFetchWorker;
using kel::LogArgument;
using kel::LogLevel;
using kel::LogRecord;
using kel::Promise;
using kel::testing::makeTestError;
using kel::testing::Pending;
using kel::testing::pumpMainQueue;
using kel::testing::pumpUntilSettled;
using Result = BackgroundFetchResult;

constexpr const char* kSkip =
    "Background fetch manager will skip background fetch because there are no workers";
constexpr const char* kPerform =
    "Background fetch manager will perform background fetch with %lu workers";
constexpr const char* kTimedOut = "Background fetch manager timed out performing background fetch";
constexpr const char* kSucceeded =
    "Background fetch manager successfully performed background fetch with result: %{public}@";
constexpr const char* kFailed =
    "Background fetch manager failed background fetch with error: %{public}@";

// Answers with a settled result, or with its pending promise when made without one.
class Worker : public BackgroundFetchWorker {
  public:
    explicit Worker(std::optional<Result> answer = std::nullopt) : answer_(answer) {}

    Promise<Result> performBackgroundFetch() override {
        ++calls;
        return answer_ ? Promise<Result>::fulfilled(*answer_) : pending.promise;
    }

    int calls = 0;
    Pending<Result> pending;

  private:
    std::optional<Result> answer_;
};

struct BackgroundFetchFixture : ::testing::Test {
    std::vector<LogRecord> records() const { return capture->records(); }

    // Pumps the main queue until `seconds` from now have passed (work due earlier has run).
    static void pumpPast(double seconds) {
        bool reached = false;
        kel::DispatchQueue::main().asyncAfter(kel::DispatchTime::now() + seconds,
                                              [&reached] { reached = true; });
        kel::testing::requireSettled(
            kel::RunLoop::runUntil([&] { return reached; }, kel::testing::kTimeout));
    }

    // Waits until a worker's late answer has gone through the join and reached the main queue.
    static void drainLateAnswer() {
        kel::zalgo().sync([] {});
        pumpMainQueue();
    }

    std::shared_ptr<kel::CapturingLogSink> capture = std::make_shared<kel::CapturingLogSink>();
    kel::ScopedLogSink scopedSink{capture};
};

LogRecord line(const char* format, std::vector<LogArgument> arguments = {}) {
    return LogRecord{LogLevel::default_, format, std::move(arguments)};
}

// Compares level, format and arguments, line by line.
void expectRecords(const std::vector<LogRecord>& actual, const std::vector<LogRecord>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        EXPECT_EQ(actual[i].format, expected[i].format);
        EXPECT_TRUE(actual[i].level == expected[i].level) << actual[i].format;
        EXPECT_TRUE(actual[i].arguments == expected[i].arguments) << actual[i].message();
    }
}

TEST_F(BackgroundFetchFixture, WithoutRegistrationsAnswersNoDataAtOnceAndSchedulesNothing) {
    BackgroundFetchManager manager(0.05);
    const auto fetch = manager.performBackgroundFetch();
    ASSERT_TRUE(fetch.resolution().has_value());
    EXPECT_EQ(fetch.resolution()->value(), Result::noData);
    pumpPast(0.2);
    expectRecords(records(), {line(kSkip)});
}

TEST_F(BackgroundFetchFixture, NewDataIfAnyWorkerHasNewData) {
    BackgroundFetchManager manager;
    EXPECT_EQ(manager.fetchTimeLimit(), 10.0);
    auto quiet = std::make_shared<Worker>(Result::noData);
    auto busy = std::make_shared<Worker>(Result::newData);
    manager.add(quiet);
    manager.add(busy);
    EXPECT_EQ(pumpUntilSettled(manager.performBackgroundFetch()).value(), Result::newData);
    expectRecords(records(), {line(kPerform, {2ul}), line(kSucceeded, {"newData"})});
}

// Dead workers still count in the first line; none runs, the answer is noData, and their
// tokens are pruned, so the next fetch finds no registration.
TEST_F(BackgroundFetchFixture, DeadWorkersAreCountedSkippedAndPruned) {
    BackgroundFetchManager manager;
    auto released = std::make_shared<Worker>(Result::newData);
    auto alive = std::make_shared<Worker>(Result::newData);
    manager.add(released);
    manager.add(alive)->keepAlive(nullptr);
    released.reset();

    EXPECT_EQ(pumpUntilSettled(manager.performBackgroundFetch()).value(), Result::noData);
    EXPECT_EQ(alive->calls, 0);
    EXPECT_EQ(pumpUntilSettled(manager.performBackgroundFetch()).value(), Result::noData);
    expectRecords(records(), {line(kPerform, {2ul}), line(kSucceeded, {"noData"}), line(kSkip)});
}

TEST_F(BackgroundFetchFixture, TimesOutAndIgnoresALateAnswer) {
    BackgroundFetchManager manager(0.1);
    auto prompt = std::make_shared<Worker>(Result::newData);
    auto silent = std::make_shared<Worker>();
    manager.add(prompt);
    manager.add(silent);

    const auto fetch = manager.performBackgroundFetch();
    const auto resolution = pumpUntilSettled(fetch);
    ASSERT_TRUE(resolution.isRejected());
    EXPECT_TRUE(kel::errorAs<BackgroundFetchManager::Errors>(resolution.error()) ==
                BackgroundFetchManager::Errors::timedOut);

    (*silent->pending.fulfill)(Result::newData);
    drainLateAnswer();
    EXPECT_TRUE(fetch.resolution()->isRejected());
    expectRecords(records(), {line(kPerform, {2ul}), line(kTimedOut)});
}

// The join waits for every worker and reports every failure in registration order, whatever
// order they failed in; the time limit passing afterwards changes nothing.
TEST_F(BackgroundFetchFixture, FailsWithTheWorkersErrorsAndIgnoresTheTimeLimitAfterwards) {
    BackgroundFetchManager manager(1.0);
    auto first = std::make_shared<Worker>();
    auto second = std::make_shared<Worker>();
    manager.add(first);
    manager.add(second);
    const auto firstError = makeTestError("first");
    const auto secondError = makeTestError("second");

    const auto fetch = manager.performBackgroundFetch();
    (*second->pending.reject)(secondError);
    (*first->pending.reject)(firstError);
    const auto resolution = pumpUntilSettled(fetch);
    ASSERT_TRUE(resolution.isRejected());
    const auto whenError = kel::errorAs<kel::WhenError>(resolution.error());
    ASSERT_TRUE(whenError.has_value());
    EXPECT_EQ(whenError->errors(), (std::vector<kel::Error>{firstError, secondError}));

    pumpPast(manager.fetchTimeLimit());
    expectRecords(records(),
                  {line(kPerform, {2ul}), line(kFailed, {"WhenError.errors([first, second])"})});
}

}  // namespace

#include "kel/Lifecycle/RemoteNotificationManager.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "LifecycleTestSupport.hpp"
#include "kel/Promises/WhenError.hpp"

namespace {

using kel::Promise;
using kel::RemoteNotificationFetchResult;
using kel::RemoteNotificationHandler;
using kel::RemoteNotificationManager;
using kel::RemoteNotificationPattern;
using kel::testing::await;
using nlohmann::json;
using Result = RemoteNotificationFetchResult;

// Answers every notification with `answer` (or the promise `next`, if set) and counts calls.
class Handler : public RemoteNotificationHandler {
  public:
    explicit Handler(Result answer = Result::noData) : answer_(answer) {}

    Promise<Result> handleRemoteNotification(const json& userInfo) override {
        ++calls;
        lastPayload = userInfo;
        if (onCall) {
            onCall();
        }
        return next ? *next : Promise<Result>::fulfilled(answer_);
    }

    int calls = 0;
    json lastPayload;
    std::function<void()> onCall;
    std::optional<Promise<Result>> next;

  private:
    Result answer_;
};

json withCategory(json category) {
    return json{{"aps", json{{"category", std::move(category)}}}};
}

TEST(RemoteNotificationAnswers, NewDataIfAnyHandlerHasNewDataOtherwiseNoData) {
    RemoteNotificationManager manager;
    EXPECT_EQ(await(manager.handleRemoteNotification(json::object())).value(), Result::noData);

    auto a = std::make_shared<Handler>(Result::noData);
    auto b = std::make_shared<Handler>(Result::newData);
    auto c = std::make_shared<Handler>(Result::noData);
    manager.add(a, RemoteNotificationPattern::any);
    manager.add(b, RemoteNotificationPattern::any);
    manager.add(c, RemoteNotificationPattern::any);
    const json payload = withCategory("x");
    EXPECT_EQ(await(manager.handleRemoteNotification(payload)).value(), Result::newData);
    EXPECT_EQ(c->lastPayload, payload);
    b.reset();
    EXPECT_EQ(await(manager.handleRemoteNotification(payload)).value(), Result::noData);
}

// A rejection is the join's: every handler's error, in registration order.
TEST(RemoteNotificationAnswers, ARejectedAnswerRejectsTheResult) {
    RemoteNotificationManager manager;
    const auto error = kel::testing::makeTestError("handler failed");
    auto failing = std::make_shared<Handler>();
    failing->next = Promise<Result>::rejected(error);
    auto fine = std::make_shared<Handler>(Result::newData);
    manager.add(failing, RemoteNotificationPattern::any);
    manager.add(fine, RemoteNotificationPattern::any);

    const auto resolution = await(manager.handleRemoteNotification(json::object()));
    ASSERT_TRUE(resolution.isRejected());
    const auto whenError = kel::errorAs<kel::WhenError>(resolution.error());
    ASSERT_TRUE(whenError.has_value());
    EXPECT_EQ(whenError->errors(), std::vector<kel::Error>{error});
}

TEST(RemoteNotificationRouting, CategoryMatchesOnlyAStringCategoryInsideAnApsObject) {
    RemoteNotificationManager manager;
    auto news = std::make_shared<Handler>();
    auto everything = std::make_shared<Handler>();
    manager.add(news, RemoteNotificationPattern::category("news"));
    manager.add(everything, RemoteNotificationPattern::any);

    const json nonMatching[] = {
        json::object(),
        json::array({"aps"}),
        json{{"aps", "news"}},
        json{{"aps", json::array({json{{"category", "news"}}})}},
        json{{"aps", json::object()}},
        withCategory(7),
        withCategory(json::array({"news"})),
        withCategory("News"),
        json{{"category", "news"}},
    };
    for (const json& payload : nonMatching) {
        manager.handleRemoteNotification(payload);
    }
    EXPECT_EQ(news->calls, 0);
    EXPECT_EQ(everything->calls, static_cast<int>(std::size(nonMatching)));

    manager.handleRemoteNotification(withCategory("news"));
    EXPECT_EQ(news->calls, 1);
}

// A handler that died is skipped and its token dropped in the same call: afterwards no
// registration exists, so whenActive queues its block again until the next add.
TEST(RemoteNotificationRegistrations, DeadHandlersAreSkippedAndPrunedByTheCall) {
    RemoteNotificationManager manager;
    auto handler = std::make_shared<Handler>();
    manager.add(handler, RemoteNotificationPattern::any);
    handler.reset();

    int ran = 0;
    manager.whenActive([&ran] { ++ran; });
    EXPECT_EQ(ran, 1);  // a registration exists, even though its handler died
    EXPECT_EQ(await(manager.handleRemoteNotification(json::object())).value(), Result::noData);
    manager.whenActive([&ran] { ++ran; });
    EXPECT_EQ(ran, 1);
    manager.add(std::make_shared<Handler>(), RemoteNotificationPattern::any);
    EXPECT_EQ(ran, 2);
}

// Blocks queued before the first handler run in order inside its add, with the handler already
// registered; a handler added while a notification is being handled is called from the next.
TEST(RemoteNotificationRegistrations, WhenActiveBlocksAndRegistrationsDuringACall) {
    RemoteNotificationManager manager;
    std::vector<std::string> journal;
    auto first = std::make_shared<Handler>();
    auto late = std::make_shared<Handler>();
    manager.whenActive([&] {
        journal.push_back("block 1");
        manager.handleRemoteNotification(json::object());
    });
    manager.whenActive([&] { journal.push_back("block 2"); });
    EXPECT_TRUE(journal.empty());

    first->onCall = [&] {
        journal.push_back("handler");
        manager.add(late, RemoteNotificationPattern::any);
        first->onCall = nullptr;
    };
    manager.add(first, RemoteNotificationPattern::any);
    EXPECT_EQ(journal, (std::vector<std::string>{"block 1", "handler", "block 2"}));
    EXPECT_EQ(late->calls, 0);
    manager.handleRemoteNotification(json::object());
    EXPECT_EQ(late->calls, 1);
}

}  // namespace

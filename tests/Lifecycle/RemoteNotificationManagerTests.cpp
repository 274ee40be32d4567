#include "kel/Lifecycle/RemoteNotificationManager.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "PromiseTestSupport.hpp"
#include "kel/Promises/WhenError.hpp"

namespace {

using kel::Promise;
using kel::RemoteNotificationManager;
using kel::RemoteNotificationPattern;
using kel::test::await;
using nlohmann::json;
using Result = kel::RemoteNotificationFetchResult;

// Answers with `answer`, counting calls; `onCall` lets a test act during a dispatch.
class Handler : public kel::RemoteNotificationHandler {
  public:
    explicit Handler(Promise<Result> answer = Promise<Result>::fulfilled(Result::noData))
        : answer_(std::move(answer)) {}

    Promise<Result> handleRemoteNotification(const json&) override {
        ++calls;
        if (onCall) {
            std::exchange(onCall, nullptr)();
        }
        return answer_;
    }

    int calls = 0;
    std::function<void()> onCall;

  private:
    Promise<Result> answer_;
};

std::shared_ptr<Handler> answering(Result result) {
    return std::make_shared<Handler>(Promise<Result>::fulfilled(result));
}

json withCategory(json category) {
    return {{"aps", {{"category", std::move(category)}}}};
}

// newData if any handler answers newData, else noData (also with no handler); a rejection is
// the join's WhenError.
TEST(RemoteNotificationAnswers, ReducedToOneResult) {
    RemoteNotificationManager manager;
    EXPECT_EQ(await(manager.handleRemoteNotification(json::object())).value(), Result::noData);
    auto a = answering(Result::noData), b = answering(Result::newData),
         c = answering(Result::noData);
    for (const auto& handler : {a, b, c}) {
        manager.add(handler, RemoteNotificationPattern::any);
    }
    EXPECT_EQ(await(manager.handleRemoteNotification(json::object())).value(), Result::newData);

    const auto error = kel::test::makeTestError("handler failed");
    auto failing = std::make_shared<Handler>(Promise<Result>::rejected(error));
    manager.add(failing, RemoteNotificationPattern::any);
    const auto rejection = await(manager.handleRemoteNotification(json::object())).error();
    EXPECT_EQ(kel::errorAs<kel::WhenError>(rejection)->errors(), std::vector<kel::Error>{error});
}

TEST(RemoteNotificationRouting, CategoryMatchesOnlyAStringCategoryInsideAnApsObject) {
    RemoteNotificationManager manager;
    auto news = std::make_shared<Handler>();
    auto everything = std::make_shared<Handler>();
    manager.add(news, RemoteNotificationPattern::category("news"));
    manager.add(everything, RemoteNotificationPattern::any);
    const json nonMatching[] = {
        json::object(),        json::array({"aps"}),
        json{{"aps", "news"}}, json{{"aps", json::array({json{{"category", "news"}}})}},
        withCategory(7),       withCategory(json::array({"news"})),
        withCategory("News"),  json{{"category", "news"}},
    };
    for (const json& payload : nonMatching) {
        manager.handleRemoteNotification(payload);
    }
    EXPECT_EQ(news->calls, 0);
    EXPECT_EQ(everything->calls, static_cast<int>(std::size(nonMatching)));
    manager.handleRemoteNotification(withCategory("news"));
    EXPECT_EQ(news->calls, 1);
}

// Blocks queued before the first handler run in order inside its add, with the handler already
// registered; a handler added while a notification is handled is called from the next one.
TEST(RemoteNotificationRegistrations, WhenActiveBlocksRegistrationsDuringACallAndDeadHandlers) {
    RemoteNotificationManager manager;
    std::vector<std::string> journal;
    auto first = std::make_shared<Handler>();
    auto late = std::make_shared<Handler>();
    manager.whenActive([&] {
        journal.push_back("block 1");
        manager.handleRemoteNotification(json::object());
    });
    manager.whenActive([&] { journal.push_back("block 2"); });
    first->onCall = [&] {
        journal.push_back("handler");
        manager.add(late, RemoteNotificationPattern::any);
    };
    EXPECT_TRUE(journal.empty());
    manager.add(first, RemoteNotificationPattern::any);
    EXPECT_EQ(journal, (std::vector<std::string>{"block 1", "handler", "block 2"}));
    EXPECT_EQ(late->calls, 0);
    manager.handleRemoteNotification(json::object());
    EXPECT_EQ(late->calls, 1);

    // A registration whose handler died still counts for whenActive until a notification skips
    // and prunes it; then blocks wait for the next add again.
    first.reset();
    late.reset();
    int ran = 0;
    manager.whenActive([&ran] { ++ran; });
    EXPECT_EQ(ran, 1) << "dead registrations still count until pruned";
    EXPECT_EQ(await(manager.handleRemoteNotification(json::object())).value(), Result::noData);
    manager.whenActive([&ran] { ++ran; });
    EXPECT_EQ(ran, 1) << "pruned: the block waits for the next add";
    manager.add(std::make_shared<Handler>(), RemoteNotificationPattern::any);
    EXPECT_EQ(ran, 2);
}

}  // namespace

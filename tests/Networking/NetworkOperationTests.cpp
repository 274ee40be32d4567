#include <kel/Concurrency/TaskScheduler.hpp>
#include <kel/Networking/JSONDeserializer.hpp>
#include <kel/Networking/NetworkOperation.hpp>
#include <kel/Platform/Log.hpp>
#include <kel/Platform/URLSession.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "LoopbackServers.hpp"

namespace {

using kel::LogLevel;
using kel::test::FaultServer;
using kel::test::HTTPServer;
using kel::test::Outcomes;
using nlohmann::json;
using Operation = kel::NetworkOperation<kel::JSONDeserializer<json>>;
using Line = std::pair<LogLevel, std::string>;

// An expected log line of the operation, whose identifier the fixture shows as "ID".
Line info(const std::string& rest) {
    return {LogLevel::default_, "Network operation ID " + rest};
}
Line failure(const std::string& rest) {
    return {LogLevel::error, "Network operation ID " + rest};
}

// Short waits so that the retry tests take a fraction of a second; tests that expect no retry
// keep long time-outs, so that a slow machine (or a sanitizer) cannot cause one.
constexpr kel::NetworkOperationTimeouts shortTimeouts{0.3, 0.4, 0.05};
constexpr kel::NetworkOperationTimeouts patientTimeouts{10.0, 20.0, 0.05};

kel::URL url(const std::string& text) {
    return *kel::URL::fromString(text);
}

// An operation on `endpoint` without parameters or headers.
std::shared_ptr<Operation> plain(const std::string& endpoint,
                                 kel::NetworkProxy proxy = kel::NetworkProxy::none,
                                 kel::NetworkOperationTimeouts timeouts = patientTimeouts) {
    return std::make_shared<Operation>(url(endpoint), Operation::Parameters{}, Operation::Headers{},
                                       std::move(proxy), timeouts);
}

// A session that records each request it is given and passes it to a real session.
class RecordingSession final : public kel::URLSessionType {
  public:
    std::shared_ptr<kel::Cancellable> downloadData(const kel::URLRequest& request,
                                                   DownloadCompletion completion) override {
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(request);
        }
        return session_->downloadData(request, std::move(completion));
    }
    std::vector<kel::URLRequest> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }

  private:
    std::shared_ptr<kel::URLSession> session_ = kel::URLSession::make();
    mutable std::mutex mutex_;  // guards requests_
    std::vector<kel::URLRequest> requests_;
};

// Adds its name to the X-Order field and sets a time-out of its own, which the operation must
// override.
class OrderProcessor final : public kel::URLRequestProcessor {
  public:
    explicit OrderProcessor(std::string name) : name_(std::move(name)) {}
    kel::URLRequest process(const kel::URLRequest& request) const override {
        kel::URLRequest copy = request;
        copy.addValue(name_, "X-Order");
        copy.setTimeoutInterval(99);
        return copy;
    }

  private:
    std::string name_;
};

struct Fixture : ::testing::Test {
    std::shared_ptr<kel::CapturingLogSink> sink = std::make_shared<kel::CapturingLogSink>();
    kel::ScopedLogSink scoped{sink};

    // Runs the operation on the shared scheduler and waits for its one result.
    kel::Result<json> run(const std::shared_ptr<Operation>& operation) {
        auto outcomes = std::make_shared<Outcomes<kel::Result<json>>>();
        operation->completion = [outcomes](kel::Result<json> result) { outcomes->add(result); };
        kel::TaskScheduler::shared().schedule(operation);
        auto results = outcomes->waitFor(1);
        EXPECT_EQ(results.size(), 1u);
        return results.empty() ? kel::Result<json>::failed(nullptr) : results.front();
    }

    // The operation's log lines, rendered, with "ID" in place of its identifier.
    std::vector<Line> lines(const Operation& operation) const {
        std::vector<Line> out;
        for (const auto& record : sink->records()) {
            auto text = record.message();
            auto at = text.find(operation.operationID());
            if (at != std::string::npos) {
                out.emplace_back(record.level,
                                 text.replace(at, operation.operationID().size(), "ID"));
            }
        }
        return out;
    }
};

using NetworkOperationRequests = Fixture;
using NetworkOperationRetry = Fixture;
using NetworkOperationResponses = Fixture;

TEST_F(NetworkOperationRequests, ReplacesTheQueryAddsHeadersAndLogsEachStep) {
    HTTPServer http;
    http.server().Get("/feed", [](const httplib::Request& req, httplib::Response& res) {
        json echo{{"query", req.params.size()},
                  {"page", req.get_param_value("page")},
                  {"q", req.get_param_value("q")},
                  {"token", req.get_header_value("X-Token")}};
        res.set_content(echo.dump(), "application/json");
    });
    http.start();
    // A session without timing data: the response line shows the size alone.
    auto session = kel::NetworkProxy::session(kel::URLSession::make());
    auto operation = std::make_shared<Operation>(
        url(http.url("/feed?old=1")), Operation::Parameters{{"page", "2"}, {"q", "a b"}},
        Operation::Headers{{"X-Token", "t1"}}, session, patientTimeouts);

    auto result = run(operation);
    ASSERT_TRUE(result.isSuccess()) << kel::errorDescription(result.error());
    EXPECT_EQ(result.value(), (json{{"query", 2}, {"page", "2"}, {"q", "a b"}, {"token", "t1"}}));
    auto size = std::to_string(result.value().dump().size());
    EXPECT_EQ(
        lines(*operation),
        (std::vector<Line>{
            info("started"), info("will issue request to URL: " + http.url("/feed?page=2&q=a%20b")),
            info("received response (size=" + size + " bytes)"), info("succeeded")}));

    // An empty parameter list leaves an empty query, not the endpoint's.
    auto bare = plain(http.url("/feed?old=1"), session);
    auto bareResult = run(bare);
    ASSERT_TRUE(bareResult.isSuccess());
    EXPECT_EQ(bareResult.value()["query"], 0);
    EXPECT_EQ(lines(*bare).at(1), info("will issue request to URL: " + http.url("/feed?")));
}

TEST_F(NetworkOperationRequests, AMalformedEndpointFailsWithoutARequest) {
    auto operation = plain("feed/items");
    auto result = run(operation);
    ASSERT_FALSE(result.isSuccess());
    EXPECT_EQ(kel::errorAs<kel::NetworkOperationError>(result.error()),
              kel::NetworkOperationError::malformedURL);
    EXPECT_EQ(
        lines(*operation),
        (std::vector<Line>{info("started"),
                           failure("failed to generate URL request with error: malformedURL")}));
}

TEST_F(NetworkOperationRetry, ATimeOutIsRetriedOnceAfterTheDelayWithTheLongerTimeOut) {
    FaultServer stalled([](int) { return FaultServer::Action::stall; });
    auto session = std::make_shared<RecordingSession>();
    int reads = 0;
    auto endpoint = kel::Accessor<kel::URL>([&] {
        ++reads;  // read on the starting thread, then on the scheduler's after the delay
        return url(stalled.url("/slow"));
    });
    auto operation =
        std::make_shared<Operation>(endpoint, Operation::Parameters{}, Operation::Headers{},
                                    kel::NetworkProxy::session(session), shortTimeouts);
    operation->setRequestProcessors(
        {std::make_shared<OrderProcessor>("A"), std::make_shared<OrderProcessor>("B")});

    auto result = run(operation);
    ASSERT_FALSE(result.isSuccess());
    EXPECT_EQ(kel::URLError::code(result.error()), kel::URLError::timedOut);
    EXPECT_EQ(stalled.requests(), 2) << "one retry, no third attempt";
    EXPECT_EQ(reads, 2);
    // The processors run in order on each attempt; the operation's time-out overrides theirs.
    auto requests = session->requests();
    ASSERT_EQ(requests.size(), 2u);
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(requests[i].timeoutInterval(), i == 0 ? 0.3 : 0.4) << "attempt " << i;
        EXPECT_EQ(requests[i].valueForHTTPHeaderField("X-Order"), "A,B") << "attempt " << i;
    }
    Line issue = info("will issue request to URL: " + stalled.url("/slow?"));
    Line timedOut = failure("failed with error: The request timed out.");
    EXPECT_EQ(lines(*operation),
              (std::vector<Line>{info("started"), issue, timedOut,
                                 info("will retry with longer timeout after delay: 0.050000"),
                                 issue, timedOut}));
}

TEST_F(NetworkOperationRetry, ALostConnectionIsRetriedAndOtherFailuresAreNot) {
    FaultServer flaky(
        [](int index) {
            return index == 0 ? FaultServer::Action::closeMidBody : FaultServer::Action::respond;
        },
        R"({"ok":true})");
    auto recovered = plain(flaky.url("/"));
    auto result = run(recovered);
    ASSERT_TRUE(result.isSuccess()) << kel::errorDescription(result.error());
    EXPECT_EQ(result.value(), (json{{"ok", true}}));
    EXPECT_EQ(flaky.requests(), 2);
    EXPECT_EQ(lines(*recovered).at(2),
              failure("failed with error: The network connection was lost."));

    auto operation = plain(kel::test::refusedURL());
    auto failed = run(operation);
    EXPECT_EQ(kel::URLError::code(failed.error()), kel::URLError::cannotConnectToHost);
    EXPECT_EQ(lines(*operation).size(), 3u) << "started, will issue, failed: no retry";
}

TEST_F(NetworkOperationResponses, StatusCodesOnlyMatterWithoutABody) {
    HTTPServer http;
    http.server().Get("/missing",
                      [](const httplib::Request&, httplib::Response& res) { res.status = 404; });
    http.server().Get("/broken", [](const httplib::Request&, httplib::Response& res) {
        res.status = 500;
        res.set_content(R"({"error":"overloaded"})", "application/json");
    });
    http.start();
    auto session = kel::NetworkProxy::session(kel::URLSession::make());
    auto missing = plain(http.url("/missing"), session);
    auto result = run(missing);
    ASSERT_FALSE(result.isSuccess());
    EXPECT_EQ(kel::errorAs<kel::NetworkOperationError>(result.error()),
              kel::NetworkOperationError::http(404));
    EXPECT_EQ(lines(*missing).back(), failure("failed with HTTP status code: 404"));

    auto broken = run(plain(http.url("/broken"), session));
    ASSERT_TRUE(broken.isSuccess());
    EXPECT_EQ(broken.value(), (json{{"error", "overloaded"}}));
}

TEST_F(NetworkOperationResponses, AnUndecodableBodyFailsWithTheDecodersErrorAndIsLogged) {
    // A text body is shown quoted; one that is not UTF-8 as nil.
    const std::pair<std::string, std::string> cases[] = {
        {"not \"json\"\n", R"(Optional("not \"json\"\n"))"}, {std::string("\xff\xfe", 2), "nil"}};
    for (const auto& [body, shown] : cases) {
        FaultServer server([](int) { return FaultServer::Action::respond; }, body);
        auto operation = plain(server.url("/"));
        auto result = run(operation);
        ASSERT_FALSE(result.isSuccess());
        EXPECT_TRUE(kel::errorIs<json::parse_error>(result.error()));
        EXPECT_EQ(lines(*operation).back(),
                  failure("failed to parse response with error: " +
                          kel::errorDescription(result.error()) + ", response=" + shown));
    }
}

// Connection reuse itself is covered by the URLSession tests; here the default session is one
// shared session with timing data on, whose handlers (the decoding) run on a serial queue of
// its own rather than on its I/O thread.
TEST_F(NetworkOperationRequests, DefaultSessionIsSharedWithTiming) {
    FaultServer server([](int) { return FaultServer::Action::respond; }, "[1]");
    auto operation = plain(server.url("/"));
    ASSERT_TRUE(run(operation).isSuccess());
    EXPECT_THAT(
        lines(*operation).at(2).second,
        ::testing::MatchesRegex("Network operation ID received response \\(size=3 "
                                "bytes, queued=[0-9]+ms, ttfb=[0-9]+ms, total=[0-9]+ms\\)"));
    EXPECT_EQ(kel::NetworkProxy::none.resolvedSession(), kel::NetworkProxy::none.resolvedSession());
    EXPECT_TRUE(kel::defaultURLSession()->configuration().ks_timingDataEnabled());
    const auto& handlers = kel::defaultURLSession()->delegateQueue();
    ASSERT_TRUE(handlers.has_value());
    EXPECT_FALSE(handlers->isConcurrent());
}

TEST_F(NetworkOperationRequests, CancelledBeforeItStartsCancelsThePromise) {
    auto operation = plain("http://127.0.0.1:9/");
    operation->cancel();
    auto cancelled = std::make_shared<Outcomes<bool>>();
    kel::TaskScheduler::shared().promise(operation).cancelled(
        kel::zalgo(), [cancelled] { cancelled->add(true); });
    EXPECT_EQ(cancelled->waitFor(1).size(), 1u);
    EXPECT_TRUE(lines(*operation).empty()) << "a cancelled operation does not start";
}

TEST(NetworkResponseDescription, WithoutMetricsOrWithIncompleteOnes) {
    kel::URLSessionTaskMetrics metrics;
    metrics.taskInterval = {kel::Date(std::chrono::seconds(1'700'000'000)),
                            std::chrono::duration<double>(2.5)};
    EXPECT_EQ(kel::runtime::networkResponseDescription(1500, &metrics),
              "size=2 KB, total=2023-11-14 22:13:20 +0000 to 2023-11-14 22:13:22 +0000");
    kel::URLSessionTaskTransactionMetrics transaction;
    transaction.fetchStartDate = metrics.taskInterval.start + std::chrono::microseconds(1999);
    transaction.requestStartDate = metrics.taskInterval.start + std::chrono::milliseconds(5);
    transaction.responseStartDate = metrics.taskInterval.start + std::chrono::microseconds(17'900);
    metrics.transactionMetrics.push_back(transaction);
    EXPECT_EQ(kel::runtime::networkResponseDescription(1500, &metrics),
              "size=2 KB, queued=1ms, ttfb=12ms, total=2500ms");
}

}  // namespace

#include <kel/Platform/URLError.hpp>
#include <kel/Platform/URLSession.hpp>

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "LoopbackServers.hpp"

namespace {

using kel::test::FaultServer;
using kel::test::HTTPServer;
using kel::test::Outcomes;

struct Loaded {
    std::optional<kel::Data> data;
    std::shared_ptr<const kel::URLResponse> response;
    std::shared_ptr<const kel::URLSessionTaskMetrics> metrics;
    kel::Error error;

    std::string body() const { return data ? std::string(data->begin(), data->end()) : ""; }
    long status() const {
        return response && response->asHTTP() ? response->asHTTP()->statusCode() : 0;
    }
    std::optional<long> urlError() const { return kel::URLError::code(error); }
};

kel::URLRequest request(const std::string& url,
                        double timeout = kel::URLRequest::defaultTimeoutInterval) {
    return kel::URLRequest(kel::URL::fromString(url),
                           kel::URLRequest::CachePolicy::useProtocolCachePolicy, timeout);
}

// Loads one request through session and waits for its completion.
Loaded load(kel::URLSession& session, const kel::URLRequest& urlRequest) {
    Outcomes<Loaded> outcomes;
    session.downloadData(urlRequest, [&](auto data, auto response, auto metrics, kel::Error error) {
        outcomes.add({std::move(data), std::move(response), std::move(metrics), std::move(error)});
    });
    auto loaded = outcomes.waitFor(1);
    EXPECT_EQ(loaded.size(), 1u);
    return loaded.empty() ? Loaded{} : loaded.front();
}

TEST(URLSessionLoading, GetDeliversStatusHeadersBodyAndSentHeaders) {
    HTTPServer http;
    http.server().Get("/feed", [](const httplib::Request& req, httplib::Response& res) {
        res.set_header("X-Echo", req.get_header_value("X-Token") + "|" +
                                     req.get_param_value("page") + "|" +
                                     req.get_header_value("X-App"));
        res.set_content(R"({"items":[1,2]})", "application/json");
    });
    auto echo = [](const httplib::Request& req, httplib::Response& res) {
        res.set_content(req.method + " " + req.body, "text/plain");
    };
    http.server().Get("/echo", echo);
    http.server().Post("/echo", echo);
    http.server().Get("/missing",
                      [](const httplib::Request&, httplib::Response& res) { res.status = 404; });
    std::atomic<int> movedHits{0};
    http.server().Get("/moved", [&](const httplib::Request&, httplib::Response& res) {
        ++movedHits;
        res.set_redirect("/echo");
    });
    http.start();
    auto configuration = kel::URLSessionConfiguration::defaultSessionConfiguration();
    configuration.httpAdditionalHeaders = {{"X-App", "demo"}, {"X-Token", "not sent"}};
    auto session = kel::URLSession::make(configuration);

    auto urlRequest = request(http.url("/feed?page=2"));
    urlRequest.addValue("a", "X-Token");
    urlRequest.addValue("b", "x-token");
    auto loaded = load(*session, urlRequest);
    ASSERT_FALSE(loaded.error) << kel::errorDescription(loaded.error);
    EXPECT_EQ(loaded.status(), 200);
    EXPECT_EQ(loaded.body(), R"({"items":[1,2]})");
    EXPECT_EQ(loaded.response->asHTTP()->valueForHTTPHeaderField("x-echo"), "a,b|2|demo");
    EXPECT_EQ(loaded.metrics, nullptr) << "timing data is off by default";

    // Easy handles are reused, with the URL they last parsed: a POST's method and body must not
    // leak into the next GET (same URL), nor that URL into the request after it (/missing).
    auto post = request(http.url("/echo"));
    post.setHTTPMethod("POST");
    post.setHTTPBody(kel::Data{'h', 'i'});
    EXPECT_EQ(load(*session, post).body(), "POST hi");
    EXPECT_EQ(load(*session, request(http.url("/echo"))).body(), "GET ");

    auto missing = load(*session, request(http.url("/missing")));
    EXPECT_FALSE(missing.error);
    EXPECT_FALSE(missing.data) << "an empty body is no data";
    EXPECT_EQ(missing.status(), 404);

    // A redirect is followed; following it must not change the URL the handle keeps for the
    // next request to the same address.
    for (int i = 0; i < 2; ++i) {
        auto moved = load(*session, request(http.url("/moved")));
        EXPECT_EQ(moved.body(), "GET ");
        EXPECT_EQ(moved.response->url()->absoluteString(), http.url("/echo"));
    }
    EXPECT_EQ(movedHits.load(), 2);
}

TEST(URLSessionLoading, ReusesTheConnectionAndReportsTimings) {
    HTTPServer http;
    std::mutex portsMutex;
    std::vector<int> remotePorts;
    http.server().Get("/", [&](const httplib::Request& req, httplib::Response& res) {
        std::lock_guard lock(portsMutex);
        remotePorts.push_back(req.remote_port);
        res.set_content("ok", "text/plain");
    });
    http.start();
    auto configuration = kel::URLSessionConfiguration::defaultSessionConfiguration();
    configuration.setKs_timingDataEnabled(true);
    auto session = kel::URLSession::make(configuration);

    auto first = load(*session, request(http.url("/")));
    auto second = load(*session, request(http.url("/")));
    {
        std::lock_guard lock(portsMutex);
        ASSERT_EQ(remotePorts.size(), 2u);
        EXPECT_EQ(remotePorts[0], remotePorts[1]) << "both requests on one connection";
    }
    for (const auto* loaded : {&first, &second}) {
        const auto* metrics = loaded->metrics.get();
        ASSERT_NE(metrics, nullptr);
        const auto& transaction = metrics->transactionMetrics.at(0);
        EXPECT_EQ(transaction.isReusedConnection, loaded == &second) << "only the second reuses";
        ASSERT_TRUE(transaction.fetchStartDate && transaction.requestStartDate &&
                    transaction.responseStartDate);
        EXPECT_LE(metrics->taskInterval.start, *transaction.fetchStartDate);
        EXPECT_LE(*transaction.fetchStartDate, *transaction.requestStartDate);
        EXPECT_LE(*transaction.requestStartDate, *transaction.responseStartDate);
        EXPECT_LE(*transaction.responseStartDate, metrics->taskInterval.end());
        EXPECT_EQ(transaction.networkProtocolName, "http/1.1");
    }
}

TEST(URLSessionFailures, MapTransferFailuresToURLErrors) {
    auto session = kel::URLSession::make();
    FaultServer stalled([](int) { return FaultServer::Action::stall; });
    FaultServer cut([](int) { return FaultServer::Action::closeMidBody; });
    FaultServer silent([](int) { return FaultServer::Action::closeWithoutReply; });

    auto timedOut = load(*session, request(stalled.url("/"), 0.2));
    EXPECT_EQ(timedOut.urlError(), kel::URLError::timedOut);
    EXPECT_EQ(kel::errorDescription(timedOut.error), "The request timed out.");
    EXPECT_EQ(kel::errorAs<kel::DomainError>(timedOut.error)
                  ->userInfo()
                  .at(kel::URLError::failingURLStringKey),
              stalled.url("/"));
    // The time-out is an idle one: bytes arriving more often than it keep a transfer going
    // however long it takes in all (here 0.6 s against 0.4 s).
    FaultServer trickle([](int) { return FaultServer::Action::trickle; });
    auto slow = load(*session, request(trickle.url("/"), 0.4));
    EXPECT_FALSE(slow.error) << kel::errorDescription(slow.error);
    EXPECT_EQ(slow.body(), "abcd");
    // The reserved top-level domain fails at once, whatever the machine's resolver would do.
    const std::pair<std::string, long> failures[] = {
        {cut.url("/"), kel::URLError::networkConnectionLost},
        {silent.url("/"), kel::URLError::networkConnectionLost},
        {kel::test::refusedURL(), kel::URLError::cannotConnectToHost},
        {"http://feed.example.invalid/", kel::URLError::cannotFindHost},
        {"gopherx://127.0.0.1/", kel::URLError::unsupportedURL}};
    for (const auto& [url, code] : failures) {
        EXPECT_EQ(load(*session, request(url)).urlError(), code) << url;
    }
}

TEST(URLSessionCancellation, CompletesOnceAsCancelledWhenCancelledOrTornDown) {
    FaultServer stalled([](int) { return FaultServer::Action::stall; });
    auto session = kel::URLSession::make();
    Outcomes<kel::Error> outcomes;
    auto record = [&](auto, auto, kel::Error error) { outcomes.add(error); };

    auto running = session->dataTask(request(stalled.url("/")), record);
    running->resume();
    auto neverStarted = session->dataTask(request(stalled.url("/")), record);
    neverStarted->cancel();
    while (stalled.requests() == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    running->cancel();
    running->cancel();
    neverStarted->resume();
    auto errors = outcomes.waitFor(2);
    ASSERT_EQ(errors.size(), 2u);
    for (const auto& error : errors) {
        EXPECT_EQ(kel::URLError::code(error), kel::URLError::cancelled);
    }
    EXPECT_EQ(running->state(), kel::URLSessionTask::State::completed);

    // Tasks still running when the session goes away complete as cancelled; later ones too.
    auto orphan = session->dataTask(request(stalled.url("/")), record);
    orphan->resume();
    session.reset();
    orphan->cancel();
    errors = outcomes.waitFor(3);
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_EQ(kel::URLError::code(errors[2]), kel::URLError::cancelled);
}

TEST(URLSessionLoading, ManyConcurrentTasksEachCompleteOnce) {
    // A server of its own: cpp-httplib's listen backlog of 5 drops connection attempts.
    FaultServer server([](int) { return FaultServer::Action::respond; }, "[1]");
    auto session = kel::URLSession::make();
    Outcomes<std::string> bodies;
    constexpr std::size_t count = 64;
    for (std::size_t i = 0; i < count; ++i) {
        session->downloadData(request(server.url("/n")), [&](auto data, auto, auto, kel::Error) {
            bodies.add(data ? std::string(data->begin(), data->end()) : "?");
        });
    }
    EXPECT_EQ(bodies.waitFor(count), std::vector<std::string>(count, "[1]"));
    EXPECT_EQ(server.requests(), static_cast<int>(count));
}

TEST(URLSessionLifetime, HandlersRunOnTheGivenQueueAndMayReleaseTheirSession) {
    FaultServer http([](int) { return FaultServer::Action::respond; });
    kel::DispatchQueue delegateQueue("test.delegate");
    auto queued = kel::URLSession::make(kel::URLSessionConfiguration::defaultSessionConfiguration(),
                                        delegateQueue);
    Outcomes<std::string> labels;
    queued->downloadData(request(http.url("/")), [&](auto, auto, auto, kel::Error) {
        char name[16] = {};
        ::pthread_getname_np(::pthread_self(), name,
                             sizeof name);  // threads bear their queue's name
        labels.add(name);
    });
    EXPECT_EQ(labels.waitFor(1), std::vector<std::string>{"test.delegate"});

    // The last reference dropped inside a handler, on the session's own I/O thread.
    auto session = std::make_shared<std::shared_ptr<kel::URLSession>>(kel::URLSession::make());
    Outcomes<bool> released;
    (*session)->downloadData(request(http.url("/")),
                             [session, &released](auto, auto, auto, kel::Error) {
                                 session->reset();
                                 released.add(true);
                             });
    EXPECT_EQ(released.waitFor(1).size(), 1u);
}

}  // namespace

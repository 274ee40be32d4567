#include "NetworkingDemo.hpp"

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kel/Concurrency/TaskScheduler.hpp"
#include "kel/Networking/JSONDeserializer.hpp"
#include "kel/Networking/NetworkOperation.hpp"
#include "kel/Platform/RunLoop.hpp"
#include "kel/Platform/URLSession.hpp"

namespace {

struct Headline {
    int id = 0;
    std::string title;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Headline, id, title)

// Signs every request, as an application's token store would.
class BearerTokenProcessor final : public kel::URLRequestProcessor {
  public:
    kel::URLRequest process(const kel::URLRequest& request) const override {
        kel::URLRequest signed_ = request;
        signed_.setValue("Bearer demo-token", "Authorization");
        return signed_;
    }
};

}  // namespace

void runNetworkingDemo() {
    std::cout << "\n== Networking\n";
    // The news server: answers only signed requests, and stalls the very first one for longer
    // than the client waits, to show the operation's one retry.
    httplib::Server server;
    std::atomic<int> requests{0};
    server.Get("/headlines", [&](const httplib::Request& req, httplib::Response& res) {
        if (requests++ == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(600));
        }
        if (req.get_header_value("Authorization") != "Bearer demo-token") {
            res.status = 401;
            return;
        }
        res.set_content(R"([{"id":1,"title":"Loopback servers are fast"},)"
                        R"({"id":2,"title":"Retries save the day"}])",
                        "application/json");
    });
    int port = server.bind_to_any_port("127.0.0.1");
    std::thread serving([&] { server.listen_after_bind(); });
    while (!server.is_running()) {
        std::this_thread::yield();
    }

    {
        // The demo shortens the waits (0.3 s, then 2 s after a 0.1 s delay) so the stall costs
        // well under a second; applications keep the defaults of 15 s, 60 s and 1 s.
        auto configuration = kel::URLSessionConfiguration::defaultSessionConfiguration();
        configuration.setKs_timingDataEnabled(true);
        auto session = kel::URLSession::make(configuration);
        using FetchHeadlines = kel::NetworkOperation<kel::JSONDeserializer<std::vector<Headline>>>;
        auto operation = std::make_shared<FetchHeadlines>(
            *kel::URL::fromString("http://127.0.0.1:" + std::to_string(port) + "/headlines"),
            FetchHeadlines::Parameters{{"lang", "en"}},
            FetchHeadlines::Headers{{"Accept", "application/json"}},
            kel::NetworkProxy::session(session), kel::NetworkOperationTimeouts{0.3, 2.0, 0.1});
        operation->setRequestProcessors({std::make_shared<BearerTokenProcessor>()});

        bool done = false;
        kel::TaskScheduler::shared()
            .promise(operation)
            .then(kel::DispatchQueue::main(),
                  [](const std::vector<Headline>& headlines) {
                      std::cout << "  fetched " << headlines.size() << " headlines:\n";
                      for (const auto& headline : headlines) {
                          std::cout << "    #" << headline.id << " " << headline.title << "\n";
                      }
                  })
            .error(kel::DispatchQueue::main(),
                   [](const kel::Error& error) {
                       std::cout << "  fetch failed: " << kel::errorDescription(error) << "\n";
                   })
            .always(kel::DispatchQueue::main(), [&done] { done = true; });
        kel::RunLoop::runUntil([&] { return done; }, std::chrono::seconds(10));
        std::cout << "  the server saw " << requests.load()
                  << " requests: the stalled one and the retry\n";
    }
    server.stop();
    serving.join();
}

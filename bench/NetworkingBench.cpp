// Networking side by side: GETs of a 1 KiB JSON body from a loopback server, 1 and 64 requests
// in flight, through URLSession, through NetworkOperation + TaskScheduler::promise (on the
// default session, whose handlers run on a serial queue of its own, and on a session whose
// handlers run on its I/O thread), and through raw libcurl multi doing the same requests (and
// decoding them) on the benchmark thread; then decoding the 1 KiB body and a 1 MB JSON document
// through JSONDeserializer beside nlohmann/json on its own.
//
// The server is part of the benchmark process: two epoll threads answering keep-alive HTTP/1.1
// requests with a canned response, so that it is not what limits the clients. All clients keep
// their connections between requests.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Countdown.hpp"
#include "kel/Concurrency/TaskScheduler.hpp"
#include "kel/Networking/JSONDeserializer.hpp"
#include "kel/Networking/NetworkOperation.hpp"
#include "kel/Platform/Log.hpp"
#include "kel/Platform/URLSession.hpp"

namespace {

using kel::bench::Countdown;

struct Item {
    int id = 0;
    std::string name;
    double score = 0;
    std::vector<int> tags;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Item, id, name, score, tags)

// {"items":[...],"pad":"..."} of exactly `size` bytes.
std::string jsonDocument(std::size_t size) {
    const std::size_t frame =
        nlohmann::json{{"items", nlohmann::json::array()}, {"pad", ""}}.dump().size();
    nlohmann::json items = nlohmann::json::array();
    std::size_t length = frame;
    for (int i = 0;; ++i) {
        nlohmann::json item = Item{i, "item " + std::to_string(i), i * 0.5, {i, i + 1, i + 2}};
        std::size_t itemLength = item.dump().size() + (items.empty() ? 0 : 1);
        if (length + itemLength > size) {
            break;
        }
        length += itemLength;
        items.push_back(std::move(item));
    }
    return nlohmann::json{{"items", items}, {"pad", std::string(size - length, 'x')}}.dump();
}

struct Feed {
    std::vector<Item> items;
    std::string pad;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Feed, items, pad)

class LoopbackServer {
  public:
    explicit LoopbackServer(const std::string& body, int threads = 2) {
        response_ = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                    std::to_string(body.size()) + "\r\n\r\n" + body;
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        int on = 1;
        ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(listener_, 1024);
        socklen_t length = sizeof address;
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/feed";
        stop_ = ::eventfd(0, EFD_CLOEXEC);
        for (int i = 0; i < threads; ++i) {
            workers_.emplace_back([this] { serve(); });
        }
    }
    ~LoopbackServer() {
        std::uint64_t one = 1;
        (void)::write(stop_, &one, sizeof one);
        for (auto& worker : workers_) {
            worker.join();
        }
        ::close(listener_);
        ::close(stop_);
    }

    const std::string& url() const { return url_; }

  private:
    void serve() {
        int poller = ::epoll_create1(EPOLL_CLOEXEC);
        epoll_event event{};
        event.events = EPOLLIN | EPOLLEXCLUSIVE;
        event.data.fd = listener_;
        ::epoll_ctl(poller, EPOLL_CTL_ADD, listener_, &event);
        event.events = EPOLLIN;
        event.data.fd = stop_;
        ::epoll_ctl(poller, EPOLL_CTL_ADD, stop_, &event);
        std::unordered_map<int, std::string> pending;  // bytes of an unfinished request
        epoll_event events[64];
        for (;;) {
            int count = ::epoll_wait(poller, events, 64, -1);
            for (int i = 0; i < count; ++i) {
                int fd = events[i].data.fd;
                if (fd == stop_) {
                    for (auto& [client, bytes] : pending) {
                        ::close(client);
                    }
                    ::close(poller);
                    return;
                }
                if (fd == listener_) {
                    for (int client;
                         (client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
                        epoll_event clientEvent{};
                        clientEvent.events = EPOLLIN;
                        clientEvent.data.fd = client;
                        ::epoll_ctl(poller, EPOLL_CTL_ADD, client, &clientEvent);
                        pending[client];
                    }
                    continue;
                }
                char buffer[8192];
                ssize_t got = ::read(fd, buffer, sizeof buffer);
                if (got <= 0) {
                    ::close(fd);
                    pending.erase(fd);
                    continue;
                }
                std::string& bytes = pending[fd];
                bytes.append(buffer, static_cast<std::size_t>(got));
                std::size_t end;
                while ((end = bytes.find("\r\n\r\n")) != std::string::npos) {
                    bytes.erase(0, end + 4);
                    for (std::size_t sent = 0; sent < response_.size();) {
                        ssize_t wrote =
                            ::write(fd, response_.data() + sent, response_.size() - sent);
                        if (wrote <= 0) {
                            break;
                        }
                        sent += static_cast<std::size_t>(wrote);
                    }
                }
            }
        }
    }

    std::string response_;
    std::string url_;
    int listener_ = -1;
    int stop_ = -1;
    std::vector<std::thread> workers_;
};

LoopbackServer& server() {
    static auto* instance = new LoopbackServer(jsonDocument(1024));
    return *instance;
}

// Log lines go to a sink that drops them, so the figures measure the client, not syslog.
class DiscardingSink final : public kel::LogSink {
  public:
    void write(const kel::LogRecord&) override {}
};

constexpr std::int64_t requestsPerBatch = 256;

// The peer: the same GETs on one libcurl multi handle, easy handles reused, driven on the
// benchmark thread as a hand-written client would. With `decode`, each body is also decoded
// into a Feed, the work NetworkOperation adds on top of the transfer.
void rawCurlMulti(benchmark::State& state, bool decode) {
    const auto inFlight = state.range(0);
    const std::string& url = server().url();
    CURLM* multi = curl_multi_init();
    std::vector<CURL*> handles;
    std::vector<std::string> bodies(static_cast<std::size_t>(inFlight));
    auto onBody = +[](char* data, std::size_t size, std::size_t count, void* body) {
        static_cast<std::string*>(body)->append(data, size * count);
        return size * count;
    };
    for (std::int64_t i = 0; i < inFlight; ++i) {
        CURL* easy = curl_easy_init();
        curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, onBody);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, &bodies[static_cast<std::size_t>(i)]);
        curl_easy_setopt(easy, CURLOPT_PRIVATE, &bodies[static_cast<std::size_t>(i)]);
        handles.push_back(easy);
    }
    for (auto _ : state) {
        std::int64_t started = 0;
        std::int64_t finished = 0;
        for (CURL* easy : handles) {
            curl_multi_add_handle(multi, easy);
            ++started;
        }
        while (finished < requestsPerBatch) {
            int running = 0;
            curl_multi_perform(multi, &running);
            int queued = 0;
            while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
                if (message->msg != CURLMSG_DONE) {
                    continue;
                }
                CURL* easy = message->easy_handle;
                std::string* body = nullptr;
                curl_easy_getinfo(easy, CURLINFO_PRIVATE, &body);
                benchmark::DoNotOptimize(body->size());
                if (decode) {
                    benchmark::DoNotOptimize(nlohmann::json::parse(*body).get<Feed>());
                }
                body->clear();
                curl_multi_remove_handle(multi, easy);
                ++finished;
                if (started < requestsPerBatch) {
                    curl_multi_add_handle(multi, easy);
                    ++started;
                }
            }
            if (finished < requestsPerBatch) {
                curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
            }
        }
    }
    for (CURL* easy : handles) {
        curl_easy_cleanup(easy);
    }
    curl_multi_cleanup(multi);
    state.SetItemsProcessed(state.iterations() * requestsPerBatch);
}

void BM_HTTPGet_RawCurlMulti(benchmark::State& state) {
    rawCurlMulti(state, false);
}
BENCHMARK(BM_HTTPGet_RawCurlMulti)->Arg(1)->Arg(64)->UseRealTime();

void BM_HTTPGet_RawCurlMultiDecode(benchmark::State& state) {
    rawCurlMulti(state, true);
}
BENCHMARK(BM_HTTPGet_RawCurlMultiDecode)->Arg(1)->Arg(64)->UseRealTime();

// Runs batches of requestsPerBatch requests, keeping `inFlight` of them going: `next` starts one
// request (or nothing once the batch is all started) and its completion calls `next` again and
// arrives at `countdown`.
void runRequestBatches(benchmark::State& state, std::int64_t inFlight, Countdown& countdown,
                       std::atomic<std::int64_t>& started, const std::function<void()>& next) {
    for (auto _ : state) {
        countdown.reset(requestsPerBatch);
        started.store(0);
        for (std::int64_t i = 0; i < inFlight; ++i) {
            next();
        }
        countdown.wait();
    }
    state.SetItemsProcessed(state.iterations() * requestsPerBatch);
}

void BM_HTTPGet_URLSession(benchmark::State& state) {
    const auto inFlight = state.range(0);
    auto session = kel::URLSession::make();
    kel::URLRequest request(kel::URL::fromString(server().url()));
    Countdown countdown;
    std::atomic<std::int64_t> started{0};
    std::function<void()> next = [&] {
        if (started.fetch_add(1) >= requestsPerBatch) {
            return;
        }
        session
            ->dataTask(request,
                       [&](std::optional<kel::Data> data, auto, kel::Error) {
                           benchmark::DoNotOptimize(data);
                           next();
                           countdown.arrive();
                       })
            ->resume();
    };
    runRequestBatches(state, inFlight, countdown, started, next);
}
BENCHMARK(BM_HTTPGet_URLSession)->Arg(1)->Arg(64)->UseRealTime();

void networkOperationPromise(benchmark::State& state, kel::NetworkProxy proxy) {
    using Operation = kel::NetworkOperation<kel::JSONDeserializer<Feed>>;
    const auto inFlight = state.range(0);
    kel::ScopedLogSink quiet(std::make_shared<DiscardingSink>());
    auto endpoint = *kel::URL::fromString(server().url());
    Countdown countdown;
    std::atomic<std::int64_t> started{0};
    std::function<void()> next = [&] {
        if (started.fetch_add(1) >= requestsPerBatch) {
            return;
        }
        auto operation = std::make_shared<Operation>(endpoint, Operation::Parameters{},
                                                     Operation::Headers{}, proxy);
        kel::TaskScheduler::shared().promise(operation).then(kel::zalgo(), [&](const Feed& feed) {
            benchmark::DoNotOptimize(feed.items.size());
            next();
            countdown.arrive();
        });
    };
    runRequestBatches(state, inFlight, countdown, started, next);
}

// Through the default session, as an operation made with NetworkProxy::none uses it: timing data
// on, handlers (and so the decoding) on the session's own serial queue.
void BM_HTTPGet_NetworkOperationPromise(benchmark::State& state) {
    networkOperationPromise(state, kel::NetworkProxy::none);
}
BENCHMARK(BM_HTTPGet_NetworkOperationPromise)->Arg(1)->Arg(64)->UseRealTime();

// The same through a session whose handlers run on its I/O thread: no hand-off to a queue, but
// the decoding takes turns with the transfers on that one thread.
void BM_HTTPGet_NetworkOperationPromiseIOThreadHandlers(benchmark::State& state) {
    networkOperationPromise(state, kel::NetworkProxy::session(kel::URLSession::make()));
}
BENCHMARK(BM_HTTPGet_NetworkOperationPromiseIOThreadHandlers)->Arg(1)->Arg(64)->UseRealTime();

// The benchmark's body (1 KiB) and a 1 MB document, made once.
const std::string& document(std::int64_t size) {
    static const std::string small = jsonDocument(1024);
    static const std::string large = jsonDocument(1'000'000);
    return size <= 1024 ? small : large;
}

void BM_JSONDecode_NlohmannParse(benchmark::State& state) {
    const auto& text = document(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(nlohmann::json::parse(text));
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(BM_JSONDecode_NlohmannParse)->Arg(1024)->Arg(1'000'000);

void BM_JSONDecode_NlohmannParseAndGet(benchmark::State& state) {
    const auto& text = document(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(nlohmann::json::parse(text).get<Feed>());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(BM_JSONDecode_NlohmannParseAndGet)->Arg(1024)->Arg(1'000'000);

void BM_JSONDecode_JSONDeserializer(benchmark::State& state) {
    const auto& text = document(state.range(0));
    kel::Data data(text.begin(), text.end());
    for (auto _ : state) {
        benchmark::DoNotOptimize(kel::JSONDeserializer<Feed>().deserialize(data));
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(BM_JSONDecode_JSONDeserializer)->Arg(1024)->Arg(1'000'000);

}  // namespace

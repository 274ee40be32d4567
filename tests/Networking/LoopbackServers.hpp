// Servers on 127.0.0.1 for the networking tests.
//
// HTTPServer runs cpp-httplib on an ephemeral port: register handlers on server(), then start().
// FaultServer is a small raw-socket server for what a well-behaved server never does: it reads
// each request and then, as its script says for that request's index, stalls (keeps the
// connection open and silent), closes in the middle of the body, closes without a reply, or
// answers 200 with a body. It counts requests.
#pragma once

#include "Watchdog.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <httplib.h>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kel::test {

inline std::string loopbackURL(int port, const std::string& path) {
    return "http://127.0.0.1:" + std::to_string(port) + path;
}

// A stream socket bound to an ephemeral loopback port; `port` receives the port.
inline int boundLoopbackSocket(int& port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    return fd;
}

class HTTPServer {
  public:
    HTTPServer() {
        server_.set_keep_alive_max_count(1000);
        // stop() waits for idle keep-alive connections of clients that outlive the server (the
        // default session's) to time out.
        server_.set_keep_alive_timeout(1);
        server_.new_task_queue = [] { return new httplib::ThreadPool(16); };
    }
    ~HTTPServer() {
        server_.stop();
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    httplib::Server& server() { return server_; }

    void start() {
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    std::string url(const std::string& path) const { return loopbackURL(port_, path); }

  private:
    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
};

class FaultServer {
  public:
    // trickle answers "abcd" one byte every 150 ms, blocking the server meanwhile.
    enum class Action { stall, closeMidBody, closeWithoutReply, respond, trickle };
    using Script = std::function<Action(int requestIndex)>;

    explicit FaultServer(Script script, std::string body = "{}")
        : script_(std::move(script)), body_(std::move(body)) {
        listener_ = boundLoopbackSocket(port_);
        ::listen(listener_, 64);
        ::pipe2(wake_, O_CLOEXEC);
        thread_ = std::thread([this] { serve(); });
    }
    ~FaultServer() {
        char byte = 0;
        (void)::write(wake_[1], &byte, 1);
        thread_.join();
        ::close(listener_);
        ::close(wake_[0]);
        ::close(wake_[1]);
    }

    std::string url(const std::string& path) const { return loopbackURL(port_, path); }
    int requests() const { return requests_.load(); }

  private:
    void serve() {
        std::map<int, std::string> clients;  // descriptor -> bytes of the request so far
        for (;;) {
            std::vector<pollfd> fds{{wake_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
            for (const auto& [fd, bytes] : clients) {
                fds.push_back({fd, POLLIN, 0});
            }
            ::poll(fds.data(), fds.size(), -1);
            if (fds[0].revents != 0) {
                break;
            }
            if (fds[1].revents & POLLIN) {
                int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
                if (client >= 0) {
                    clients.emplace(client, std::string());
                }
            }
            for (std::size_t i = 2; i < fds.size(); ++i) {
                if (fds[i].revents == 0) {
                    continue;
                }
                int fd = fds[i].fd;
                char buffer[4096];
                ssize_t count = ::read(fd, buffer, sizeof buffer);
                if (count <= 0) {
                    ::close(fd);
                    clients.erase(fd);
                    continue;
                }
                std::string& request = clients[fd];
                request.append(buffer, static_cast<std::size_t>(count));
                if (request.find("\r\n\r\n") == std::string::npos) {
                    continue;
                }
                request.clear();
                if (!answer(fd, script_(requests_++))) {
                    ::close(fd);
                    clients.erase(fd);
                }
            }
        }
        for (const auto& [fd, bytes] : clients) {
            ::close(fd);
        }
    }

    // Acts on one request; false when the connection is to be closed.
    bool answer(int fd, Action action) {
        std::string reply;
        switch (action) {
            case Action::stall:
                return true;
            case Action::closeWithoutReply:
                return false;
            case Action::closeMidBody:
                reply = "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n0123456789";
                break;
            case Action::respond:
                reply = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                        std::to_string(body_.size()) + "\r\n\r\n" + body_;
                break;
            case Action::trickle:
                reply = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\n";
                (void)::write(fd, reply.data(), reply.size());
                for (char byte : std::string("abcd")) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(150));
                    (void)::write(fd, &byte, 1);
                }
                return true;
        }
        (void)::write(fd, reply.data(), reply.size());
        return action == Action::respond;
    }

    Script script_;
    std::string body_;
    int listener_ = -1;
    int wake_[2] = {-1, -1};
    int port_ = 0;
    std::atomic<int> requests_{0};
    std::thread thread_;
};

// A URL on a closed loopback port (bound, then released), so a connection to it is refused.
inline std::string refusedURL() {
    int port = 0;
    ::close(boundLoopbackSocket(port));
    return loopbackURL(port, "/");
}

// Collects completions of one kind from any thread; the test waits for a count of them.
template <class Outcome>
class Outcomes {
  public:
    void add(Outcome outcome) {
        std::lock_guard lock(mutex_);
        outcomes_.push_back(std::move(outcome));
        changed_.notify_all();
    }
    // Waits until at least `count` outcomes arrived (at most the watchdog time-out); returns them
    // all.
    std::vector<Outcome> waitFor(std::size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, kel::test::kWatchdogTimeout,
                          [&] { return outcomes_.size() >= count; });
        return outcomes_;
    }

  private:
    std::mutex mutex_;  // guards outcomes_
    std::condition_variable changed_;
    std::vector<Outcome> outcomes_;
};

}  // namespace kel::test

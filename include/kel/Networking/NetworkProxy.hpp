// kel::NetworkProxy — which session carries a network operation's requests.
//
// NetworkProxy::session(s) uses the given session; NetworkProxy::none uses the library's default
// session, defaultURLSession(): a URLSession made once, thread-safely, on first use, from the
// default configuration with timing data on, and kept for the rest of the process. Its
// completion handlers (and so a network operation's decoding) run on a serial queue of its own,
// "kel.URLSession.default.handlers", not on its I/O thread.
//
// Thread rules: a value type; copies may travel to any thread. defaultURLSession() may be
// called from any thread.
#pragma once

#include <memory>
#include <utility>

#include "kel/Export.hpp"
#include "kel/Networking/URLSessionType.hpp"

namespace kel {

class URLSession;

// The process-wide default session (timing data on). Never destroyed.
KEL_EXPORT const std::shared_ptr<URLSession>& defaultURLSession();

class KEL_EXPORT NetworkProxy {
  public:
    static NetworkProxy session(std::shared_ptr<URLSessionType> session) {
        return NetworkProxy(std::move(session));
    }
    static const NetworkProxy none;

    bool isNone() const noexcept { return session_ == nullptr; }
    // The given session; null for none.
    const std::shared_ptr<URLSessionType>& sessionValue() const noexcept { return session_; }
    // The session to use: the given one, or the default session.
    std::shared_ptr<URLSessionType> resolvedSession() const;

    friend bool operator==(const NetworkProxy&, const NetworkProxy&) = default;

  private:
    constexpr NetworkProxy() = default;
    explicit NetworkProxy(std::shared_ptr<URLSessionType> session) : session_(std::move(session)) {}

    std::shared_ptr<URLSessionType> session_;
};

inline const NetworkProxy NetworkProxy::none{};

}  // namespace kel

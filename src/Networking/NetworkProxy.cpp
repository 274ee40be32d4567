#include "kel/Networking/NetworkProxy.hpp"

#include "kel/Platform/URLSession.hpp"

namespace kel {

const std::shared_ptr<URLSession>& defaultURLSession() {
    // Leaked on purpose: the session and its I/O thread serve the process to its end, and
    // callbacks may still arrive while static destructors run.
    static const auto* session = [] {
        auto configuration = URLSessionConfiguration::defaultSessionConfiguration();
        configuration.setKs_timingDataEnabled(true);
        return new std::shared_ptr<URLSession>(URLSession::make(configuration));
    }();
    return *session;
}

std::shared_ptr<URLSessionType> NetworkProxy::resolvedSession() const {
    if (session_) {
        return session_;
    }
    return defaultURLSession();
}

}  // namespace kel

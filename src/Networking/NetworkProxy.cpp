#include "kel/Networking/NetworkProxy.hpp"

#include "kel/Platform/URLSession.hpp"

namespace kel {

const std::shared_ptr<URLSession>& defaultURLSession() {
    // Leaked on purpose: the session and its I/O thread serve the process to its end, and
    // callbacks may still arrive while static destructors run.
    //
    // Its handlers run on a serial queue of its own rather than on the I/O thread: they decode
    // bodies (a network operation's deserializer runs there), and the session is shared by the
    // whole process, so a large body must not hold up every other transfer. The decoding then
    // also overlaps the transfers instead of taking turns with them.
    static const auto* session = [] {
        auto configuration = URLSessionConfiguration::defaultSessionConfiguration();
        configuration.setKs_timingDataEnabled(true);
        return new std::shared_ptr<URLSession>(
            URLSession::make(configuration, DispatchQueue("kel.URLSession.default.handlers")));
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

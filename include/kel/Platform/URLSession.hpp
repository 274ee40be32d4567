// kel::URLSession — HTTP(S) loading on libcurl's multi interface.
//
// Each session owns one I/O thread that drives all of its transfers with one curl multi handle,
// so connections to the same host are kept and reused between tasks. Other threads hand new
// tasks and cancellations to the I/O thread through a list under the session's lock and wake it
// with curl_multi_wakeup. Completion handlers run, in completion order and outside the
// session's lock, on the session's own serial context: its I/O thread, unless a delegate queue
// is given, in which case they are queued there. On the I/O thread a handler costs no thread
// hop, but while it runs no transfer of the session moves: keep handlers short (or give a
// delegate queue), and never wait in one for another task of the same session.
//
// A response whose body is empty is delivered with no data. Redirects are followed (up to 16).
// Failures are DomainErrors of URLError::domain; the CURLcode mapping is in URLSession.cpp and
// docs/architecture.md. Host names under the reserved ".invalid" top-level domain fail at once
// with URLError::cannotFindHost, without asking the resolver (RFC 6761, 6.4).
//
// Thread rules: every member may be called from any thread.
// Ownership: shared-owned (URLSession::make). Destroying the session (or
// invalidateAndCancel()) cancels the tasks still running, stops and joins the I/O thread; their
// completion handlers still run, with URLError::cancelled. Dropping the last reference from a
// handler on the I/O thread is allowed: the thread is then detached and ends by itself.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "kel/Export.hpp"
#include "kel/Networking/URLSessionType.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/URLRequest.hpp"
#include "kel/Platform/URLSessionConfiguration.hpp"
#include "kel/Platform/URLSessionTask.hpp"

namespace kel {

namespace detail {
class URLSessionCore;
}

class KEL_EXPORT URLSession final : public URLSessionType {
  public:
    static std::shared_ptr<URLSession> make(
        URLSessionConfiguration configuration =
            URLSessionConfiguration::defaultSessionConfiguration(),
        std::optional<DispatchQueue> delegateQueue = std::nullopt);

    URLSession(const URLSession&) = delete;
    URLSession& operator=(const URLSession&) = delete;
    ~URLSession() override;

    const URLSessionConfiguration& configuration() const noexcept { return configuration_; }
    // The queue handlers are posted to; none when they run on the I/O thread.
    const std::optional<DispatchQueue>& delegateQueue() const noexcept { return delegateQueue_; }

    // A suspended task; call resume() to start it.
    std::shared_ptr<URLSessionTask> dataTask(URLRequest request,
                                             URLSessionTask::CompletionHandler completion);

    // Makes a data task that hands its metrics to completion, resumes it and returns it.
    std::shared_ptr<Cancellable> downloadData(const URLRequest& request,
                                              DownloadCompletion completion) override;

    // Cancels every task and stops the I/O thread; later tasks complete as cancelled.
    void invalidateAndCancel();

  private:
    URLSession(URLSessionConfiguration configuration, std::optional<DispatchQueue> delegateQueue);

    const URLSessionConfiguration configuration_;
    const std::optional<DispatchQueue> delegateQueue_;
    std::shared_ptr<detail::URLSessionCore> core_;
    std::thread thread_;  // the I/O thread; joined once, by invalidateAndCancel or the destructor
    std::once_flag joinOnce_;
};

}  // namespace kel

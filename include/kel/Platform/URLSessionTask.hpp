// kel::URLSessionTask — one load of a URLSession: made suspended, started with resume(),
// stopped with cancel().
//
// The completion handler given to URLSession::dataTask runs exactly once: with the outcome of
// the transfer, or with a URLError::cancelled error when the task is cancelled before it ends
// (also when cancelled before resume(), or when its session is torn down). The handler is
// released right after it returns, which ends any reference cycle it holds to the task.
// ks_taskMetrics() gives the task's timing metrics once its transfer has ended, when the
// session's configuration has timing data enabled; inside the completion handler it is set.
//
// Thread rules: resume(), cancel() and the accessors may be called from any thread; state
// changes go through the session's lock. Ownership: shared-owned; the session holds a running
// task until its completion handler has been called.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "kel/Export.hpp"
#include "kel/Platform/Cancellable.hpp"
#include "kel/Platform/Data.hpp"
#include "kel/Platform/Error.hpp"
#include "kel/Platform/URLRequest.hpp"
#include "kel/Platform/URLResponse.hpp"
#include "kel/Platform/URLSessionTaskMetrics.hpp"

namespace kel {

namespace detail {
class URLSessionCore;
}

class KEL_EXPORT URLSessionTask final : public Cancellable,
                                        public std::enable_shared_from_this<URLSessionTask> {
  public:
    enum class State { running, suspended, canceling, completed };
    using CompletionHandler = std::function<void(
        std::optional<Data> data, std::shared_ptr<const URLResponse> response, Error error)>;

    KEL_NO_EXPORT URLSessionTask(std::shared_ptr<detail::URLSessionCore> core,
                                 std::uint64_t identifier, URLRequest request,
                                 CompletionHandler completion);
    URLSessionTask(const URLSessionTask&) = delete;
    URLSessionTask& operator=(const URLSessionTask&) = delete;

    void resume();
    void cancel() override;

    std::uint64_t taskIdentifier() const noexcept { return identifier_; }
    const URLRequest& originalRequest() const noexcept { return request_; }
    State state() const noexcept { return state_.load(std::memory_order_acquire); }

    std::shared_ptr<const URLSessionTaskMetrics> ks_taskMetrics() const;

  private:
    friend class detail::URLSessionCore;

    const std::shared_ptr<detail::URLSessionCore> core_;
    const std::uint64_t identifier_;
    const URLRequest request_;
    std::atomic<State> state_{State::suspended};  // written under the core's lock
    CompletionHandler completion_;                // taken once, by the session's I/O thread
    mutable std::mutex metricsMutex_;             // guards metrics_
    std::shared_ptr<const URLSessionTaskMetrics> metrics_;
};

}  // namespace kel

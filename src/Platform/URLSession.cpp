// The URL session on libcurl's multi interface.
//
// One I/O thread per session owns the curl multi handle, every easy handle and every transfer's
// buffers; nothing curl-related is touched by another thread except curl_multi_wakeup, which is
// called under the core's lock while the multi handle is known to be alive, and only while the
// I/O thread sleeps in curl_multi_poll (once per sleep). Other threads talk to the I/O thread
// through `commands_` (resume and cancel requests) under the same lock.
//
// CURLcode -> URLError code:
//   CURLE_OPERATION_TIMEDOUT, and the session's own idle time-out     -> timedOut
//   CURLE_COULDNT_RESOLVE_HOST, CURLE_COULDNT_RESOLVE_PROXY, ".invalid" -> cannotFindHost
//   CURLE_COULDNT_CONNECT                                              -> cannotConnectToHost
//   CURLE_RECV_ERROR, CURLE_SEND_ERROR, CURLE_PARTIAL_FILE,
//   CURLE_GOT_NOTHING                                                  -> networkConnectionLost
//   CURLE_URL_MALFORMAT                                                -> badURL
//   CURLE_UNSUPPORTED_PROTOCOL                                         -> unsupportedURL
//   CURLE_TOO_MANY_REDIRECTS                                           -> httpTooManyRedirects
//   CURLE_WEIRD_SERVER_REPLY                                           -> badServerResponse
//   CURLE_BAD_CONTENT_ENCODING                                         -> cannotDecodeContentData
//   CURLE_FILESIZE_EXCEEDED                                            -> dataLengthExceedsMaximum
//   CURLE_SSL_CONNECT_ERROR                                            -> secureConnectionFailed
//   CURLE_PEER_FAILED_VERIFICATION                          -> serverCertificateUntrusted
//   cancel() and session teardown                           -> cancelled
//   anything else                                           -> unknown
#include "kel/Platform/URLSession.hpp"

#include <curl/curl.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ASCII.hpp"
#include "kel/Platform/FatalError.hpp"
#include "kel/Platform/URLError.hpp"

namespace kel {

namespace {

using SteadyClock = std::chrono::steady_clock;

URLError::Code urlErrorCode(CURLcode code) {
    switch (code) {
        case CURLE_OPERATION_TIMEDOUT:
            return URLError::timedOut;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return URLError::cannotFindHost;
        case CURLE_COULDNT_CONNECT:
            return URLError::cannotConnectToHost;
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
        case CURLE_PARTIAL_FILE:
        case CURLE_GOT_NOTHING:
            return URLError::networkConnectionLost;
        case CURLE_URL_MALFORMAT:
            return URLError::badURL;
        case CURLE_UNSUPPORTED_PROTOCOL:
            return URLError::unsupportedURL;
        case CURLE_TOO_MANY_REDIRECTS:
            return URLError::httpTooManyRedirects;
        case CURLE_WEIRD_SERVER_REPLY:
            return URLError::badServerResponse;
        case CURLE_BAD_CONTENT_ENCODING:
            return URLError::cannotDecodeContentData;
        case CURLE_FILESIZE_EXCEEDED:
            return URLError::dataLengthExceedsMaximum;
        case CURLE_SSL_CONNECT_ERROR:
            return URLError::secureConnectionFailed;
        case CURLE_PEER_FAILED_VERIFICATION:
            return URLError::serverCertificateUntrusted;
        case CURLE_ABORTED_BY_CALLBACK:
            return URLError::cancelled;
        default:
            return URLError::unknown;
    }
}

// Compares in place, without copying the host: this runs for every request.
bool isInvalidTLD(std::string_view host) {
    if (!host.empty() && host.back() == '.') {
        host.remove_suffix(1);
    }
    constexpr std::string_view label = "invalid";
    if (host.size() < label.size()) {
        return false;
    }
    bool matches = detail::equalsIgnoringCase(host.substr(host.size() - label.size()), label);
    return matches &&
           (host.size() == label.size() ||
            (host.size() > label.size() + 1 && host[host.size() - label.size() - 1] == '.'));
}

Date dateAfter(Date start, curl_off_t microseconds) {
    return start + std::chrono::microseconds(microseconds);
}

}  // namespace

namespace detail {

// The state shared by a session, its tasks and its I/O thread.
class URLSessionCore {
  public:
    URLSessionCore(URLSessionConfiguration configuration,
                   std::optional<DispatchQueue> delegateQueue)
        : configuration_(std::move(configuration)), delegateQueue_(std::move(delegateQueue)) {
        multi_ = curl_multi_init();
        KEL_PRECONDITION(multi_ != nullptr, "curl_multi_init failed");
    }

    std::uint64_t nextIdentifier() { return nextIdentifier_.fetch_add(1) + 1; }

    void resume(URLSessionTask& task) {
        std::unique_lock lock(mutex_);
        if (task.state_.load(std::memory_order_relaxed) != URLSessionTask::State::suspended) {
            return;
        }
        task.state_.store(URLSessionTask::State::running, std::memory_order_release);
        if (!submit(lock,
                    {Command::add, task.shared_from_this(), std::chrono::system_clock::now()})) {
            completeCancelledAfterStop(lock, task);
        }
    }

    void cancel(URLSessionTask& task) {
        std::unique_lock lock(mutex_);
        auto state = task.state_.load(std::memory_order_relaxed);
        if (state != URLSessionTask::State::suspended && state != URLSessionTask::State::running) {
            return;
        }
        task.state_.store(URLSessionTask::State::canceling, std::memory_order_release);
        if (!submit(lock, {Command::cancel, task.shared_from_this(), {}})) {
            completeCancelledAfterStop(lock, task);
        }
    }

    void stop() {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        if (multi_ != nullptr) {
            curl_multi_wakeup(multi_);
        }
    }

    void run();

  private:
    enum class Command { add, cancel };
    struct Request {
        Command command;
        std::shared_ptr<URLSessionTask> task;
        Date resumeDate;
    };

    // An easy handle with the parsed form of the URL it last fetched. A handle taken again
    // for the same URL text (the common case: a client polling one endpoint) keeps that
    // parse instead of parsing the text again; libcurl copies the parsed URL per transfer and
    // leaves this one as it is. Owned by the I/O thread.
    struct EasyHandle {
        CURL* easy = nullptr;
        CURLU* url = nullptr;
        std::string urlText;
    };

    // One transfer in flight; owned by the I/O thread.
    struct Transfer {
        std::shared_ptr<URLSessionTask> task;
        EasyHandle handle;
        curl_slist* headers = nullptr;
        Date resumeDate;
        std::chrono::duration<double> idleTimeout{0.0};
        SteadyClock::time_point deadline;
        // Set by the header and body callbacks; the loop moves the deadline forward once per
        // pass rather than reading the clock in every callback.
        bool progressed = false;
        Data body;
        HTTPURLResponse::HeaderFields responseHeaders;
    };

    // Queues a request for the I/O thread; false once the thread has stopped.
    bool submit(std::unique_lock<std::mutex>&, Request request) {
        if (multi_ == nullptr) {
            return false;
        }
        commands_.push_back(std::move(request));
        // Only a thread asleep in curl_multi_poll needs a wake-up, and one per sleep is enough:
        // a busy thread (also the I/O thread itself, running a handler) reads the list under
        // this lock before it sleeps again.
        if (polling_ && !wakeupSent_) {
            wakeupSent_ = true;
            curl_multi_wakeup(multi_);
        }
        return true;
    }

    // A task resumed or cancelled after the I/O thread stopped completes as cancelled at once.
    void completeCancelledAfterStop(std::unique_lock<std::mutex>& lock, URLSessionTask& task) {
        lock.unlock();
        complete(task, std::nullopt, nullptr,
                 makeError(URLError::make(URLError::cancelled, requestURL(task))), nullptr);
    }

    static std::string requestURL(const URLSessionTask& task) {
        const auto& url = task.request_.url();
        return url ? url->absoluteString() : std::string();
    }

    // Delivers the outcome, on the delegate queue or on this thread, exactly once per task.
    void complete(URLSessionTask& task, std::optional<Data> data,
                  std::shared_ptr<const URLResponse> response, Error error,
                  std::shared_ptr<const URLSessionTaskMetrics> metrics) {
        URLSessionTask::CompletionHandler handler;
        {
            std::lock_guard lock(mutex_);
            if (task.state_.load(std::memory_order_relaxed) == URLSessionTask::State::completed) {
                return;
            }
            task.state_.store(URLSessionTask::State::completed, std::memory_order_release);
            handler = std::move(task.completion_);
        }
        if (metrics) {
            std::lock_guard lock(task.metricsMutex_);
            task.metrics_ = std::move(metrics);
        }
        if (!handler) {
            return;
        }
        if (!delegateQueue_) {
            handler(std::move(data), std::move(response), std::move(error));
            return;
        }
        delegateQueue_->async([handler = std::move(handler), data = std::move(data),
                               response = std::move(response), error = std::move(error)]() mutable {
            handler(std::move(data), std::move(response), std::move(error));
        });
    }

    void start(Request& request);
    void finish(Transfer& transfer, CURLcode code, std::optional<URLError::Code> ownError);
    std::shared_ptr<const URLSessionTaskMetrics> metricsOf(const Transfer& transfer,
                                                           CURLcode code) const;
    void release(Transfer& transfer);

    static std::size_t onBody(char* bytes, std::size_t size, std::size_t count, void* context);
    static std::size_t onHeader(char* bytes, std::size_t size, std::size_t count, void* context);

    const URLSessionConfiguration configuration_;
    const std::optional<DispatchQueue> delegateQueue_;
    std::atomic<std::uint64_t> nextIdentifier_{0};

    std::mutex mutex_;  // guards commands_, stopping_, polling_, wakeupSent_, multi_ (as seen
                        // by other threads) and every task's state_ and completion_
    std::vector<Request> commands_;
    bool stopping_ = false;
    bool polling_ = false;     // the I/O thread is in, or about to enter, curl_multi_poll
    bool wakeupSent_ = false;  // curl_multi_wakeup was called during the current poll
    CURLM* multi_ = nullptr;

    // I/O thread only.
    std::vector<std::unique_ptr<Transfer>> transfers_;
    std::vector<EasyHandle> idleEasyHandles_;
};

void URLSessionCore::run() {
    CURLM* multi = multi_;  // stays valid until this function clears multi_ under the lock
    std::vector<Request> commands;
    for (;;) {
        bool stopping;
        {
            std::lock_guard lock(mutex_);
            commands.swap(commands_);
            polling_ = false;
            stopping = stopping_;
        }
        for (auto& request : commands) {
            if (request.command == Command::add && !stopping) {
                start(request);
                continue;
            }
            auto it = std::find_if(transfers_.begin(), transfers_.end(),
                                   [&](const auto& t) { return t->task == request.task; });
            if (it != transfers_.end()) {
                finish(**it, CURLE_OK, URLError::cancelled);
            } else {
                complete(*request.task, std::nullopt, nullptr,
                         makeError(URLError::make(URLError::cancelled, requestURL(*request.task))),
                         nullptr);
            }
        }
        commands.clear();
        if (stopping) {
            while (!transfers_.empty()) {
                finish(*transfers_.back(), CURLE_OK, URLError::cancelled);
            }
            break;
        }

        int running = 0;
        curl_multi_perform(multi, &running);
        int queued = 0;
        while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
            if (message->msg != CURLMSG_DONE) {
                continue;
            }
            Transfer* transfer = nullptr;
            curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
            finish(*transfer, message->data.result, std::nullopt);
        }

        // Idle time-outs: a transfer that received nothing for its time-out ends as timed out.
        auto now = SteadyClock::now();
        auto nextDeadline = now + std::chrono::seconds(1);
        for (std::size_t i = 0; i < transfers_.size();) {
            Transfer& transfer = *transfers_[i];
            if (transfer.progressed) {
                transfer.progressed = false;
                transfer.deadline =
                    now + std::chrono::duration_cast<SteadyClock::duration>(transfer.idleTimeout);
            }
            if (transfer.deadline <= now) {
                finish(transfer, CURLE_OK, URLError::timedOut);
                continue;  // finish removed transfers_[i]
            }
            nextDeadline = std::min(nextDeadline, transfer.deadline);
            ++i;
        }
        {
            // Commands queued since the top of the loop (by a handler, or by another thread
            // that saw the thread busy and sent no wake-up) are read before sleeping.
            std::lock_guard lock(mutex_);
            if (!commands_.empty() || stopping_) {
                continue;
            }
            polling_ = true;
            wakeupSent_ = false;
        }
        auto wait = std::chrono::ceil<std::chrono::milliseconds>(nextDeadline - now).count();
        curl_multi_poll(multi, nullptr, 0, static_cast<int>(std::max<long long>(wait, 1)), nullptr);
    }

    std::vector<Request> late;
    {
        std::lock_guard lock(mutex_);
        multi_ = nullptr;
        late.swap(commands_);
    }
    for (auto& request : late) {
        complete(*request.task, std::nullopt, nullptr,
                 makeError(URLError::make(URLError::cancelled, requestURL(*request.task))),
                 nullptr);
    }
    for (EasyHandle& handle : idleEasyHandles_) {
        curl_easy_cleanup(handle.easy);
        curl_url_cleanup(handle.url);
    }
    idleEasyHandles_.clear();
    curl_multi_cleanup(multi);
}

void URLSessionCore::start(Request& request) {
    URLSessionTask& task = *request.task;
    const URLRequest& urlRequest = task.request_;
    auto fail = [&](URLError::Code code) {
        complete(task, std::nullopt, nullptr, makeError(URLError::make(code, requestURL(task))),
                 nullptr);
    };
    if (!urlRequest.url()) {
        fail(URLError::unsupportedURL);
        return;
    }
    // The handle taken below is the most recently released one; when it last fetched this
    // very URL text, its parse (already checked below) is used again.
    const std::string& urlText = urlRequest.url()->absoluteString();
    CURLU* parsed = nullptr;
    bool sameURL = !idleEasyHandles_.empty() && idleEasyHandles_.back().url != nullptr &&
                   idleEasyHandles_.back().urlText == urlText;
    if (!sameURL) {
        parsed = curl_url();
        if (parsed == nullptr || curl_url_set(parsed, CURLUPART_URL, urlText.c_str(),
                                              CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
            curl_url_cleanup(parsed);
            fail(URLError::badURL);
            return;
        }
        char* host = nullptr;
        bool invalidHost = curl_url_get(parsed, CURLUPART_HOST, &host, 0) == CURLUE_OK &&
                           host != nullptr && isInvalidTLD(host);
        curl_free(host);
        if (invalidHost) {
            curl_url_cleanup(parsed);
            fail(URLError::cannotFindHost);
            return;
        }
    }

    // Options that every transfer shares are set once per easy handle; a reused handle only
    // has the per-request ones cleared (method, header list).
    EasyHandle handle;
    if (idleEasyHandles_.empty()) {
        handle.easy = curl_easy_init();
        CURL* easy = handle.easy;
        KEL_PRECONDITION(easy != nullptr, "curl_easy_init failed");
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &URLSessionCore::onBody);
        curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &URLSessionCore::onHeader);
        curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 16L);
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
        curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS,
                         static_cast<long>(configuration_.timeoutIntervalForResource * 1000));
    } else {
        handle = std::move(idleEasyHandles_.back());
        idleEasyHandles_.pop_back();
        CURL* easy = handle.easy;
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, nullptr);
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, nullptr);
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, nullptr);
    }

    if (!sameURL) {
        curl_url_cleanup(handle.url);
        handle.url = parsed;
        handle.urlText = urlText;
    }
    CURL* easy = handle.easy;

    auto transfer = std::make_unique<Transfer>();
    transfer->task = std::move(request.task);
    transfer->handle = std::move(handle);
    transfer->resumeDate = request.resumeDate;
    double timeout = urlRequest.timeoutInterval();
    if (timeout <= 0 || timeout == URLRequest::defaultTimeoutInterval) {
        timeout = configuration_.timeoutIntervalForRequest;
    }
    transfer->idleTimeout = std::chrono::duration<double>(timeout);
    transfer->deadline = SteadyClock::now() +
                         std::chrono::duration_cast<SteadyClock::duration>(transfer->idleTimeout);

    for (const auto& [name, value] : configuration_.httpAdditionalHeaders) {
        if (!urlRequest.valueForHTTPHeaderField(name)) {
            transfer->headers = curl_slist_append(transfer->headers, (name + ": " + value).c_str());
        }
    }
    for (const auto& [name, value] : urlRequest.allHTTPHeaderFields()) {
        // "Name;" is libcurl's spelling of a header sent with an empty value.
        auto line = value.empty() ? name + ";" : name + ": " + value;
        transfer->headers = curl_slist_append(transfer->headers, line.c_str());
    }

    curl_easy_setopt(easy, CURLOPT_CURLU, transfer->handle.url);
    curl_easy_setopt(easy, CURLOPT_PRIVATE, transfer.get());
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, transfer.get());
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, transfer.get());
    if (transfer->headers != nullptr) {
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer->headers);
    }
    const std::string& method = urlRequest.httpMethod();
    if (const auto& body = urlRequest.httpBody()) {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body->data());
        if (method != "POST") {
            curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
        }
    } else if (method == "HEAD") {
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else if (method != "GET") {
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
    }

    curl_multi_add_handle(multi_, easy);
    transfers_.push_back(std::move(transfer));
}

std::size_t URLSessionCore::onBody(char* bytes, std::size_t size, std::size_t count,
                                   void* context) {
    auto& transfer = *static_cast<Transfer*>(context);
    std::size_t length = size * count;
    if (transfer.body.capacity() == 0) {
        // The announced length, when there is one, sizes the buffer once. It is only a hint
        // (a compressed body decodes to more bytes, a server may lie), so it is capped.
        constexpr curl_off_t maximumReservation = 16 * 1024 * 1024;
        curl_off_t announced = -1;
        curl_easy_getinfo(transfer.handle.easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
        if (announced > 0) {
            transfer.body.reserve(
                static_cast<std::size_t>(std::min(announced, maximumReservation)));
        }
    }
    transfer.body.insert(transfer.body.end(), reinterpret_cast<std::uint8_t*>(bytes),
                         reinterpret_cast<std::uint8_t*>(bytes) + length);
    transfer.progressed = true;
    return length;
}

std::size_t URLSessionCore::onHeader(char* bytes, std::size_t size, std::size_t count,
                                     void* context) {
    auto& transfer = *static_cast<Transfer*>(context);
    std::size_t length = size * count;
    std::string_view line(bytes, length);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.remove_suffix(1);
    }
    if (line.starts_with("HTTP/")) {
        // A new response (after a redirect or an interim 1xx) starts a new set of fields.
        transfer.responseHeaders.clear();
    } else if (auto colon = line.find(':'); colon != std::string_view::npos) {
        auto value = line.substr(colon + 1);
        while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) {
            value.remove_prefix(1);
        }
        transfer.responseHeaders.emplace_back(std::string(line.substr(0, colon)),
                                              std::string(value));
    }
    transfer.progressed = true;
    return length;
}

std::shared_ptr<const URLSessionTaskMetrics> URLSessionCore::metricsOf(const Transfer& transfer,
                                                                       CURLcode code) const {
    if (!configuration_.ks_timingDataEnabled()) {
        return nullptr;
    }
    Date end = std::chrono::system_clock::now();
    curl_off_t lookup = 0, connect = 0, tls = 0, pretransfer = 0, firstByte = 0, total = 0;
    long connects = 0, redirects = 0, version = 0;
    curl_easy_getinfo(transfer.handle.easy, CURLINFO_NAMELOOKUP_TIME_T, &lookup);
    curl_easy_getinfo(transfer.handle.easy, CURLINFO_CONNECT_TIME_T, &connect);
    curl_easy_getinfo(transfer.handle.easy, CURLINFO_APPCONNECT_TIME_T, &tls);
    curl_easy_getinfo(transfer.handle.easy, CURLINFO_PRETRANSFER_TIME_T, &pretransfer);
    curl_easy_getinfo(transfer.handle.easy, CURLINFO_STARTTRANSFER_TIME_T, &firstByte);
    curl_easy_getinfo(transfer.handle.easy, CURLINFO_TOTAL_TIME_T, &total);
    curl_easy_getinfo(transfer.handle.easy, CURLINFO_NUM_CONNECTS, &connects);
    curl_easy_getinfo(transfer.handle.easy, CURLINFO_REDIRECT_COUNT, &redirects);
    curl_easy_getinfo(transfer.handle.easy, CURLINFO_HTTP_VERSION, &version);

    auto metrics = std::make_shared<URLSessionTaskMetrics>();
    // libcurl's times count from the start of its transfer; total is taken at its end, now.
    Date curlStart = std::max(transfer.resumeDate, dateAfter(end, -total));
    URLSessionTaskTransactionMetrics transaction;
    transaction.fetchStartDate = curlStart;
    transaction.isReusedConnection = connects == 0 && pretransfer > 0;
    if (!transaction.isReusedConnection && connect > 0) {
        transaction.domainLookupStartDate = curlStart;
        transaction.domainLookupEndDate = dateAfter(curlStart, lookup);
        transaction.connectStartDate = dateAfter(curlStart, lookup);
        transaction.connectEndDate = dateAfter(curlStart, tls > 0 ? tls : connect);
        if (tls > 0) {
            transaction.secureConnectionStartDate = dateAfter(curlStart, connect);
            transaction.secureConnectionEndDate = dateAfter(curlStart, tls);
        }
    }
    if (pretransfer > 0) {
        transaction.requestStartDate = dateAfter(curlStart, pretransfer);
    }
    if (firstByte > 0) {
        transaction.responseStartDate = dateAfter(curlStart, firstByte);
    }
    if (code == CURLE_OK) {
        transaction.responseEndDate = end;
    }
    transaction.networkProtocolName = version == CURL_HTTP_VERSION_2_0   ? "h2"
                                      : version == CURL_HTTP_VERSION_1_0 ? "http/1.0"
                                      : version == CURL_HTTP_VERSION_3   ? "h3"
                                                                         : "http/1.1";
    metrics->transactionMetrics.push_back(std::move(transaction));
    metrics->taskInterval = {transfer.resumeDate, end - transfer.resumeDate};
    metrics->redirectCount = static_cast<int>(redirects);
    return metrics;
}

void URLSessionCore::finish(Transfer& transfer, CURLcode code,
                            std::optional<URLError::Code> ownError) {
    curl_multi_remove_handle(multi_, transfer.handle.easy);
    auto metrics = metricsOf(transfer, code);
    std::optional<Data> data;
    std::shared_ptr<const URLResponse> response;
    Error error;
    if (ownError || code != CURLE_OK) {
        error = makeError(
            URLError::make(ownError ? *ownError : urlErrorCode(code), requestURL(*transfer.task)));
    } else {
        long status = 0;
        char* effectiveURL = nullptr;
        curl_off_t length = -1;
        curl_easy_getinfo(transfer.handle.easy, CURLINFO_RESPONSE_CODE, &status);
        curl_easy_getinfo(transfer.handle.easy, CURLINFO_EFFECTIVE_URL, &effectiveURL);
        curl_easy_getinfo(transfer.handle.easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
        auto finalURL = effectiveURL != nullptr ? URL::fromString(effectiveURL) : std::nullopt;
        if (status > 0) {
            response = std::make_shared<HTTPURLResponse>(
                std::move(finalURL), status, std::move(transfer.responseHeaders), length);
        } else {
            response = std::make_shared<URLResponse>(std::move(finalURL), length);
        }
        if (!transfer.body.empty()) {
            data = std::move(transfer.body);
        }
    }
    std::shared_ptr<URLSessionTask> task = std::move(transfer.task);
    release(transfer);
    complete(*task, std::move(data), std::move(response), std::move(error), std::move(metrics));
}

void URLSessionCore::release(Transfer& transfer) {
    curl_slist_free_all(transfer.headers);
    idleEasyHandles_.push_back(std::move(transfer.handle));
    auto it = std::find_if(transfers_.begin(), transfers_.end(),
                           [&](const auto& t) { return t.get() == &transfer; });
    transfers_.erase(it);
}

}  // namespace detail

URLSessionTask::URLSessionTask(std::shared_ptr<detail::URLSessionCore> core,
                               std::uint64_t identifier, URLRequest request,
                               CompletionHandler completion)
    : core_(std::move(core)),
      identifier_(identifier),
      request_(std::move(request)),
      completion_(std::move(completion)) {}

void URLSessionTask::resume() {
    core_->resume(*this);
}

void URLSessionTask::cancel() {
    core_->cancel(*this);
}

std::shared_ptr<const URLSessionTaskMetrics> URLSessionTask::ks_taskMetrics() const {
    std::lock_guard lock(metricsMutex_);
    return metrics_;
}

std::shared_ptr<URLSession> URLSession::make(URLSessionConfiguration configuration,
                                             std::optional<DispatchQueue> delegateQueue) {
    static std::once_flag curlReady;
    std::call_once(curlReady, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    std::shared_ptr<URLSession> session(
        new URLSession(std::move(configuration), std::move(delegateQueue)));
    session->thread_ = std::thread([core = session->core_] {
        ::pthread_setname_np(::pthread_self(), "URLSession.io");
        core->run();
    });
    return session;
}

URLSession::URLSession(URLSessionConfiguration configuration,
                       std::optional<DispatchQueue> delegateQueue)
    : configuration_(std::move(configuration)),
      delegateQueue_(std::move(delegateQueue)),
      core_(std::make_shared<detail::URLSessionCore>(configuration_, delegateQueue_)) {}

URLSession::~URLSession() {
    invalidateAndCancel();
}

void URLSession::invalidateAndCancel() {
    std::call_once(joinOnce_, [this] {
        core_->stop();
        if (!thread_.joinable()) {
            return;
        }
        // Released from one of its own handlers: the thread cannot join itself; it stops when
        // the handler returns and owns what it still needs (the core).
        if (thread_.get_id() == std::this_thread::get_id()) {
            thread_.detach();
        } else {
            thread_.join();
        }
    });
}

std::shared_ptr<URLSessionTask> URLSession::dataTask(URLRequest request,
                                                     URLSessionTask::CompletionHandler completion) {
    return std::make_shared<URLSessionTask>(core_, core_->nextIdentifier(), std::move(request),
                                            std::move(completion));
}

std::shared_ptr<Cancellable> URLSession::downloadData(const URLRequest& request,
                                                      DownloadCompletion completion) {
    // The holder lets the handler read the task's metrics; the handler, and with it this
    // reference to the task, is released once it has run.
    auto holder = std::make_shared<std::shared_ptr<URLSessionTask>>();
    auto task = dataTask(request, [holder, completion = std::move(completion)](
                                      std::optional<Data> data,
                                      std::shared_ptr<const URLResponse> response, Error error) {
        std::shared_ptr<const URLSessionTaskMetrics> metrics;
        if (*holder) {
            metrics = (*holder)->ks_taskMetrics();
        }
        completion(std::move(data), std::move(response), std::move(metrics), std::move(error));
    });
    KEL_PRECONDITION(task != nullptr, "the session made no task");
    *holder = task;
    task->resume();
    return task;
}

}  // namespace kel

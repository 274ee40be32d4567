// kel::NetworkOperation<D> — an asynchronous operation that GETs an endpoint and decodes the
// body with the deserializer D.
//
// Each attempt builds the request afresh: it reads the endpoint through endpointAccessor,
// replaces the URL's query by `parameters` (an empty list leaves an empty query), adds each of
// `headers` (in the map's order, adding rather than replacing), runs the request through
// requestProcessors in order, then sets the attempt's time-out (overriding what a processor
// set) and sends it through the session `networkProxy` names. A body, whatever the status code,
// goes to a new D; no body fails with Error::http(status) (or Error::unknown without an HTTP
// response). When the first attempt timed out or lost its connection, the operation logs,
// waits retryDelay through TaskScheduler::shared().scheduleAfter and makes one more attempt
// with the longer time-out; that attempt's result is final. Every step is logged (default
// level for progress, error level for failures), with the operation's ID.
//
// The time-outs and the delay default to 15 s, 60 s and 1 s; NetworkOperationTimeouts lets a
// test or an application shorten them.
//
// Thread rules: set requestProcessors before the operation starts; it is not locked. The
// completion runs on the session's completion thread (or a scheduler thread when the retry's
// request cannot be built); the operation does not hop queues.
// Ownership: shared-owned (std::make_shared). While an attempt or the retry's delay is pending,
// the pending callable keeps the operation and its completion alive.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kel/Concurrency/AsyncOperation.hpp"
#include "kel/Concurrency/TaskScheduler.hpp"
#include "kel/Extensions/Accessor.hpp"
#include "kel/Networking/DeserializerType.hpp"
#include "kel/Networking/NetworkOperationError.hpp"
#include "kel/Networking/NetworkProxy.hpp"
#include "kel/Networking/URLRequestProcessor.hpp"
#include "kel/Networking/detail/NetworkResponseDescription.hpp"
#include "kel/Platform/Log.hpp"
#include "kel/Platform/URLComponents.hpp"
#include "kel/Platform/URLError.hpp"
#include "kel/Platform/URLRequest.hpp"

namespace kel {

struct NetworkOperationTimeouts {
    double firstAttempt = 15.0;  // seconds
    double retry = 60.0;         // seconds
    double retryDelay = 1.0;     // seconds between a timed-out or lost first attempt and the retry
};

template <DeserializerType D>
class NetworkOperation : public AsyncOperation<typename D::Response> {
    using Base = AsyncOperation<typename D::Response>;

  public:
    using Response = typename D::Response;
    using Error = NetworkOperationError;
    using CompletionHandler = typename Base::CompletionHandler;
    using Parameters = std::vector<URLQueryItem>;
    using Headers = std::map<std::string, std::string>;
    using RequestProcessors = std::vector<std::shared_ptr<URLRequestProcessor>>;

    NetworkOperation() = delete;

    NetworkOperation(Accessor<URL> endpointAccessor, Parameters parameters, Headers headers,
                     NetworkProxy networkProxy, NetworkOperationTimeouts timeouts = {})
        : endpointAccessor_(std::move(endpointAccessor)),
          parameters_(std::move(parameters)),
          headers_(std::move(headers)),
          networkProxy_(std::move(networkProxy)),
          timeouts_(timeouts) {}

    NetworkOperation(const URL& endpoint, Parameters parameters, Headers headers,
                     NetworkProxy networkProxy, NetworkOperationTimeouts timeouts = {})
        : NetworkOperation(Accessor<URL>([endpoint] { return endpoint; }), std::move(parameters),
                           std::move(headers), std::move(networkProxy), timeouts) {}

    const Accessor<URL>& endpointAccessor() const noexcept { return endpointAccessor_; }
    const Parameters& parameters() const noexcept { return parameters_; }
    const Headers& headers() const noexcept { return headers_; }
    const NetworkProxy& networkProxy() const noexcept { return networkProxy_; }

    const RequestProcessors& requestProcessors() const noexcept { return requestProcessors_; }
    void setRequestProcessors(RequestProcessors processors) {
        requestProcessors_ = std::move(processors);
    }

  protected:
    void perform(CompletionHandler completion) override {
        Log::write(LogLevel::default_, "Network operation %{public}@ started", this->operationID());
        auto self = shared();
        performRequest(timeouts_.firstAttempt,
                       [self, completion = std::move(completion)](Result<Response> result) mutable {
                           self->retryIfNeeded(std::move(result), std::move(completion));
                       });
    }

  private:
    std::shared_ptr<NetworkOperation> shared() {
        return std::static_pointer_cast<NetworkOperation>(this->shared_from_this());
    }

    URLRequest makeRequest() const {
        auto components = URLComponents::make(endpointAccessor_.value());
        if (!components) {
            throw Error::malformedURL;
        }
        components->setQueryItems(parameters_);
        auto url = components->url();
        if (!url) {
            throw Error::malformedURL;
        }
        URLRequest request(std::move(url));
        for (const auto& [name, value] : headers_) {
            request.addValue(value, name);
        }
        return request;
    }

    void performRequest(double timeout, CompletionHandler completion) {
        std::optional<URLRequest> built;
        try {
            built.emplace(makeRequest());
        } catch (...) {
            auto error = std::current_exception();
            Log::write(LogLevel::error,
                       "Network operation %{public}@ failed to generate URL request with error: "
                       "%{public}@",
                       this->operationID(), errorDescription(error));
            completion(Result<Response>::failed(error));
            return;
        }
        URLRequest request = std::move(*built);
        for (const auto& processor : requestProcessors_) {
            request = processor->process(request);
        }
        if (request.url()) {
            Log::write(LogLevel::default_,
                       "Network operation %{public}@ will issue request to URL: %{public}@",
                       this->operationID(), request.url()->absoluteString());
        }
        request.setTimeoutInterval(timeout);
        auto session = networkProxy_.resolvedSession();
        session->downloadData(
            request, [self = shared(), completion = std::move(completion)](
                         std::optional<Data> data, std::shared_ptr<const URLResponse> response,
                         std::shared_ptr<const URLSessionTaskMetrics> metrics, kel::Error error) {
                self->handleResponse(std::move(data), response.get(), metrics.get(),
                                     std::move(error), completion);
            });
    }

    void handleResponse(std::optional<Data> data, const URLResponse* response,
                        const URLSessionTaskMetrics* metrics, kel::Error error,
                        const CompletionHandler& completion) {
        const auto& id = this->operationID();
        if (error) {
            Log::write(LogLevel::error,
                       "Network operation %{public}@ failed with error: %{public}@", id,
                       errorDescription(error));
            completion(Result<Response>::failed(std::move(error)));
            return;
        }
        if (!data) {
            if (const auto* http = response != nullptr ? response->asHTTP() : nullptr) {
                Log::write(LogLevel::error,
                           "Network operation %{public}@ failed with HTTP status code: %{public}@",
                           id, std::to_string(http->statusCode()));
                completion(Result<Response>::failed(makeError(Error::http(http->statusCode()))));
            } else {
                Log::write(LogLevel::error,
                           "Network operation %{public}@ failed with unknown error", id);
                completion(Result<Response>::failed(makeError(Error::unknown)));
            }
            return;
        }
        Log::write(LogLevel::default_,
                   "Network operation %{public}@ received response (%{public}@)", id,
                   runtime::networkResponseDescription(data->size(), metrics));
        std::optional<Response> value;
        kel::Error parseError;
        try {
            D deserializer;
            value.emplace(deserializer.deserialize(*data));
        } catch (...) {
            parseError = std::current_exception();
        }
        if (value) {
            Log::write(LogLevel::default_, "Network operation %{public}@ succeeded", id);
            completion(Result<Response>::success(std::move(*value)));
        } else {
            Log::write(LogLevel::error,
                       "Network operation %{public}@ failed to parse response with error: "
                       "%{public}@, response=%{public}@",
                       id, errorDescription(parseError), runtime::optionalUTF8Description(*data));
            completion(Result<Response>::failed(std::move(parseError)));
        }
    }

    // A time-out or a lost connection on the first attempt earns one retry after the delay.
    void retryIfNeeded(Result<Response> result, CompletionHandler completion) {
        std::optional<long> code =
            result.isSuccess() ? std::nullopt : URLError::code(result.error());
        if (code != URLError::timedOut && code != URLError::networkConnectionLost) {
            completion(std::move(result));
            return;
        }
        double delay = timeouts_.retryDelay;
        Log::write(LogLevel::default_,
                   "Network operation %{public}@ will retry with longer timeout after delay: %f",
                   this->operationID(), delay);
        TaskScheduler::shared().scheduleAfter(
            delay, [self = shared(), completion = std::move(completion)]() mutable {
                self->performRequest(self->timeouts_.retry, std::move(completion));
            });
    }

    const Accessor<URL> endpointAccessor_;
    const Parameters parameters_;
    const Headers headers_;
    const NetworkProxy networkProxy_;
    const NetworkOperationTimeouts timeouts_;
    RequestProcessors requestProcessors_;  // set before the operation starts
};

}  // namespace kel

// kel::URLRequest — what to load: URL, method, header fields, body, cache policy and time-out.
//
// Header fields keep the order in which they were first set; names compare case-insensitively.
// addValue appends to a field that exists ("a" then "b" gives "a,b"); setValue replaces it.
// timeoutInterval is the longest wait, in seconds, for the next bytes of the response (an idle
// time-out, as on the original platform); its default is 60 seconds.
//
// Thread rules: a value type; copies may travel to any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kel/Export.hpp"
#include "kel/Platform/Data.hpp"
#include "kel/Platform/URL.hpp"

namespace kel {

class KEL_EXPORT URLRequest {
  public:
    enum class CachePolicy {
        useProtocolCachePolicy,
        reloadIgnoringLocalCacheData,
        returnCacheDataElseLoad,
        returnCacheDataDontLoad,
    };

    static constexpr double defaultTimeoutInterval = 60.0;

    explicit URLRequest(std::optional<URL> url,
                        CachePolicy cachePolicy = CachePolicy::useProtocolCachePolicy,
                        double timeoutInterval = defaultTimeoutInterval)
        : url_(std::move(url)), cachePolicy_(cachePolicy), timeoutInterval_(timeoutInterval) {}

    const std::optional<URL>& url() const noexcept { return url_; }
    void setURL(std::optional<URL> url) { url_ = std::move(url); }

    CachePolicy cachePolicy() const noexcept { return cachePolicy_; }
    void setCachePolicy(CachePolicy policy) noexcept { cachePolicy_ = policy; }

    double timeoutInterval() const noexcept { return timeoutInterval_; }
    void setTimeoutInterval(double seconds) noexcept { timeoutInterval_ = seconds; }

    const std::string& httpMethod() const noexcept { return httpMethod_; }
    void setHTTPMethod(std::string method) { httpMethod_ = std::move(method); }

    const std::optional<Data>& httpBody() const noexcept { return httpBody_; }
    void setHTTPBody(std::optional<Data> body) { httpBody_ = std::move(body); }

    const std::vector<std::pair<std::string, std::string>>& allHTTPHeaderFields() const noexcept {
        return headers_;
    }
    std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const;
    void addValue(std::string_view value, std::string_view field);
    void setValue(std::optional<std::string_view> value, std::string_view field);

    friend bool operator==(const URLRequest&, const URLRequest&) = default;

  private:
    std::optional<URL> url_;
    CachePolicy cachePolicy_;
    double timeoutInterval_;
    std::string httpMethod_ = "GET";
    std::optional<Data> httpBody_;
    std::vector<std::pair<std::string, std::string>> headers_;
};

}  // namespace kel

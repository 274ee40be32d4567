// kel::URLResponse, kel::HTTPURLResponse — what a server answered, without the body.
//
// Every response carries the final URL (after redirects) and the expected content length (-1
// when unknown). An HTTP response adds the status code and the header fields, in arrival
// order, looked up case-insensitively. Responses reach completion handlers as
// std::shared_ptr<const URLResponse>; dynamic_cast (or asHTTP()) tells an HTTP one.
//
// Thread rules: immutable once made; may be read from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kel/Export.hpp"
#include "kel/Platform/URL.hpp"

namespace kel {

class HTTPURLResponse;

class KEL_EXPORT URLResponse {
  public:
    URLResponse(std::optional<URL> url, std::int64_t expectedContentLength)
        : url_(std::move(url)), expectedContentLength_(expectedContentLength) {}
    virtual ~URLResponse() = default;

    const std::optional<URL>& url() const noexcept { return url_; }
    std::int64_t expectedContentLength() const noexcept { return expectedContentLength_; }

    // This response as an HTTP response, or null.
    const HTTPURLResponse* asHTTP() const;

  private:
    std::optional<URL> url_;
    std::int64_t expectedContentLength_;
};

class KEL_EXPORT HTTPURLResponse final : public URLResponse {
  public:
    using HeaderFields = std::vector<std::pair<std::string, std::string>>;

    HTTPURLResponse(std::optional<URL> url, long statusCode, HeaderFields headers,
                    std::int64_t expectedContentLength = -1)
        : URLResponse(std::move(url), expectedContentLength),
          statusCode_(statusCode),
          headers_(std::move(headers)) {}

    long statusCode() const noexcept { return statusCode_; }
    const HeaderFields& allHeaderFields() const noexcept { return headers_; }
    std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const;

  private:
    long statusCode_;
    HeaderFields headers_;
};

inline const HTTPURLResponse* URLResponse::asHTTP() const {
    return dynamic_cast<const HTTPURLResponse*>(this);
}

}  // namespace kel

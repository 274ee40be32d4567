// kel::URLComponents — a URL split into its parts, which can be changed and put together again.
//
// Parsing is libcurl's (curl_url), without a base URL: a text that is not an absolute URL with a
// scheme and an authority gives no components. Parts are kept percent-encoded as they appeared.
// Setting queryItems replaces the whole query: each name and value is percent-encoded (every
// byte outside the unreserved set and "!$'()*,/:;?@" is written as %XX, so "&", "=", "+" and
// "#" inside a name or value cannot change the query's structure); an empty list leaves an empty
// query ("...?"), std::nullopt removes it.
//
// Thread rules: a value type; copies may travel to any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kel/Export.hpp"
#include "kel/Platform/URL.hpp"
#include "kel/Platform/URLQueryItem.hpp"

namespace kel {

class KEL_EXPORT URLComponents {
  public:
    // Splits url's text; none when it is not an absolute URL.
    static std::optional<URLComponents> make(const URL& url);
    static std::optional<URLComponents> fromString(std::string_view text);

    const std::string& scheme() const noexcept { return scheme_; }
    const std::string& host() const noexcept { return host_; }
    std::optional<int> port() const noexcept { return port_; }
    const std::string& path() const noexcept { return path_; }
    // The percent-encoded query, without its "?"; none when the URL has no "?".
    const std::optional<std::string>& percentEncodedQuery() const noexcept { return query_; }
    const std::optional<std::string>& fragment() const noexcept { return fragment_; }

    // The query split at "&" and "=", percent-decoded; none when there is no query.
    std::optional<std::vector<URLQueryItem>> queryItems() const;
    void setQueryItems(const std::optional<std::vector<URLQueryItem>>& items);

    // The parts put together; none when the text holds a character a URL may not (see URL).
    std::optional<URL> url() const;

  private:
    URLComponents() = default;

    std::string scheme_;
    std::optional<std::string> user_;
    std::optional<std::string> password_;
    std::string host_;
    std::optional<int> port_;
    std::string path_;
    std::optional<std::string> query_;
    std::optional<std::string> fragment_;
};

// Percent-encodes text for a query name or value (see URLComponents::setQueryItems).
KEL_EXPORT std::string percentEncodeQueryComponent(std::string_view text);
// Decodes %XX sequences; none when a "%" is not followed by two hexadecimal digits.
KEL_EXPORT std::optional<std::string> percentDecode(std::string_view text);

}  // namespace kel

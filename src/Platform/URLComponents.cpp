#include "kel/Platform/URLComponents.hpp"

#include "ASCII.hpp"

#include <curl/curl.h>

#include <charconv>
#include <cstring>
#include <memory>

namespace kel {

namespace {

using CurlURL = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

// One part of a parsed URL, still percent-encoded; none when the URL lacks it.
std::optional<std::string> part(CURLU* handle, CURLUPart which) {
    char* text = nullptr;
    if (curl_url_get(handle, which, &text, 0) != CURLUE_OK || text == nullptr) {
        return std::nullopt;
    }
    std::string value(text);
    curl_free(text);
    return value;
}

}  // namespace

std::string percentEncodeQueryComponent(std::string_view text) {
    std::string out;
    detail::appendPercentEncoded(out, text, [](unsigned char byte) {
        return detail::isAsciiLetter(static_cast<char>(byte)) ||
               detail::isAsciiDigit(static_cast<char>(byte)) ||
               (byte != 0 && std::strchr("-._~!$'()*,/:;?@", byte));
    });
    return out;
}

std::optional<std::string> percentDecode(std::string_view text) {
    return detail::percentDecode(text, detail::MalformedEscape::reject);
}

std::optional<URLComponents> URLComponents::make(const URL& url) {
    return fromString(url.absoluteString());
}

std::optional<URLComponents> URLComponents::fromString(std::string_view text) {
    CurlURL handle(curl_url(), &curl_url_cleanup);
    if (!handle) {
        return std::nullopt;
    }
    std::string copy(text);
    if (curl_url_set(handle.get(), CURLUPART_URL, copy.c_str(), CURLU_NON_SUPPORT_SCHEME) !=
        CURLUE_OK) {
        return std::nullopt;
    }
    URLComponents components;
    components.scheme_ = part(handle.get(), CURLUPART_SCHEME).value_or("");
    components.user_ = part(handle.get(), CURLUPART_USER);
    components.password_ = part(handle.get(), CURLUPART_PASSWORD);
    components.host_ = part(handle.get(), CURLUPART_HOST).value_or("");
    if (auto port = part(handle.get(), CURLUPART_PORT)) {
        int value = 0;
        std::from_chars(port->data(), port->data() + port->size(), value);
        components.port_ = value;
    }
    components.path_ = part(handle.get(), CURLUPART_PATH).value_or("");
    components.query_ = part(handle.get(), CURLUPART_QUERY);
    // libcurl reports no query for a URL ending in "?"; the "?" still marks an empty query.
    if (!components.query_) {
        auto mark = text.find('?');
        auto hash = text.find('#');
        if (mark != std::string_view::npos && (hash == std::string_view::npos || mark < hash)) {
            components.query_ = std::string();
        }
    }
    components.fragment_ = part(handle.get(), CURLUPART_FRAGMENT);
    return components;
}

std::optional<std::vector<URLQueryItem>> URLComponents::queryItems() const {
    if (!query_) {
        return std::nullopt;
    }
    std::vector<URLQueryItem> items;
    std::string_view rest = *query_;
    while (!rest.empty()) {
        auto end = rest.find('&');
        std::string_view pair = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
        auto equals = pair.find('=');
        URLQueryItem item;
        item.name =
            percentDecode(pair.substr(0, equals)).value_or(std::string(pair.substr(0, equals)));
        if (equals != std::string_view::npos) {
            auto value = pair.substr(equals + 1);
            item.value = percentDecode(value).value_or(std::string(value));
        }
        items.push_back(std::move(item));
    }
    return items;
}

void URLComponents::setQueryItems(const std::optional<std::vector<URLQueryItem>>& items) {
    if (!items) {
        query_.reset();
        return;
    }
    std::string query;
    bool first = true;
    for (const auto& item : *items) {
        if (!first) {
            query += '&';
        }
        first = false;
        query += percentEncodeQueryComponent(item.name);
        if (item.value) {
            query += '=';
            query += percentEncodeQueryComponent(*item.value);
        }
    }
    query_ = std::move(query);
}

std::optional<URL> URLComponents::url() const {
    std::string text = scheme_ + "://";
    if (user_) {
        text += *user_;
        if (password_) {
            text += ':' + *password_;
        }
        text += '@';
    }
    text += host_;
    if (port_) {
        text += ':' + std::to_string(*port_);
    }
    text += path_;
    if (query_) {
        text += '?' + *query_;
    }
    if (fragment_) {
        text += '#' + *fragment_;
    }
    // No second parse: every part but the query is as libcurl split it from an accepted URL,
    // and setQueryItems writes only characters a query may hold, so libcurl accepts the
    // result as it accepted the original.
    return URL::fromString(text);
}

}  // namespace kel

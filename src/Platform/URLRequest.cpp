#include "kel/Platform/URLRequest.hpp"

#include <strings.h>
#include <algorithm>

#include "kel/Platform/URLResponse.hpp"

namespace kel {

namespace {

bool sameField(std::string_view a, std::string_view b) {
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

template <class Fields>
auto findField(Fields& fields, std::string_view name) {
    return std::find_if(fields.begin(), fields.end(),
                        [name](const auto& field) { return sameField(field.first, name); });
}

}  // namespace

std::optional<std::string> URLRequest::valueForHTTPHeaderField(std::string_view name) const {
    auto it = findField(headers_, name);
    return it == headers_.end() ? std::nullopt : std::optional<std::string>(it->second);
}

void URLRequest::addValue(std::string_view value, std::string_view field) {
    auto it = findField(headers_, field);
    if (it == headers_.end()) {
        headers_.emplace_back(std::string(field), std::string(value));
    } else {
        it->second += ',';
        it->second += value;
    }
}

void URLRequest::setValue(std::optional<std::string_view> value, std::string_view field) {
    auto it = findField(headers_, field);
    if (!value) {
        if (it != headers_.end()) {
            headers_.erase(it);
        }
    } else if (it == headers_.end()) {
        headers_.emplace_back(std::string(field), std::string(*value));
    } else {
        it->second = std::string(*value);
    }
}

std::optional<std::string> HTTPURLResponse::valueForHTTPHeaderField(std::string_view name) const {
    auto it = findField(headers_, name);
    return it == headers_.end() ? std::nullopt : std::optional<std::string>(it->second);
}

}  // namespace kel

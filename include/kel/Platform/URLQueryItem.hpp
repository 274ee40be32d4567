// kel::URLQueryItem — one name/value pair of a URL's query. The value is optional: an item
// without one is written as its bare name ("?flag"), an empty value as "name=".
//
// Thread rules: a value type; copies may travel to any thread.
#pragma once

#include <optional>
#include <string>

namespace kel {

struct URLQueryItem {
    std::string name;
    std::optional<std::string> value;

    friend bool operator==(const URLQueryItem&, const URLQueryItem&) = default;
};

}  // namespace kel

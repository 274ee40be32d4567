// kel::URL — an absolute or relative URL reference, kept as its text.
//
// URL::fromString accepts a non-empty text made of the characters a URL may contain (printable
// ASCII without spaces, quotes or angle brackets); it checks no further, as the original
// platform's URL(string:) does, so a relative reference such as "feed/items" is a URL. The
// parts are read through URLComponents, which fails for a text libcurl cannot parse as an
// absolute URL.
//
// Thread rules: a value type; copies may travel to any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kel/Export.hpp"

namespace kel {

class KEL_EXPORT URL {
  public:
    static std::optional<URL> fromString(std::string_view text);

    const std::string& absoluteString() const noexcept { return text_; }

    friend bool operator==(const URL&, const URL&) = default;

  private:
    explicit URL(std::string text) : text_(std::move(text)) {}

    std::string text_;
};

}  // namespace kel

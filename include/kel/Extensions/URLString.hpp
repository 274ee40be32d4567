// Tests on URLs given as text, without parsing them into a URL object.
//
//   kel::urlScheme(text)         the scheme ("https" of "https://example.com/"), as written; none
//                                if the text does not start with a valid scheme and a colon;
//   kel::hasScheme(text, scheme) whether the text's scheme is `scheme`, ignoring case;
//   kel::isWebURL(text)          an http or https URL with a non-empty host;
//   kel::isFileURL(text)         a file URL.
//
// A scheme is a letter followed by letters, digits, "+", "-" or "." (RFC 3986). Text with
// spaces or control characters is never a web URL.
//
// Thread rules: plain functions; no shared state.
#pragma once

#include <optional>
#include <string_view>

#include "kel/Export.hpp"

namespace kel {

KEL_EXPORT std::optional<std::string_view> urlScheme(std::string_view text) noexcept;
KEL_EXPORT bool hasScheme(std::string_view text, std::string_view scheme) noexcept;
KEL_EXPORT bool isWebURL(std::string_view text) noexcept;
KEL_EXPORT bool isFileURL(std::string_view text) noexcept;

}  // namespace kel

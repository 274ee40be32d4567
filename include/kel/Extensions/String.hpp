// Upper-casing helpers on text.
//
//   kel::uppercasedFirst(text)  a copy with the first character upper-cased ("hello world" gives
//                               "Hello world"); the rest is left as it is;
//   kel::uppercaseFirst(text)   the same, in place;
//   kel::uppercased(text)       a copy with every character upper-cased.
//
// Upper-casing covers ASCII letters only: text is UTF-8, and other characters (including a
// first character outside ASCII, such as "é") are left unchanged, whatever the locale.
//
// Thread rules: plain functions; no shared state.
#pragma once

#include <string>
#include <string_view>

#include "kel/Export.hpp"

namespace kel {

KEL_EXPORT std::string uppercasedFirst(std::string_view text);
KEL_EXPORT void uppercaseFirst(std::string& text) noexcept;
KEL_EXPORT std::string uppercased(std::string_view text);

}  // namespace kel

// The user's languages for message catalogues, chosen from the environment as gettext chooses
// them: the locale of messages is the first non-empty of LC_ALL, LC_MESSAGES and LANG (the C
// locale when none is set); LANGUAGE, a colon-separated list, comes before it unless that
// locale is "C" or "POSIX", where programs keep their untranslated output whatever LANGUAGE
// says.
//
// Thread rules: reads the environment, which the caller must not change concurrently.
// Ownership: returns values.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kel::detail {

// The languages to try, most preferred first, each locale "ll_CC.codeset@modifier" expanded
// to ll_CC@modifier, ll_CC, ll@modifier, ll without repeats; always ends with "en".
std::vector<std::string> preferredLanguagesFromEnvironment();

}  // namespace kel::detail

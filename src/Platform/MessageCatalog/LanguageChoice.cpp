#include "LanguageChoice.hpp"

#include <algorithm>
#include <cstdlib>

namespace kel::detail {

namespace {

// "de_AT.UTF-8@euro" -> de_AT@euro, de_AT, de@euro, de. The C locale names no language.
void appendLanguageVariants(std::string_view locale, std::vector<std::string>& languages) {
    if (locale.empty() || locale == "C" || locale == "POSIX" || locale.substr(0, 2) == "C.") {
        return;
    }
    std::string_view modifier;
    if (std::size_t at = locale.find('@'); at != std::string_view::npos) {
        modifier = locale.substr(at);
        locale = locale.substr(0, at);
    }
    locale = locale.substr(0, locale.find('.'));
    std::string_view language = locale.substr(0, locale.find('_'));
    if (language.empty()) {
        return;
    }
    std::vector<std::string> variants;
    if (language.size() != locale.size()) {
        if (!modifier.empty()) {
            variants.push_back(std::string(locale) + std::string(modifier));
        }
        variants.emplace_back(locale);
    }
    if (!modifier.empty()) {
        variants.push_back(std::string(language) + std::string(modifier));
    }
    variants.emplace_back(language);
    for (std::string& variant : variants) {
        if (std::find(languages.begin(), languages.end(), variant) == languages.end()) {
            languages.push_back(std::move(variant));
        }
    }
}

// The locale of the messages category as the C library resolves it from the environment.
std::string_view messagesLocale() {
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        if (const char* locale = std::getenv(variable); locale != nullptr && locale[0] != '\0') {
            return locale;
        }
    }
    return "C";
}

}  // namespace

std::vector<std::string> preferredLanguagesFromEnvironment() {
    std::vector<std::string> languages;
    const std::string_view locale = messagesLocale();
    const char* list = std::getenv("LANGUAGE");
    if (list != nullptr && locale != "C" && locale != "POSIX") {
        std::string_view rest = list;
        while (!rest.empty()) {
            std::size_t colon = rest.find(':');
            appendLanguageVariants(rest.substr(0, colon), languages);
            rest = colon == std::string_view::npos ? std::string_view{} : rest.substr(colon + 1);
        }
    }
    appendLanguageVariants(locale, languages);
    if (std::find(languages.begin(), languages.end(), "en") == languages.end()) {
        languages.emplace_back("en");
    }
    return languages;
}

}  // namespace kel::detail

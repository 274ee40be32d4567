#include "kel/Platform/MessageCatalog.hpp"

#include "MessageCatalog/LanguageChoice.hpp"
#include "MessageCatalog/MoFile.hpp"
#include "MessageCatalog/PluralRule.hpp"

#include <dlfcn.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <mutex>
#include <system_error>

// The installed locale directory relative to the installed library's directory, set by the
// build from the install layout.
#ifndef KEL_INSTALLED_LOCALE_DIR
#error "KEL_INSTALLED_LOCALE_DIR must name the locale directory relative to the library"
#endif

namespace kel {

namespace fs = std::filesystem;

namespace {

// Any object of this library: dladdr on its address names the library's file.
const char libraryAnchor = 0;

}  // namespace

MessageCatalog::MessageCatalog(std::string bytes, std::shared_ptr<const PluralRule> rule, Passkey)
    : bytes_(std::move(bytes)), rule_(std::move(rule)) {}

MessageCatalog::~MessageCatalog() = default;

std::shared_ptr<const MessageCatalog> MessageCatalog::open(const fs::path& file) {
    std::error_code error;
    std::uintmax_t size = fs::file_size(file, error);
    if (error || size > detail::maximumCatalogueSize) {
        return nullptr;
    }
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        return nullptr;
    }
    return fromBytes(
        std::string((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>()));
}

std::shared_ptr<const MessageCatalog> MessageCatalog::fromBytes(std::string bytes) {
    if (bytes.size() > detail::maximumCatalogueSize) {
        return nullptr;
    }
    // The catalogue owns the bytes first, so that its entries can refer into them.
    auto catalogue = std::make_shared<MessageCatalog>(std::move(bytes), nullptr, Passkey{});
    detail::MoReader reader(catalogue->bytes_);
    if (!reader.readHeader()) {
        return nullptr;
    }
    bool headerSeen = false;
    for (std::uint32_t i = 0; i < reader.count(); ++i) {
        std::optional<std::string_view> original = reader.original(i);
        std::optional<std::string_view> translated = reader.translated(i);
        if (!original || !translated) {
            return nullptr;
        }
        // A plural entry's original is "<singular>\0<plural>"; lookups use the singular.
        std::string_view key = original->substr(0, original->find('\0'));
        if (translated->empty()) {
            continue;  // an untranslated entry: lookups fall back to the key
        }
        if (key.empty()) {
            // Only the first header entry counts, as for gettext.
            if (!headerSeen) {
                headerSeen = true;
                if (auto pluralForms = detail::headerField(*translated, "Plural-Forms")) {
                    catalogue->rule_ = PluralRule::parse(*pluralForms);
                }
            }
            continue;
        }
        catalogue->messages_.emplace(key, *translated);
    }
    if (!catalogue->rule_) {
        catalogue->rule_ = PluralRule::english();
    }
    return catalogue;
}

std::shared_ptr<const MessageCatalog> MessageCatalog::find(
    const fs::path& directory, std::string_view domain, const std::vector<std::string>& languages) {
    std::string fileName = std::string(domain) + ".mo";
    for (const std::string& language : languages) {
        if (auto catalogue = open(directory / language / "LC_MESSAGES" / fileName)) {
            return catalogue;
        }
    }
    return nullptr;
}

std::vector<std::string> MessageCatalog::preferredLanguages() {
    return detail::preferredLanguagesFromEnvironment();
}

std::vector<fs::path> MessageCatalog::libraryLocaleDirectories() {
    Dl_info info{};
    if (dladdr(&libraryAnchor, &info) == 0 || info.dli_fname == nullptr) {
        return {};
    }
    std::error_code error;
    fs::path library = fs::weakly_canonical(fs::absolute(info.dli_fname, error), error);
    fs::path directory = library.parent_path();
    return {(directory / KEL_INSTALLED_LOCALE_DIR).lexically_normal(), directory / "locale"};
}

std::shared_ptr<const MessageCatalog> MessageCatalog::library() {
    static std::once_flag once;
    static std::shared_ptr<const MessageCatalog> catalogue;  // written once under `once`
    std::call_once(once, [] {
        std::vector<fs::path> directories = libraryLocaleDirectories();
        for (const std::string& language : preferredLanguages()) {
            for (const fs::path& directory : directories) {
                catalogue = find(directory, libraryDomain, {language});
                if (catalogue) {
                    return;
                }
            }
        }
    });
    return catalogue;
}

std::optional<std::string_view> MessageCatalog::translation(std::string_view key) const {
    auto found = messages_.find(key);
    if (found == messages_.end()) {
        return std::nullopt;
    }
    return detail::nthForm(found->second, 0);
}

std::optional<std::string_view> MessageCatalog::pluralTranslation(std::string_view key,
                                                                  unsigned long n) const {
    auto found = messages_.find(key);
    if (found == messages_.end()) {
        return std::nullopt;
    }
    return detail::nthForm(found->second, pluralIndex(n));
}

unsigned long MessageCatalog::pluralIndex(unsigned long n) const {
    return rule_->evaluate(n);
}

}  // namespace kel

// kel::MessageCatalog — translated texts read from a compiled gettext catalogue (a .mo file).
//
// The library's user-visible texts live in gettext catalogues of the domain "KelFoundation",
// compiled from .po sources when the library is built and installed beside it. The library
// reads them itself instead of going through gettext(3): gettext translates nothing while the
// process locale is "C" (the state of every program that never calls setlocale), and changing
// that would mean setting process-wide locale state from inside a library. Reading the file
// directly also keeps the lookup free of the global bindtextdomain table.
//
// MessageCatalog::library() is the library's catalogue for the user's language, chosen from
// LANGUAGE, LC_ALL, LC_MESSAGES and LANG (each "ll_CC.codeset@modifier" tried as ll_CC@modifier,
// ll_CC, ll@modifier, ll), with English, the library's own language, last. As with gettext,
// LANGUAGE counts only when the locale of messages (LC_ALL, else LC_MESSAGES, else LANG) is
// set and is not "C" or "POSIX". The catalogues are
// looked for relative to the library's shared object, found with dladdr: the installed locale
// directory (<libdir>/../share/locale for a usual prefix) and then a "locale" directory beside
// the library, where the build tree keeps them. The choice is made once per process.
//
// Plural forms follow the catalogue's "Plural-Forms" header (the C-like expression of gettext,
// e.g. "nplurals=2; plural=(n != 1);"); a catalogue without one, or with one that does not
// parse or is larger than any real rule (over 256 operators and operands, or nested deeper than
// 64), uses the English rule.
//
// Thread rules: a MessageCatalog is immutable once read; any thread may use it concurrently.
// library() may be called from any thread; its first call reads the file.
// Ownership: shared-owned and immutable; library() keeps its catalogue for the whole process.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kel/Export.hpp"

namespace kel {

class KEL_EXPORT MessageCatalog {
    struct Passkey {};

  public:
    // The library's text domain.
    static constexpr const char* libraryDomain = "KelFoundation";

    // Reads a compiled catalogue. Nothing when the file cannot be read or is not a valid
    // catalogue.
    static std::shared_ptr<const MessageCatalog> open(const std::filesystem::path& file);

    // The catalogue held in `bytes` (the contents of a .mo file); nothing when they are not a
    // valid catalogue. Entries refer into the bytes rather than copying them, so a catalogue
    // takes memory in proportion to its size whatever its tables point at (entries may share
    // or overlap strings).
    static std::shared_ptr<const MessageCatalog> fromBytes(std::string bytes);

    // The catalogue of the first language in `languages` that has one in
    // <directory>/<language>/LC_MESSAGES/<domain>.mo.
    static std::shared_ptr<const MessageCatalog> find(const std::filesystem::path& directory,
                                                      std::string_view domain,
                                                      const std::vector<std::string>& languages);

    // The languages to try, most preferred first, from the environment as described above;
    // always ends with "en".
    static std::vector<std::string> preferredLanguages();

    // The directories where the library's catalogues may be, in the order they are tried.
    static std::vector<std::filesystem::path> libraryLocaleDirectories();

    // The library's catalogue for the user's language; null when none can be found.
    static std::shared_ptr<const MessageCatalog> library();

    class PluralRule;

    MessageCatalog(std::string bytes, std::shared_ptr<const PluralRule> rule, Passkey);
    ~MessageCatalog();
    MessageCatalog(const MessageCatalog&) = delete;
    MessageCatalog& operator=(const MessageCatalog&) = delete;

    // The translation of `key`; nothing when the catalogue has none.
    std::optional<std::string_view> translation(std::string_view key) const;

    // The form of `key`'s translation for the count `n`, chosen by the plural rule; nothing
    // when the catalogue has no translation. An entry with one form serves every count.
    std::optional<std::string_view> pluralTranslation(std::string_view key, unsigned long n) const;

    // The index of the plural form for `n` under this catalogue's rule.
    unsigned long pluralIndex(unsigned long n) const;

  private:
    const std::string bytes_;  // the file's contents, which messages_ refers into
    // Keyed by msgid (the singular msgid of plural entries); each value is the translation's
    // forms, separated by NUL bytes as in the file.
    std::map<std::string_view, std::string_view> messages_;
    std::shared_ptr<const PluralRule> rule_;
};

}  // namespace kel

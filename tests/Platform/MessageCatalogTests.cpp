#include "kel/Platform/MessageCatalog.hpp"

#include "ScopedEnvironment.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;
using Catalogue = std::shared_ptr<const kel::MessageCatalog>;

// Appends a 32-bit word of a compiled catalogue in either byte order.
void appendWord(std::string& out, std::uint32_t value, bool bigEndian = false) {
    for (int i = 0; i < 4; ++i) {
        out += static_cast<char>((value >> (bigEndian ? 24 - 8 * i : 8 * i)) & 0xff);
    }
}

// The header of a compiled catalogue of `count` entries whose two string tables follow it.
std::string catalogueHeader(std::uint32_t count, bool bigEndian = false) {
    std::string header;
    for (std::uint32_t value : {0x950412deu, 0u, count, 28u, 28 + 8 * count, 0u, 0u}) {
        appendWord(header, value, bigEndian);
    }
    return header;
}

// Lays out a compiled catalogue as msgfmt does: header, the two string tables, the strings.
std::string compileCatalogue(const Entries& entries, bool bigEndian = false) {
    std::string table;
    std::string pool;
    auto count = static_cast<std::uint32_t>(entries.size());
    std::uint32_t strings = 28 + 16 * count;
    for (bool translated : {false, true}) {
        for (const auto& entry : entries) {
            const std::string& text = translated ? entry.second : entry.first;
            appendWord(table, static_cast<std::uint32_t>(text.size()), bigEndian);
            appendWord(table, strings + static_cast<std::uint32_t>(pool.size()), bigEndian);
            pool += text + '\0';
        }
    }
    return catalogueHeader(count, bigEndian) + table + pool;
}

std::pair<std::string, std::string> pluralForms(const std::string& rule) {
    return {"", "Content-Type: text/plain; charset=UTF-8\nPlural-Forms: " + rule + "\n"};
}

// A catalogue with plural rule `rule` and one entry "a"/"b" translated as "one"/"other".
Catalogue withRule(const std::string& rule) {
    return kel::MessageCatalog::fromBytes(compileCatalogue(
        {pluralForms(rule), {std::string("a\0b", 3), std::string("one\0other", 9)}}));
}

class MessageCatalogFiles : public ::testing::Test {
  protected:
    Catalogue open(const std::string& bytes, const std::string& name = "test.mo") {
        std::filesystem::path file = directory_ / name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << bytes;
        return kel::MessageCatalog::open(file);
    }

    kel::test::ScratchDirectory directory_;
};

TEST_F(MessageCatalogFiles, ReadsSingularAndPluralEntriesInEitherByteOrder) {
    Entries entries{
        pluralForms("nplurals=2; plural=(n != 1);"),
        {"Now", "Jetzt"},
        {std::string("%d file\0%d files", 16), std::string("%d Datei\0%d Dateien", 19)}};
    for (bool bigEndian : {false, true}) {
        Catalogue catalogue = open(compileCatalogue(entries, bigEndian));
        ASSERT_NE(catalogue, nullptr);
        EXPECT_EQ(catalogue->translation("Now"), "Jetzt");
        EXPECT_EQ(catalogue->pluralTranslation("%d file", 1), "%d Datei");
        EXPECT_EQ(catalogue->pluralTranslation("%d file", 0), "%d Dateien");
        EXPECT_EQ(catalogue->translation("missing"), std::nullopt);
        EXPECT_EQ(catalogue->pluralTranslation("Now", 5), "Jetzt");
    }
}

TEST_F(MessageCatalogFiles, RejectsFilesThatAreNotCatalogues) {
    std::string good = compileCatalogue({{"key", "value"}});
    std::string badMagic = good;
    badMagic[0] = 'X';
    std::string futureRevision = good;
    futureRevision[6] = 2;
    std::string stringOutsideFile = good;
    stringOutsideFile[35] = '\x7f';  // the first original's offset, far past the end
    EXPECT_NE(open(good), nullptr);
    EXPECT_EQ(kel::MessageCatalog::open(directory_ / "absent.mo"), nullptr);
    for (const std::string& bytes :
         {badMagic, futureRevision, stringOutsideFile, good.substr(0, 30), std::string("short")}) {
        EXPECT_EQ(open(bytes), nullptr);
    }
}

// Odd rules never crash and never pick a form the entry lacks. A chain of binary operators is
// as deep as it is long for the evaluator: a hostile rule of 200,000 terms, like one that does
// not parse, falls back to the English rule instead of exhausting the stack.
TEST(MessageCatalogBytes, PluralRulesOfOtherLanguagesOddRulesAndCPrecedence) {
    // Polish: one, few (2-4 except 12-14), many.
    Catalogue polish = withRule(
        "nplurals=3; plural=(n==1 ? 0 : n%10>=2 && n%10<=4 && (n%100<10 || n%100>=20) ? 1 : 2);");
    ASSERT_NE(polish, nullptr);
    const std::pair<unsigned long, unsigned long> polishCases[] = {
        {1, 0}, {2, 1}, {5, 2}, {12, 2}, {22, 1}};
    for (auto [n, index] : polishCases) {
        EXPECT_EQ(polish->pluralIndex(n), index) << "n = " << n;
    }

    // Division by zero, an index past the rule's count or past the entry's forms: the first.
    for (const char* rule : {"nplurals=2; plural=n/0 + 5;", "nplurals=3; plural=2;"}) {
        Catalogue catalogue = withRule(rule);
        ASSERT_NE(catalogue, nullptr);
        EXPECT_EQ(catalogue->pluralTranslation("a", 3), "one") << rule;
    }
    // A rule that does not parse, no rule, runaway nesting, a runaway chain: the English rule.
    std::string deep = "nplurals=2; plural=" + std::string(500, '(') + "n" + std::string(500, ')');
    std::string chain = "nplurals=2; plural=n";
    for (int i = 1; i < 200000; ++i) {
        chain += "+n";
    }
    for (const std::string& rule :
         {std::string("nplurals=2; plural=n !=;"), std::string("nplurals=2;"), deep, chain + ";"}) {
        Catalogue catalogue = withRule(rule);
        ASSERT_NE(catalogue, nullptr);
        EXPECT_EQ(catalogue->pluralTranslation("a", 1), "one");
        EXPECT_EQ(catalogue->pluralTranslation("a", 7), "other");
    }

    // Operators follow C precedence and associativity: each expression tells the C grouping
    // apart from a wrong one (what the wrong grouping gives is in the comment).
    const std::pair<const char*, unsigned long> cases[] = {
        {"20/2/5", 2},                 // 20/(2/5) = 0
        {"n-2-1", 2},                  // n-(2-1) = 4
        {"2+3*4", 14},                 // (2+3)*4 = 20
        {"1 < 2 == 1", 1},             // 1 < (2==1) = 0
        {"1 || 0 && 0", 1},            // (1||0) && 0 = 0
        {"!n+1", 1},                   // !(n+1) = 0
        {"n>3 ? 0 : n>1 ? 3 : 4", 0},  // (n>3 ? 0 : n>1) ? 3 : 4 = 4
        {"(n+1)*2%7", 5},              // (n+1)*(2%7) = 12
    };
    for (auto [expression, index] : cases) {
        Catalogue catalogue = withRule("nplurals=99; plural=" + std::string(expression) + ";");
        ASSERT_NE(catalogue, nullptr);
        EXPECT_EQ(catalogue->pluralIndex(5), index) << expression;
    }
}

// Every entry of a catalogue may point at the same large string full of NUL bytes (forms);
// the catalogue refers into its bytes instead of copying and splitting each entry.
TEST(MessageCatalogBytes, EntriesSharingOneLargeStringCostNoCopies) {
    constexpr std::uint32_t count = 4096;
    const std::string forms(1 << 20, '\0');
    const std::uint32_t strings = 28 + 16 * count;
    std::string bytes = catalogueHeader(count);
    for (std::uint32_t i = 0; i < count; ++i) {  // originals: "k" followed by distinct bytes
        appendWord(bytes, 1 + i % 7);
        appendWord(bytes, strings + i % 64);
    }
    for (std::uint32_t i = 0; i < count; ++i) {  // translations: all the same large string
        appendWord(bytes, static_cast<std::uint32_t>(forms.size()));
        appendWord(bytes, strings);
    }
    bytes += std::string(64, 'k') + forms;
    auto catalogue = kel::MessageCatalog::fromBytes(std::move(bytes));
    ASSERT_NE(catalogue, nullptr);
    EXPECT_EQ(catalogue->pluralTranslation("kk", 1), std::string(64, 'k'));
    EXPECT_EQ(catalogue->pluralTranslation("kk", 2), "");
}

TEST_F(MessageCatalogFiles, FindTakesTheFirstLanguageThatHasACatalogue) {
    open(compileCatalogue({{"Now", "Maintenant"}}), "fr/LC_MESSAGES/Domain.mo");
    open(compileCatalogue({{"Now", "Now"}}), "en/LC_MESSAGES/Domain.mo");
    Catalogue found = kel::MessageCatalog::find(directory_.path(), "Domain", {"de", "fr", "en"});
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->translation("Now"), "Maintenant");
}

// LANGUAGE comes before the messages locale (LC_ALL, then LC_MESSAGES, then LANG, an empty one
// not counting), each locale from most to least specific; under the C locale LANGUAGE is
// ignored, as gettext ignores it, so programs keep their untranslated output.
TEST(MessageCatalogLanguages, LanguageListComesFirstExceptUnderTheCLocale) {
    using Languages = std::vector<std::string>;
    kel::test::ScopedEnvironment environment;
    environment.set("LANGUAGE", "fr_CA:de")
        .set("LC_ALL", std::nullopt)
        .set("LC_MESSAGES", std::nullopt)
        .set("LANG", "pt_BR.UTF-8@x");
    EXPECT_EQ(kel::MessageCatalog::preferredLanguages(),
              (Languages{"fr_CA", "fr", "de", "pt_BR@x", "pt_BR", "pt@x", "pt", "en"}));
    environment.set("LC_ALL", "").set("LC_MESSAGES", "es_ES");
    EXPECT_EQ(kel::MessageCatalog::preferredLanguages(),
              (Languages{"fr_CA", "fr", "de", "es_ES", "es", "en"}));
    for (const char* cLocale : {"C", "POSIX"}) {
        environment.set("LC_ALL", cLocale);
        EXPECT_EQ(kel::MessageCatalog::preferredLanguages(), Languages{"en"}) << cLocale;
    }
    // No locale set at all is the C locale too.
    environment.set("LC_ALL", std::nullopt)
        .set("LC_MESSAGES", std::nullopt)
        .set("LANG", std::nullopt);
    EXPECT_EQ(kel::MessageCatalog::preferredLanguages(), Languages{"en"});
}

TEST(MessageCatalogLibrary, TheLibraryCatalogueIsFoundBesideTheLibrary) {
    Catalogue catalogue = kel::MessageCatalog::library();
    ASSERT_NE(catalogue, nullptr);
    EXPECT_EQ(catalogue->pluralTranslation("%d day/days ago long", 2), "%d days ago");
}

}  // namespace

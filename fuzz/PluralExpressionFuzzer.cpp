// Plural-Forms expressions: the input is the header's value ("nplurals=...; plural=...;"),
// placed in a minimal compiled catalogue; evaluation must terminate without a crash and give
// an index below nplurals.
#include "FuzzSupport.hpp"

#include "kel/Platform/MessageCatalog.hpp"

#include <cstdint>

namespace {

std::string catalogueWithPluralForms(std::string_view pluralForms) {
    const std::string original("a\0b", 3);
    const std::string header = "Plural-Forms: " + std::string(pluralForms) + "\n";
    const std::string translated("one\0other", 9);
    std::string bytes;
    auto word = [&](std::uint32_t value) {
        for (int i = 0; i < 4; ++i) {
            bytes += static_cast<char>((value >> (8 * i)) & 0xff);
        }
    };
    const std::uint32_t strings = 28 + 32;
    const auto headerSize = static_cast<std::uint32_t>(header.size());
    for (std::uint32_t value : {0x950412deu, 0u, 2u, 28u, 44u, 0u, 0u}) {
        word(value);
    }
    word(0), word(strings);                   // "" (the header's key)
    word(3), word(strings + 1);               // "a\0b"
    word(headerSize), word(strings + 5);      // the header
    word(9), word(strings + 6 + headerSize);  // "one\0other"
    bytes += '\0' + original + '\0' + header + '\0' + translated + '\0';
    return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto catalogue =
        kel::MessageCatalog::fromBytes(catalogueWithPluralForms(kel::fuzz::asText(data, size)));
    if (!catalogue) {
        kel::fuzz::fail("a well-formed catalogue did not open");
    }
    for (unsigned long n : {0ul, 1ul, 2ul, 3ul, 11ul, 21ul, 100ul, 1000001ul, ~0ul}) {
        std::optional<std::string_view> form = catalogue->pluralTranslation("a", n);
        if (!form || (*form != "one" && *form != "other")) {
            kel::fuzz::fail("a plural lookup gave no form of the entry");
        }
    }
    return 0;
}

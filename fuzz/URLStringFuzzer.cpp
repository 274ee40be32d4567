// The URL text tests: whatever the text, they answer without reading out of bounds, and their
// answers agree with each other.
#include "FuzzSupport.hpp"

#include "kel/Extensions/URLString.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text = kel::fuzz::asText(data, size);
    std::optional<std::string_view> scheme = kel::urlScheme(text);
    if (scheme && (scheme->empty() || text.substr(0, scheme->size()) != *scheme)) {
        kel::fuzz::fail("the scheme is not a prefix of the text");
    }
    bool web = kel::isWebURL(text);
    bool file = kel::isFileURL(text);
    if (web && file) {
        kel::fuzz::fail("a URL is both a web and a file URL");
    }
    if ((web || file) && !scheme) {
        kel::fuzz::fail("a web or file URL without a scheme");
    }
    (void)kel::hasScheme(text, "https");
    return 0;
}

// Parses arbitrary text as a URL, rebuilds it with replaced query items, and checks that the
// rebuilt query reads back as the items that were set.
#include <kel/Platform/URLComponents.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    auto url = kel::URL::fromString(text);
    if (!url) {
        return 0;
    }
    auto components = kel::URLComponents::make(*url);
    if (!components) {
        return 0;
    }
    (void)components->queryItems();
    std::vector<kel::URLQueryItem> items{{std::string(text), std::string(text)},
                                         {"flag", std::nullopt}};
    components->setQueryItems(items);
    if (components->queryItems() != items) {
        std::abort();
    }
    (void)components->url();
    (void)kel::percentDecode(text);
    return 0;
}

// Compiled catalogues (.mo files): any bytes either fail to open or give a catalogue whose
// lookups stay inside it. Memory is bounded by libFuzzer's -rss_limit_mb.
#include "FuzzSupport.hpp"

#include "kel/Platform/MessageCatalog.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto catalogue = kel::MessageCatalog::fromBytes(std::string(kel::fuzz::asText(data, size)));
    if (!catalogue) {
        return 0;
    }
    for (const char* key : {"Now", "%d day/days ago long", "", "k"}) {
        (void)catalogue->translation(key);
        for (unsigned long n : {0ul, 1ul, 2ul, 5ul, 22ul, 101ul, ~0ul}) {
            (void)catalogue->pluralTranslation(key, n);
        }
    }
    return 0;
}

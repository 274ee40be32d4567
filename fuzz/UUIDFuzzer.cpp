// UUID parsing: any text either fails or gives a UUID whose own text parses back to it.
#include "FuzzSupport.hpp"

#include "kel/Platform/UUID.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::optional<kel::UUID> uuid = kel::UUID::fromString(kel::fuzz::asText(data, size));
    if (uuid && kel::UUID::fromString(uuid->uuidString()) != uuid) {
        kel::fuzz::fail("a parsed UUID does not round-trip through its text");
    }
    return 0;
}

// Decodes closed ranges from CBOR, which carries text that is not UTF-8 and floats of any size.
#include "ClosedRangeDecoding.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kel::fuzz::decodeClosedRanges(
        [&] { return nlohmann::json::from_cbor(data, data + size, true, false); });
    return 0;
}

// Decodes closed ranges of several bound types from JSON text. Any outcome but a range or
// ClosedRangeDecodingError (another exception, a sanitizer report) is a failure.
#include "ClosedRangeDecoding.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kel::fuzz::decodeClosedRanges(
        [&] { return nlohmann::json::parse(data, data + size, nullptr, false); });
    return 0;
}

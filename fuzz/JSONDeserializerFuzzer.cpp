// Deserializes arbitrary bytes as JSON into a typed value; malformed input must throw
// nlohmann's exceptions and nothing else, and never crash.
#include <kel/Networking/JSONDeserializer.hpp>
#include <kel/Networking/detail/NetworkResponseDescription.hpp>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::span<const std::uint8_t> bytes(data, size);
    try {
        (void)kel::JSONDeserializer<nlohmann::json>().deserialize(bytes);
        (void)kel::JSONDeserializer<std::map<std::string, std::vector<double>>>().deserialize(
            bytes);
    } catch (const nlohmann::json::exception&) {
        // The decoder's errors are the expected outcome of bad input.
    }
    (void)kel::runtime::optionalUTF8Description(bytes);
    return 0;
}

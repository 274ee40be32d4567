#include "kel/Concurrency/AsyncOperation.hpp"

#include <array>
#include <cstdint>

#include "kel/Platform/SecureRandom.hpp"

namespace kel::runtime {

std::string makeOperationID() {
    static constexpr char alphabet[] = "ABCDEF0123456789";
    constexpr std::size_t alphabetSize = sizeof alphabet - 1;
    // A byte reduced modulo the alphabet's size is uniform only when the size divides 256; it
    // does, so one read of the random source serves all sixteen characters.
    static_assert(256 % alphabetSize == 0);

    std::array<std::uint8_t, 16> bytes;
    secureRandomBytes(bytes.data(), bytes.size());
    std::string id(bytes.size(), '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        id[i] = alphabet[bytes[i] % alphabetSize];
    }
    return id;
}

}  // namespace kel::runtime

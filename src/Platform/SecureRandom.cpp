#include "kel/Platform/SecureRandom.hpp"

#include <sys/random.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "kel/Platform/FatalError.hpp"

namespace kel {

void secureRandomBytes(void* data, std::size_t size) {
    auto* out = static_cast<unsigned char*>(data);
    while (size > 0) {
        ssize_t got = ::getrandom(out, size, 0);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            // Without a random source no identifier the library hands out can be trusted.
            fatalError(std::string("getrandom failed: ") + std::strerror(errno));
        }
        out += got;
        size -= static_cast<std::size_t>(got);
    }
}

std::uint32_t secureRandomUniform(std::uint32_t upperBound) {
    if (upperBound < 2) {
        return 0;
    }
    // Reject the values below 2^32 mod upperBound, so that the remaining range is a whole
    // multiple of upperBound and every residue is equally likely.
    const std::uint32_t threshold = (0u - upperBound) % upperBound;
    for (;;) {
        std::uint32_t candidate = 0;
        secureRandomBytes(&candidate, sizeof candidate);
        if (candidate >= threshold) {
            return candidate % upperBound;
        }
    }
}

}  // namespace kel

#include "kel/Platform/SecureRandom.hpp"

#include <stdlib.h>

namespace kel {

void secureRandomBytes(void* data, std::size_t size) {
    ::arc4random_buf(data, size);
}

}  // namespace kel

// kel::secureRandomBytes and kel::secureRandomUniform — unpredictable numbers from the operating
// system (getrandom(2)), for identifiers that must not collide or be guessed.
//
// secureRandomUniform(n) draws uniformly from [0, n) without modulo bias, as arc4random_uniform
// does. Small requests are served from a per-thread buffer filled by one getrandom call (bytes
// are wiped once handed out, and the buffer is discarded in a forked child so parent and child
// never share bytes). Both block only while the kernel's pool is still uninitialised early at
// boot.
//
// Thread rules: callable from any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kel {

// Fills size bytes at data with random bytes.
void secureRandomBytes(void* data, std::size_t size);

// A uniformly distributed number in [0, upperBound); 0 when upperBound is 0 or 1.
std::uint32_t secureRandomUniform(std::uint32_t upperBound);

}  // namespace kel

// kel::secureRandomBytes — unpredictable bytes from the operating system (getrandom(2)), for
// identifiers that must not collide or be guessed (UUIDs, operation IDs).
//
// Small requests are served from a per-thread buffer filled by one getrandom call: bytes are
// wiped once handed out, and the buffer is discarded in a forked child, so parent and child
// never hand out the same bytes. Blocks only while the kernel's pool is still uninitialised,
// early at boot.
//
// Thread rules: callable from any thread.
#pragma once

#include <cstddef>

namespace kel {

// Fills size bytes at data with random bytes.
void secureRandomBytes(void* data, std::size_t size);

}  // namespace kel

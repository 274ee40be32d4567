// kel::secureRandomBytes — unpredictable bytes for identifiers that must not collide or be
// guessed (UUIDs, operation IDs).
//
// The bytes come from the C library's arc4random_buf: a per-thread generator seeded from the
// kernel (getrandom(2)) that glibc reseeds after fork, so a parent and its forked child never
// hand out the same bytes. It blocks only while the kernel's pool is still uninitialised, early
// at boot, and never fails.
//
// Thread rules: callable from any thread.
// Ownership: writes into the caller's buffer only.
#pragma once

#include <cstddef>

#include "kel/Export.hpp"

namespace kel {

// Fills size bytes at data with random bytes.
KEL_EXPORT void secureRandomBytes(void* data, std::size_t size);

}  // namespace kel

// kel::runtime::SealAllocator — where promise seals live; a runtime entry point of the library
// that Promise.hpp's inline code calls (exported), not for direct use.
//
// Every promise is one seal, so creating and chaining promises is dominated by allocating and
// freeing small blocks of a handful of sizes. Each thread keeps a short free list per 32-byte
// size class (up to 512 bytes) and reuses blocks from it; a block freed on another thread than
// the one that took it joins the freeing thread's list. Lists are capped, the excess and larger
// blocks go to ::operator new / ::operator delete, and a thread's lists are handed back to
// ::operator delete when the thread ends. Under AddressSanitizer every block goes straight to
// ::operator new / ::operator delete, so that a use after free is still caught.
//
// Thread rules: allocate and deallocate from any thread; the lists are per thread and unshared.
// A block may be freed on any thread, provided the free happens after the last use of the block
// on every thread (the seal's reference count provides that ordering).
#pragma once

#include <cstddef>

#include "kel/Export.hpp"

namespace kel::runtime {

struct KEL_EXPORT SealAllocator {
    static void* allocate(std::size_t size);
    static void deallocate(void* block, std::size_t size) noexcept;
};

}  // namespace kel::runtime

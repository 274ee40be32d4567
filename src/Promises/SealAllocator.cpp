#include "kel/Promises/detail/SealAllocator.hpp"

#include <cstdint>
#include <new>

namespace kel::runtime {
namespace {

// Sanitizers see the blocks come and go: AddressSanitizer reports a use after free, and
// ThreadSanitizer forgets a freed seal's mutex, so that a recycled seal's lock is not taken for
// the old one (which would report lock-order inversions between unrelated promises).
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kRecycle = false;
#else
constexpr bool kRecycle = true;
#endif

constexpr std::size_t kGranule = 32;
constexpr std::size_t kClasses = 16;  // blocks of 32, 64, ... 512 bytes
constexpr std::uint16_t kMaxCachedPerClass = 64;

struct FreeBlock {
    FreeBlock* next;
};

// One thread's lists. Trivially destructible, so that reaching it costs no initialisation
// check; the Drainer below hands its blocks back when the thread ends.
struct ThreadCache {
    FreeBlock* heads[kClasses];
    std::uint16_t counts[kClasses];
    bool drainerRegistered;
    bool closed;  // the thread is ending: no more caching
};

// initial-exec: the lists are reached with one thread-pointer-relative load instead of a call
// to __tls_get_addr. The cache is small, well within the static TLS surplus that lets the
// library be dlopen()ed as well.
[[gnu::tls_model("initial-exec")]] thread_local ThreadCache cache{};

struct Drainer {
    ~Drainer() {
        cache.closed = true;
        for (std::size_t index = 0; index < kClasses; ++index) {
            while (FreeBlock* block = cache.heads[index]) {
                cache.heads[index] = block->next;
                ::operator delete(block, (index + 1) * kGranule);
            }
            cache.counts[index] = 0;
        }
    }
};

// The class of a block of `size` bytes, or kClasses when it is too large to cache.
constexpr std::size_t classOf(std::size_t size) noexcept {
    return size == 0 ? 0 : (size - 1) / kGranule;
}

void registerDrainer() noexcept {
    thread_local Drainer drainer;
    static_cast<void>(&drainer);
    cache.drainerRegistered = true;
}

}  // namespace

void* SealAllocator::allocate(std::size_t size) {
    const std::size_t index = classOf(size);
    if (!kRecycle || index >= kClasses) {
        return ::operator new(size);
    }
    if (FreeBlock* block = cache.heads[index]) {
        cache.heads[index] = block->next;
        --cache.counts[index];
        return block;
    }
    return ::operator new((index + 1) * kGranule);
}

void SealAllocator::deallocate(void* block, std::size_t size) noexcept {
    const std::size_t index = classOf(size);
    if (!kRecycle || index >= kClasses) {
        ::operator delete(block, size);
        return;
    }
    if (cache.closed || cache.counts[index] == kMaxCachedPerClass) {
        ::operator delete(block, (index + 1) * kGranule);
        return;
    }
    if (!cache.drainerRegistered) {
        registerDrainer();
    }
    auto* freed = static_cast<FreeBlock*>(block);
    freed->next = cache.heads[index];
    cache.heads[index] = freed;
    ++cache.counts[index];
}

}  // namespace kel::runtime

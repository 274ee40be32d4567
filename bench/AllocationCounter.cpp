#include "AllocationCounter.hpp"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace kel::bench {
namespace {

std::atomic<std::uint64_t> allocationCount{0};
std::atomic<std::uint64_t> allocatedBytes{0};
std::atomic<int> openScopes{0};

void* allocate(std::size_t size, std::size_t alignment) {
    if (openScopes.load(std::memory_order_relaxed) > 0) {
        allocationCount.fetch_add(1, std::memory_order_relaxed);
        allocatedBytes.fetch_add(size, std::memory_order_relaxed);
    }
    if (size == 0) {
        size = 1;
    }
    void* memory = nullptr;
    if (alignment <= alignof(std::max_align_t)) {
        memory = std::malloc(size);
    } else if (posix_memalign(&memory, alignment, size) != 0) {
        memory = nullptr;
    }
    return memory;
}

void* allocateOrThrow(std::size_t size, std::size_t alignment) {
    void* memory = allocate(size, alignment);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

void beginCounting() noexcept {
    openScopes.fetch_add(1, std::memory_order_relaxed);
}
void endCounting() noexcept {
    openScopes.fetch_sub(1, std::memory_order_relaxed);
}

AllocationTotals allocationTotals() noexcept {
    return {allocationCount.load(std::memory_order_relaxed),
            allocatedBytes.load(std::memory_order_relaxed)};
}

}  // namespace kel::bench

using kel::bench::allocate;
using kel::bench::allocateOrThrow;

constexpr std::size_t kDefaultAlignment = alignof(std::max_align_t);

void* operator new(std::size_t size) {
    return allocateOrThrow(size, kDefaultAlignment);
}
void* operator new[](std::size_t size) {
    return allocateOrThrow(size, kDefaultAlignment);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size, kDefaultAlignment);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size, kDefaultAlignment);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return allocate(size, static_cast<std::size_t>(alignment));
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
    std::free(memory);
}

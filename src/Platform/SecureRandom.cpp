#include "kel/Platform/SecureRandom.hpp"

#include <pthread.h>
#include <sys/random.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

#include "kel/Platform/FatalError.hpp"

namespace kel {

namespace {

void fillFromKernel(unsigned char* out, std::size_t size) {
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

// Bumped in a forked child, so that no thread's buffered bytes are handed out in both parent
// and child.
std::atomic<unsigned> forkGeneration{0};

void registerForkHandler() {
    static const bool registered = [] {
        ::pthread_atfork(nullptr, nullptr,
                         [] { forkGeneration.fetch_add(1, std::memory_order_relaxed); });
        return true;
    }();
    (void)registered;
}

// Small requests (identifiers) are served from a per-thread buffer filled by one system call,
// instead of one system call each.
struct ThreadBuffer {
    static constexpr std::size_t capacity = 1024;
    std::array<unsigned char, capacity> bytes;
    std::size_t available = 0;  // unused bytes at the end of `bytes`
    unsigned generation = 0;

    void take(unsigned char* out, std::size_t size) {
        unsigned current = forkGeneration.load(std::memory_order_relaxed);
        if (generation != current) {
            available = 0;
            generation = current;
        }
        if (available < size) {
            fillFromKernel(bytes.data(), capacity);
            available = capacity;
        }
        unsigned char* source = bytes.data() + (capacity - available);
        std::memcpy(out, source, size);
        // Bytes once handed out are wiped, so they cannot leak through a later read.
        std::memset(source, 0, size);
        available -= size;
    }
};

}  // namespace

void secureRandomBytes(void* data, std::size_t size) {
    auto* out = static_cast<unsigned char*>(data);
    if (size > ThreadBuffer::capacity / 4) {
        fillFromKernel(out, size);
        return;
    }
    registerForkHandler();
    thread_local ThreadBuffer buffer;
    buffer.take(out, size);
}

}  // namespace kel

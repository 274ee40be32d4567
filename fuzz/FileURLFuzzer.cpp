// File-URL decoding of the debug cache registry: a decoded path never holds a NUL byte (which
// would name a shorter path in every system call) and turns back into a URL that decodes to
// the same path.
#include "FuzzSupport.hpp"

#include "kel/Extensions/DebugCacheRegistry.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::optional<std::filesystem::path> path =
        kel::DebugCacheRegistry::filePath(kel::fuzz::asText(data, size));
    if (!path) {
        return 0;
    }
    if (path->native().find('\0') != std::string::npos) {
        kel::fuzz::fail("a decoded file path holds a NUL byte");
    }
    if (!path->is_absolute()) {
        kel::fuzz::fail("a decoded file path is relative");
    }
    if (kel::DebugCacheRegistry::filePath(kel::DebugCacheRegistry::fileURL(*path)) != path) {
        kel::fuzz::fail("a decoded path does not round-trip through its URL");
    }
    return 0;
}

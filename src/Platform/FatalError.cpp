#include "kel/Platform/FatalError.hpp"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace kel {

void fatalError(std::string_view message, std::source_location location) {
    // One write call so that the line is not interleaved with other threads' output.
    std::string line = "Fatal error: ";
    line.append(message);
    line += ": file ";
    line += location.file_name();
    line += ", line ";
    line += std::to_string(location.line());
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
    std::abort();
}

namespace runtime {

void preconditionFailed(const char* condition, std::string_view message,
                        std::source_location location) {
    if (message.empty()) {
        fatalError(std::string("Precondition failed: ") + condition, location);
    }
    fatalError(message, location);
}

}  // namespace runtime
}  // namespace kel

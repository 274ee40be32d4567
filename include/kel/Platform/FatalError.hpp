// kel::fatalError and KEL_PRECONDITION — how programming errors stop the process.
//
// A programming error (a broken precondition, a call from the wrong thread, a duplicate
// identifier where uniqueness is promised) is not an error value: it writes
// "Fatal error: <message>" with the file and line to standard error and aborts.
//
// Thread rules: callable from any thread.
#pragma once

#include <source_location>
#include <string_view>

#include "kel/Export.hpp"

namespace kel {

[[noreturn]] KEL_EXPORT void fatalError(
    std::string_view message, std::source_location location = std::source_location::current());

// The library's runtime entry points: called by inline code of the headers (here, the
// KEL_PRECONDITION macro), exported, not for direct use.
namespace runtime {
[[noreturn]] KEL_EXPORT void preconditionFailed(
    const char* condition, std::string_view message = {},
    std::source_location location = std::source_location::current());
}  // namespace runtime

}  // namespace kel

// Stops the process with "<message>" (or "Precondition failed: <condition>" when no message is
// given) when the condition is false. Always checked, also in release builds.
#define KEL_PRECONDITION(condition, ...)                                              \
    do {                                                                              \
        if (!(condition)) [[unlikely]] {                                              \
            ::kel::runtime::preconditionFailed(#condition __VA_OPT__(, __VA_ARGS__)); \
        }                                                                             \
    } while (false)

// Texts the network operation logs: the description of a response and the body shown after a
// parse failure. Private to the operation's template; runtime entry points of the library
// (exported), since the template's code calls them from the user's binary.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "kel/Export.hpp"
#include "kel/Platform/URLSessionTaskMetrics.hpp"

namespace kel::runtime {

// "size=<bytes>" and, with metrics, ", queued=<Q>ms, ttfb=<T>ms, total=<N>ms" (or ", total=" and
// the task interval's description when the first transaction lacks one of its dates).
KEL_EXPORT std::string networkResponseDescription(std::size_t byteCount,
                                                  const URLSessionTaskMetrics* metrics);

// The body as an optional text would print: Optional("<text, escaped>"), or nil when the bytes
// are not valid UTF-8.
KEL_EXPORT std::string optionalUTF8Description(std::span<const std::uint8_t> bytes);

}  // namespace kel::runtime

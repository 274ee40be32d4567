// kel::LazyOptions — where a Lazy may run its load block.
//
// An option set over a signed 64-bit raw value:
//   - keepOffMain (1): load(completion) called on the main thread runs the load on the shared
//     scheduler's concurrent operation queue instead;
//   - keepOnMain (2): a value read off the main thread performs the load on the main queue
//     (only when keepOffMain is not also set).
//
// Thread rules: a value type; no shared state.
#pragma once

#include <cstdint>

#include "kel/Extensions/OptionSet.hpp"

namespace kel {

struct LazyOptions : OptionSet<LazyOptions, std::int64_t> {
    using OptionSet::OptionSet;
    static const LazyOptions keepOffMain;
    static const LazyOptions keepOnMain;
};

inline constexpr LazyOptions LazyOptions::keepOffMain{1};
inline constexpr LazyOptions LazyOptions::keepOnMain{2};

}  // namespace kel

// kel::isMainThread — whether the calling thread is the process's main thread.
//
// The main thread is the process's initial thread: the one that runs main(), and the only one
// that runs DispatchQueue::main()'s work (inside RunLoop).
//
// Thread rules: may be called from any thread; the answer for a thread never changes.
#pragma once

#include "kel/Export.hpp"

namespace kel {

// True on the process's initial thread.
KEL_EXPORT bool isMainThread() noexcept;

}  // namespace kel

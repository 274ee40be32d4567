// kel::KFCapabilities — questions about the system the application runs on.
//
// isInternalBuild() tells whether the operating system is an internal (pre-release) build, so
// that debugging aids can be offered only there. Linux offers no such device property, so the
// answer is false; it is still computed once per process and cached, like every shared answer
// of the library.
//
// Thread rules: isInternalBuild() may be called from any thread, concurrently.
// Ownership: no instances; the cached answer lives for the whole process.
#pragma once

#include "kel/Export.hpp"

namespace kel {

class KEL_EXPORT KFCapabilities {
  public:
    KFCapabilities() = delete;

    static bool isInternalBuild();
};

}  // namespace kel

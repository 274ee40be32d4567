#include "kel/Platform/MainThread.hpp"

#include <unistd.h>

namespace kel {

bool isMainThread() noexcept {
    // On Linux the initial thread's id is the process id; this also holds in a forked child.
    thread_local const bool isMain = ::gettid() == ::getpid();
    return isMain;
}

}  // namespace kel

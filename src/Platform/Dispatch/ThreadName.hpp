// kel::detail::nameThread — names the calling thread after the queue whose work it runs.
//
// The kernel keeps 15 characters of a thread's name. Renaming is a system call, so it happens
// only when the name changes; the calling thread's current name is remembered per thread.
#pragma once

#include <string>

namespace kel::detail {

void nameThread(const std::string& label);

}  // namespace kel::detail

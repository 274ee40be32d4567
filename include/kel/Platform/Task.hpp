// kel::Task — a move-only callable taking nothing and returning nothing: a unit of work.
//
// Work submitted to queues, timers and run loops is a Task. It never copies what it captures and
// accepts move-only captures; callables up to three pointers in size are stored inline, so
// submitting a small lambda does not allocate for the wrapper.
//
// Thread rules: a Task is owned by one thread at a time; it may be moved to another thread.
#pragma once

#include "kel/Platform/InlineFunction.hpp"

namespace kel {

using Task = InlineFunction<void(), 3 * sizeof(void*)>;

}  // namespace kel

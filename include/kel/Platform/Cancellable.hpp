// kel::Cancellable — something whose work can be cancelled.
//
// The library's one-operation interface for cancellation: operations and URL session tasks
// implement it, so callers can keep "the thing to cancel" without knowing its type.
//
// Thread rules: cancel() may be called from any thread, any number of times; implementations
// treat calls after the first as no-ops. Ownership is the implementer's (usually shared).
#pragma once

#include "kel/Export.hpp"

namespace kel {

class KEL_EXPORT Cancellable {
  public:
    virtual ~Cancellable() = default;
    virtual void cancel() = 0;

  protected:
    Cancellable() = default;
    Cancellable(const Cancellable&) = default;
    Cancellable& operator=(const Cancellable&) = default;
};

}  // namespace kel

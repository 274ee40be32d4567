// kel::SynchronizerType and kel::Synchronizer — joins promise-returning jobs through one
// dispatch group, so that a job's caller hears of its success only once no other job of the same
// synchronizer is still running.
//
// synchronize(queue, closure) enters the group, calls closure() at once for its promise P, and
// returns a promise R. When P is fulfilled, R is fulfilled on `queue` as soon as the group is
// empty (every job started on this synchronizer has settled). Whatever P's outcome, the job
// leaves the group when P settles.
//
// A rejected or cancelled P leaves R pending for ever: no error or cancellation reaches R's
// handlers. Callers that need to hear of failures observe P themselves. This is deliberate:
// R only ever reports "done, and nothing else is running".
//
// If closure() throws, the job leaves the group again and the exception propagates to the
// caller of synchronize.
//
// Thread rules: synchronize may be called from any thread, concurrently.
// Ownership: shared-owned (std::make_shared); each pending job keeps the group alive.
#pragma once

#include "kel/Export.hpp"
#include "kel/Platform/DispatchGroup.hpp"
#include "kel/Platform/DispatchQueue.hpp"
#include "kel/Platform/InlineFunction.hpp"
#include "kel/Promises/Promise.hpp"

namespace kel {

class KEL_EXPORT SynchronizerType {
  public:
    // Move-only, called once: it may capture move-only state.
    using Job = InlineFunction<Promise<void>(), 3 * sizeof(void*)>;

    virtual ~SynchronizerType() = default;

    virtual Promise<void> synchronize(const DispatchQueue& queue, Job closure) = 0;
};

class KEL_EXPORT Synchronizer final : public SynchronizerType {
  public:
    Synchronizer() = default;
    Synchronizer(const Synchronizer&) = delete;
    Synchronizer& operator=(const Synchronizer&) = delete;

    Promise<void> synchronize(const DispatchQueue& queue, Job closure) override;

    const DispatchGroup& group() const { return group_; }

  private:
    DispatchGroup group_;  // a handle; the group synchronises itself
};

}  // namespace kel

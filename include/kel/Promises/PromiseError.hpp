// kel::PromiseError — the two errors of the promise library itself.
//
// PromiseError::cancelled, thrown from a `then` callable, cancels the promise that `then`
// returned instead of rejecting it: `throw kel::PromiseError::cancelled;`. A rejection with
// PromiseError::abandoned tells that the owner of an owner-bound `then` was gone when the value
// arrived. what() is "PromiseError.cancelled" or "PromiseError.abandoned".
//
// Thread rules: a value type; copies may travel to any thread.
#pragma once

#include "kel/Export.hpp"
#include "kel/Platform/CaseError.hpp"

namespace kel {

enum class PromiseErrorCase : unsigned char { cancelled, abandoned };

class KEL_EXPORT PromiseError : public CaseError<PromiseError, PromiseErrorCase> {
  public:
    using CaseError::CaseError;

    static const PromiseError cancelled;
    static const PromiseError abandoned;

    static constexpr const char* caseTexts[] = {"PromiseError.cancelled", "PromiseError.abandoned"};
};

inline const PromiseError PromiseError::cancelled{Case::cancelled};
inline const PromiseError PromiseError::abandoned{Case::abandoned};

}  // namespace kel

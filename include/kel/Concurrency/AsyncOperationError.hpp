// kel::AsyncOperationError — why an asynchronous operation ended without a result of its own.
//
// One case, AsyncOperationError::cancelled: the operation was cancelled before it started, and
// its completion was called with this error instead of running the job. Thrown and caught as a
// value: `throw kel::AsyncOperationError::cancelled;`, and
// `catch (const kel::AsyncOperationError& e) { if (e == kel::AsyncOperationError::cancelled) ...
// }`.
//
// Thread rules: a value type; copies may travel to any thread.
#pragma once

#include "kel/Export.hpp"
#include "kel/Platform/CaseError.hpp"

namespace kel {

enum class AsyncOperationErrorCase : unsigned char { cancelled };

class KEL_EXPORT AsyncOperationError
    : public CaseError<AsyncOperationError, AsyncOperationErrorCase> {
  public:
    using CaseError::CaseError;

    static const AsyncOperationError cancelled;

    static constexpr const char* caseTexts[] = {"AsyncOperationError.cancelled"};
};

inline const AsyncOperationError AsyncOperationError::cancelled{Case::cancelled};

}  // namespace kel

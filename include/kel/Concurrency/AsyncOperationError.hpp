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

#include <cstddef>
#include <exception>
#include <functional>

namespace kel {

class AsyncOperationError : public std::exception {
  public:
    enum class Case : unsigned char { cancelled };

    static const AsyncOperationError cancelled;

    explicit AsyncOperationError(Case value) noexcept : case_(value) {}

    Case value() const noexcept { return case_; }
    const char* what() const noexcept override;

    friend bool operator==(const AsyncOperationError& a, const AsyncOperationError& b) noexcept {
        return a.case_ == b.case_;
    }

  private:
    Case case_;
};

inline const AsyncOperationError AsyncOperationError::cancelled{Case::cancelled};

}  // namespace kel

template <>
struct std::hash<kel::AsyncOperationError> {
    std::size_t operator()(const kel::AsyncOperationError& error) const noexcept {
        return static_cast<std::size_t>(error.value());
    }
};

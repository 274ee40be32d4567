// kel::PromiseError — the two errors of the promise library itself.
//
// PromiseError::cancelled, thrown from a `then` callable, cancels the promise that `then`
// returned instead of rejecting it: `throw kel::PromiseError::cancelled;`. A rejection with
// PromiseError::abandoned tells that the owner of an owner-bound `then` was gone when the value
// arrived. Compare with ==; hashing uses the case index.
//
// Thread rules: a value type; copies may travel to any thread.
#pragma once

#include <cstddef>
#include <exception>
#include <functional>

namespace kel {

class PromiseError : public std::exception {
  public:
    enum class Case : unsigned char { cancelled, abandoned };

    static const PromiseError cancelled;
    static const PromiseError abandoned;

    explicit PromiseError(Case value) noexcept : case_(value) {}

    Case value() const noexcept { return case_; }

    // "PromiseError.cancelled" or "PromiseError.abandoned".
    const char* what() const noexcept override;

    friend bool operator==(const PromiseError& a, const PromiseError& b) noexcept {
        return a.case_ == b.case_;
    }

  private:
    Case case_;
};

inline const PromiseError PromiseError::cancelled{PromiseError::Case::cancelled};
inline const PromiseError PromiseError::abandoned{PromiseError::Case::abandoned};

}  // namespace kel

template <>
struct std::hash<kel::PromiseError> {
    std::size_t operator()(const kel::PromiseError& error) const noexcept {
        return static_cast<std::size_t>(error.value());
    }
};

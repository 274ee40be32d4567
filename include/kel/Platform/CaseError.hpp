// kel::CaseError<Derived, CaseEnum> — the shape shared by the library's errors that are a bare
// choice among named cases (PromiseError, AsyncOperationError, AsyncObjectApplicator::Errors).
//
// A derived error names its cases as static constants and lists their texts, so that
//   throw kel::PromiseError::cancelled;
//   catch (const kel::PromiseError& e) { if (e == kel::PromiseError::cancelled) ... }
// read as the cases are named. Two errors are equal when they are the same case; std::hash
// uses the case's index; what() is the case's text from the derived class's `caseTexts`, one per
// case in declaration order.
//
// Thread rules: a value type; copies may travel to any thread.
#pragma once

#include <concepts>
#include <cstddef>
#include <exception>
#include <functional>

#include "kel/Export.hpp"

namespace kel {

struct KEL_EXPORT CaseErrorTag {};

template <class Derived, class CaseEnum>
class CaseError : public std::exception, public CaseErrorTag {
  public:
    using Case = CaseEnum;

    explicit constexpr CaseError(Case value) noexcept : case_(value) {}

    Case value() const noexcept { return case_; }

    const char* what() const noexcept override {
        return Derived::caseTexts[static_cast<std::size_t>(case_)];
    }

    friend bool operator==(const Derived& a, const Derived& b) noexcept {
        return a.value() == b.value();
    }

  private:
    Case case_;
};

}  // namespace kel

template <class E>
requires std::derived_from<E, kel::CaseErrorTag>
struct std::hash<E> {
    std::size_t operator()(const E& error) const noexcept {
        return static_cast<std::size_t>(error.value());
    }
};

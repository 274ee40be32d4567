// kel::WhenError — the rejection of the joins (when, whenSome, whenFirst).
//
// errors() holds the errors of the inputs that were rejected, in input order. The inputs' own
// errors are kept as they are, even when there is only one. Equality compares the error lists
// (each error by identity).
//
// Copies share one immutable state (the errors and the description), so copying never throws
// and never allocates, as an exception type's copy must not.
//
// Thread rules: a value type; copies may travel to any thread.
#pragma once

#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "kel/Export.hpp"
#include "kel/Platform/Error.hpp"

namespace kel {

class KEL_EXPORT WhenError : public std::exception {
  public:
    explicit WhenError(std::vector<Error> errors);

    const std::vector<Error>& errors() const noexcept { return state_->errors; }
    // "WhenError.errors([<description>, ...])".
    const char* what() const noexcept override { return state_->description.c_str(); }

    friend bool operator==(const WhenError& a, const WhenError& b) noexcept {
        return a.state_->errors == b.state_->errors;
    }

  private:
    struct State {
        std::vector<Error> errors;
        std::string description;
    };
    std::shared_ptr<const State> state_;  // never null
};

}  // namespace kel

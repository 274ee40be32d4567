// kel::WhenError — the rejection of the joins (when, whenSome, whenFirst).
//
// errors() holds the errors of the inputs that were rejected, in input order. The inputs' own
// errors are kept as they are, even when there is only one. Equality compares the error lists
// (each error by identity).
//
// Thread rules: a value type; copies may travel to any thread.
#pragma once

#include <exception>
#include <string>
#include <vector>

#include "kel/Platform/Error.hpp"

namespace kel {

class WhenError : public std::exception {
  public:
    explicit WhenError(std::vector<Error> errors);

    const std::vector<Error>& errors() const noexcept { return errors_; }

    // "WhenError.errors([<description>, ...])".
    const char* what() const noexcept override { return description_.c_str(); }

    friend bool operator==(const WhenError& a, const WhenError& b) noexcept {
        return a.errors_ == b.errors_;
    }

  private:
    std::vector<Error> errors_;
    std::string description_;
};

}  // namespace kel

// kel::Exception — the library's exception object with a name and an optional reason, and the
// bridge that turns one into an error value.
//
// Code that signals failure by raising an Exception (rather than returning an error) can be
// called through Exception::kf_tryCatch by callers that want an error value instead: a raised
// Exception becomes a DomainError whose domain is the exception's name, whose code is 0 and
// whose user-info holds the reason under "reason" ("unknown" when the exception has none).
// Exceptions of any other type are not the bridge's business and pass through unchanged.
//
// Thread rules: an Exception is a value; kf_tryCatch runs the block on the calling thread.
// Ownership: the bridge keeps nothing; the block is borrowed for the duration of the call.
#pragma once

#include "kel/Export.hpp"
#include "kel/Platform/DomainError.hpp"

#include <exception>
#include <optional>
#include <string>
#include <utility>

namespace kel {

class KEL_EXPORT Exception : public std::exception {
  public:
    // The user-info key under which a bridged error carries the exception's reason.
    static constexpr const char* reasonKey = "reason";
    // The reason a bridged error carries when the exception had none.
    static constexpr const char* unknownReason = "unknown";

    explicit Exception(std::string name, std::optional<std::string> reason = std::nullopt);

    const std::string& name() const noexcept { return name_; }
    const std::optional<std::string>& reason() const noexcept { return reason_; }

    // "<name>: <reason>", or the name alone when there is no reason.
    const char* what() const noexcept override { return description_.c_str(); }

    // The error value the bridge makes of this exception.
    DomainError bridgedError() const;

    // Runs the block. Returns true when it returns normally, leaving *error untouched. When it
    // raises a kel::Exception (or a type derived from it), stores the bridged error through
    // `error` (when it is not null) and returns false. Any other exception propagates.
    template <class Block>
    static bool kf_tryCatch(Block&& block, DomainError* error) {
        try {
            std::forward<Block>(block)();
        } catch (const Exception& exception) {
            if (error != nullptr) {
                *error = exception.bridgedError();
            }
            return false;
        }
        return true;
    }

    friend bool operator==(const Exception& a, const Exception& b) {
        return a.name_ == b.name_ && a.reason_ == b.reason_;
    }

  private:
    std::string name_;
    std::optional<std::string> reason_;
    std::string description_;
};

}  // namespace kel

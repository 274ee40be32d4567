// kel::DomainError — an error identified by a domain and a code, with text user-info.
//
// The library's form of a platform error object: URL-loading failures, bridged exceptions and
// file-system failures are DomainErrors. Equality compares domain, code and user-info.
//
// Thread rules: a value type; copies may travel to any thread.
#pragma once

#include <exception>
#include <map>
#include <string>

#include "kel/Export.hpp"

namespace kel {

class KEL_EXPORT DomainError : public std::exception {
  public:
    using UserInfo = std::map<std::string, std::string>;

    // The user-info key whose value, when present, is the error's description.
    static constexpr const char* localizedDescriptionKey = "NSLocalizedDescription";

    DomainError(std::string domain, long code, UserInfo userInfo = {});

    const std::string& domain() const noexcept { return domain_; }
    long code() const noexcept { return code_; }
    const UserInfo& userInfo() const noexcept { return userInfo_; }

    // The localized description when the user-info has one, otherwise
    // "The operation couldn’t be completed. (<domain> error <code>.)".
    const char* what() const noexcept override { return description_.c_str(); }

    friend bool operator==(const DomainError& a, const DomainError& b) {
        return a.code_ == b.code_ && a.domain_ == b.domain_ && a.userInfo_ == b.userInfo_;
    }

  private:
    std::string domain_;
    long code_;
    UserInfo userInfo_;
    std::string description_;
};

}  // namespace kel

#include "kel/Platform/Exception.hpp"

namespace kel {

Exception::Exception(std::string name, std::optional<std::string> reason)
    : name_(std::move(name)), reason_(std::move(reason)) {
    description_ = reason_ ? name_ + ": " + *reason_ : name_;
}

DomainError Exception::bridgedError() const {
    return DomainError(name_, 0, {{reasonKey, reason_ ? *reason_ : std::string(unknownReason)}});
}

}  // namespace kel

#include "kel/Platform/DomainError.hpp"

#include <utility>

namespace kel {

DomainError::DomainError(std::string domain, long code, UserInfo userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {
    auto described = userInfo_.find(localizedDescriptionKey);
    if (described != userInfo_.end()) {
        description_ = described->second;
    } else {
        description_ = "The operation couldn’t be completed. (" + domain_ + " error " +
                       std::to_string(code_) + ".)";
    }
}

}  // namespace kel

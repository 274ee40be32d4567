#include "kel/Promises/WhenError.hpp"

#include <utility>

namespace kel {

WhenError::WhenError(std::vector<Error> errors) : errors_(std::move(errors)) {
    description_ = "WhenError.errors([";
    for (std::size_t i = 0; i < errors_.size(); ++i) {
        if (i > 0) {
            description_ += ", ";
        }
        description_ += errorDescription(errors_[i]);
    }
    description_ += "])";
}

}  // namespace kel

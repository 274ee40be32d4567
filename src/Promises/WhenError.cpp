#include "kel/Promises/WhenError.hpp"

#include <type_traits>
#include <utility>

namespace kel {

static_assert(std::is_nothrow_copy_constructible_v<WhenError> &&
              std::is_nothrow_copy_assignable_v<WhenError>);

WhenError::WhenError(std::vector<Error> errors) {
    std::string description = "WhenError.errors([";
    for (std::size_t i = 0; i < errors.size(); ++i) {
        if (i > 0) {
            description += ", ";
        }
        description += errorDescription(errors[i]);
    }
    description += "])";
    state_ = std::make_shared<const State>(State{std::move(errors), std::move(description)});
}

}  // namespace kel

#include "kel/Concurrency/AsyncOperationError.hpp"

namespace kel {

const char* AsyncOperationError::what() const noexcept {
    switch (case_) {
        case Case::cancelled:
            return "AsyncOperationError.cancelled";
    }
    return "AsyncOperationError";
}

}  // namespace kel

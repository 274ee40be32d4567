#include "kel/Promises/PromiseError.hpp"

namespace kel {

const char* PromiseError::what() const noexcept {
    switch (case_) {
        case Case::cancelled:
            return "PromiseError.cancelled";
        case Case::abandoned:
            return "PromiseError.abandoned";
    }
    return "PromiseError";
}

}  // namespace kel

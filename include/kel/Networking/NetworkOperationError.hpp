// kel::NetworkOperationError — the network operation's own failures (NetworkOperation<D>::Error):
// http(statusCode) for a response without a body, unknown for no body and no HTTP response,
// malformedURL when the endpoint and parameters make no URL.
//
// what() reads "http(404)", "unknown" or "malformedURL". Equality compares the case and the
// status code.
//
// Thread rules: a value type; copies may travel to any thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>

#include "kel/Export.hpp"

namespace kel {

class KEL_EXPORT NetworkOperationError : public std::exception {
  public:
    enum class Case { http, unknown, malformedURL };

    static NetworkOperationError http(std::int64_t statusCode) {
        return NetworkOperationError(Case::http, statusCode);
    }
    static const NetworkOperationError unknown;
    static const NetworkOperationError malformedURL;

    Case value() const noexcept { return case_; }
    // The status code of an http failure; none for the other cases.
    std::optional<std::int64_t> statusCode() const noexcept {
        return case_ == Case::http ? std::optional<std::int64_t>(statusCode_) : std::nullopt;
    }

    const char* what() const noexcept override {
        switch (case_) {
            case Case::http:
                return text_;
            case Case::unknown:
                return "unknown";
            case Case::malformedURL:
                return "malformedURL";
        }
        return "unknown";
    }

    friend bool operator==(const NetworkOperationError& a, const NetworkOperationError& b) {
        return a.case_ == b.case_ && a.statusCode_ == b.statusCode_;
    }

  private:
    NetworkOperationError(Case value, std::int64_t statusCode)
        : case_(value), statusCode_(statusCode) {
        if (value == Case::http) {
            std::snprintf(text_, sizeof text_, "http(%lld)", static_cast<long long>(statusCode));
        }
    }

    Case case_;
    std::int64_t statusCode_;
    char text_[32] = {};
};

inline const NetworkOperationError NetworkOperationError::unknown{Case::unknown, 0};
inline const NetworkOperationError NetworkOperationError::malformedURL{Case::malformedURL, 0};

}  // namespace kel

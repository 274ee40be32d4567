// kel::ClosedRange — an interval [lowerBound, upperBound] of an ordered type, both ends included.
//
// A ClosedRange always holds lowerBound <= upperBound: constructing one with the bounds the wrong
// way round is a programming error and stops the process. A range of one value (lower == upper)
// is allowed; an empty closed range does not exist.
//
// JSON: a range is coded as the two-element array [lowerBound, upperBound] through
// nlohmann::json (`nlohmann::json j = range;` and `j.get<kel::ClosedRange<int>>()`). Decoding
// anything else (not an array, not two elements, elements of the wrong type, bounds the wrong
// way round) throws kel::ClosedRangeDecodingError with a message saying what was wrong, since
// bad input is not a programming error. This header needs only nlohmann's forward declarations;
// code that encodes or decodes includes <nlohmann/json.hpp> itself.
//
// Thread rules: a value type; no shared state.
#pragma once

#include "kel/Export.hpp"
#include "kel/Platform/FatalError.hpp"
#include "kel/Platform/detail/JSONNumber.hpp"

#include <nlohmann/json_fwd.hpp>

#include <concepts>
#include <stdexcept>
#include <string>
#include <utility>

namespace kel {

template <std::totally_ordered T>
class ClosedRange {
  public:
    using Bound = T;

    ClosedRange(T lowerBound, T upperBound)
        : lowerBound_(std::move(lowerBound)), upperBound_(std::move(upperBound)) {
        KEL_PRECONDITION(!(upperBound_ < lowerBound_),
                         "ClosedRange requires lowerBound <= upperBound");
    }

    const T& lowerBound() const noexcept { return lowerBound_; }
    const T& upperBound() const noexcept { return upperBound_; }

    bool contains(const T& value) const { return !(value < lowerBound_) && !(upperBound_ < value); }
    // True if the two ranges share at least one value.
    bool overlaps(const ClosedRange& other) const {
        return !(other.upperBound_ < lowerBound_) && !(upperBound_ < other.lowerBound_);
    }
    // The value moved into the range: the nearer bound if it lies outside.
    T clamped(const T& value) const {
        if (value < lowerBound_) {
            return lowerBound_;
        }
        if (upperBound_ < value) {
            return upperBound_;
        }
        return value;
    }

    friend bool operator==(const ClosedRange&, const ClosedRange&) = default;

  private:
    T lowerBound_;
    T upperBound_;
};

// Thrown when JSON does not hold a valid closed range.
class KEL_EXPORT ClosedRangeDecodingError : public std::runtime_error {
  public:
    explicit ClosedRangeDecodingError(const std::string& message)
        : std::runtime_error("Cannot decode a closed range: " + message) {}

    friend bool operator==(const ClosedRangeDecodingError& a, const ClosedRangeDecodingError& b) {
        return std::string(a.what()) == b.what();
    }
};

}  // namespace kel

namespace nlohmann {

template <class T>
struct adl_serializer<kel::ClosedRange<T>> {
    template <class Json>
    static void to_json(Json& json, const kel::ClosedRange<T>& range) {
        json = Json::array({range.lowerBound(), range.upperBound()});
    }

    template <class Json>
    static kel::ClosedRange<T> from_json(const Json& json) {
        if (!json.is_array()) {
            throw kel::ClosedRangeDecodingError(std::string("expected a two-element array, got ") +
                                                json.type_name());
        }
        if (json.size() != 2) {
            throw kel::ClosedRangeDecodingError("expected a two-element array, got " +
                                                std::to_string(json.size()) + " elements");
        }
        T lower = decodeBound(json[0], "lower");
        T upper = decodeBound(json[1], "upper");
        if (upper < lower) {
            throw kel::ClosedRangeDecodingError("lower bound " + text(json[0]) +
                                                " is above upper bound " + text(json[1]));
        }
        return kel::ClosedRange<T>(std::move(lower), std::move(upper));
    }

  private:
    // The element as JSON text for a message. Text that is not valid UTF-8 is shown with
    // replacement characters: a plain dump() would throw the JSON library's own error.
    template <class Json>
    static std::string text(const Json& element) {
        return element.dump(-1, ' ', false, Json::error_handler_t::replace);
    }

    template <class Json>
    static T decodeBound(const Json& element, const char* which) {
        // The JSON library converts numbers with an unchecked cast: a number outside T's range
        // would be undefined behaviour.
        if (!kel::detail::jsonNumberFits<T>(element)) {
            throw kel::ClosedRangeDecodingError(std::string(which) + " bound " + text(element) +
                                                " is out of range");
        }
        try {
            return element.template get<T>();
        } catch (const typename Json::exception& error) {
            throw kel::ClosedRangeDecodingError(std::string(which) + " bound " + text(element) +
                                                " has the wrong type (" + error.what() + ")");
        }
    }
};

}  // namespace nlohmann

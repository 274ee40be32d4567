// The shared body of the closed-range fuzz targets: decode the value as ranges of several
// bound types; only ClosedRangeDecodingError may escape the decoder.
#pragma once

#include "FuzzSupport.hpp"

#include "kel/Extensions/ClosedRange.hpp"

#include <nlohmann/json.hpp>

namespace kel::fuzz {

template <class T>
void decodeAs(const nlohmann::json& value) {
    try {
        ClosedRange<T> range = value.get<ClosedRange<T>>();
        if (range.upperBound() < range.lowerBound()) {
            fail("a decoded range has its bounds the wrong way round");
        }
    } catch (const ClosedRangeDecodingError&) {
    }
}

inline void decodeClosedRanges(const nlohmann::json& value) {
    if (value.is_discarded()) {
        return;
    }
    decodeAs<int>(value);
    decodeAs<unsigned char>(value);
    decodeAs<long long>(value);
    decodeAs<unsigned long long>(value);
    decodeAs<float>(value);
    decodeAs<double>(value);
    decodeAs<std::string>(value);
}

}  // namespace kel::fuzz

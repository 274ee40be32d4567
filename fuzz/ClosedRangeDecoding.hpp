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

// Parses with the JSON library, then decodes. The binary parsers of nlohmann::json 3.11 throw
// out_of_range (408, "excessive array size") even when asked not to throw; that is the JSON
// library's input check, not the decoder under test, so it ends the run like a parse error.
template <class Parse>
void decodeClosedRanges(Parse parse) {
    nlohmann::json value;
    try {
        value = parse();
    } catch (const nlohmann::json::exception&) {
        return;
    }
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

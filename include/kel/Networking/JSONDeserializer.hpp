// kel::JSONDeserializer<T> — decodes a T from JSON bytes with nlohmann/json.
//
// T is anything nlohmann/json can convert to (a from_json overload found by argument-dependent
// lookup, NLOHMANN_DEFINE_TYPE_*, standard containers, nlohmann::json itself). Parse and
// conversion errors (nlohmann::json::exception) are thrown unchanged.
//
// Thread rules: stateless; one per call is the intended use.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>

namespace kel {

template <class T>
class JSONDeserializer {
  public:
    using Response = T;

    JSONDeserializer() = default;

    T deserialize(std::span<const std::uint8_t> data) const {
        return nlohmann::json::parse(data.begin(), data.end()).template get<T>();
    }
};

}  // namespace kel

// kel::Data — a byte buffer: response bodies, file contents, input of deserializers.
//
// Thread rules: a value type; copies may travel to any thread.
#pragma once

#include <cstdint>
#include <vector>

namespace kel {

using Data = std::vector<std::uint8_t>;

}  // namespace kel

// kel::ByteCountFormatter — a byte count as short text, the way file sizes are shown.
//
// Decimal and file styles count 1000 bytes to the kilobyte, memory and binary styles 1024.
// Below one kilobyte the count is written in bytes ("1 byte", "999 bytes"); zero is "Zero KB".
// Larger counts use the largest unit that keeps the number at least 1, with no decimals for KB,
// one for MB and two from GB on, trailing zeros dropped ("2 KB", "1.5 MB", "1.23 GB").
//
// Thread rules: pure functions.
#pragma once

#include <cstdint>
#include <string>

#include "kel/Export.hpp"

namespace kel {

class KEL_EXPORT ByteCountFormatter {
  public:
    enum class CountStyle { file, memory, decimal, binary };

    static std::string string(std::int64_t byteCount, CountStyle countStyle);
};

}  // namespace kel

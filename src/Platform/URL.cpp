#include "kel/Platform/URL.hpp"

#include <algorithm>
#include <cstring>

namespace kel {

std::optional<URL> URL::fromString(std::string_view text) {
    auto allowed = [](char c) {
        auto byte = static_cast<unsigned char>(c);
        return byte > 0x20 && byte < 0x7f && std::strchr("\"<>\\^`{|}", c) == nullptr;
    };
    if (text.empty() || !std::all_of(text.begin(), text.end(), allowed)) {
        return std::nullopt;
    }
    return URL(std::string(text));
}

}  // namespace kel

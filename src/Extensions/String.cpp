#include "kel/Extensions/String.hpp"

namespace kel {

namespace {

constexpr char asciiUpper(char c) noexcept {
    return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}

}  // namespace

std::string uppercasedFirst(std::string_view text) {
    std::string result(text);
    uppercaseFirst(result);
    return result;
}

void uppercaseFirst(std::string& text) noexcept {
    if (!text.empty()) {
        text.front() = asciiUpper(text.front());
    }
}

std::string uppercased(std::string_view text) {
    std::string result(text);
    for (char& c : result) {
        c = asciiUpper(c);
    }
    return result;
}

}  // namespace kel

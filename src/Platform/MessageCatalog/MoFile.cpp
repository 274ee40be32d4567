#include "MoFile.hpp"

namespace kel::detail {

namespace {

constexpr std::uint32_t moMagic = 0x950412de;
constexpr std::uint32_t moMagicSwapped = 0xde120495;

}  // namespace

bool MoReader::readHeader() {
    if (bytes_.size() < 20) {
        return false;
    }
    std::uint32_t magic = rawWord(0);
    if (magic == moMagicSwapped) {
        swapped_ = true;
    } else if (magic != moMagic) {
        return false;
    }
    // Major revisions 0 and 1 share the table layout read here.
    if ((word(4) >> 16) > 1) {
        return false;
    }
    count_ = word(8);
    originals_ = word(12);
    translations_ = word(16);
    std::uint64_t tableBytes = std::uint64_t{count_} * 8;
    return originals_ + tableBytes <= bytes_.size() && translations_ + tableBytes <= bytes_.size();
}

std::uint32_t MoReader::rawWord(std::uint64_t offset) const {
    auto byte = [&](std::uint64_t k) {
        return static_cast<std::uint32_t>(static_cast<unsigned char>(bytes_[offset + k]));
    };
    return byte(0) | byte(1) << 8 | byte(2) << 16 | byte(3) << 24;
}

std::uint32_t MoReader::word(std::uint64_t offset) const {
    std::uint32_t value = rawWord(offset);
    if (swapped_) {
        value = (value >> 24) | ((value >> 8) & 0xff00) | ((value << 8) & 0xff0000) | (value << 24);
    }
    return value;
}

std::optional<std::string_view> MoReader::string(std::uint64_t descriptor) const {
    std::uint64_t length = word(descriptor);
    std::uint64_t offset = word(descriptor + 4);
    if (offset + length > bytes_.size()) {
        return std::nullopt;
    }
    return bytes_.substr(offset, length);
}

std::string_view nthForm(std::string_view forms, unsigned long index) {
    std::string_view rest = forms;
    for (unsigned long k = 0; k < index; ++k) {
        std::size_t end = rest.find('\0');
        if (end == std::string_view::npos) {
            return forms.substr(0, forms.find('\0'));
        }
        rest.remove_prefix(end + 1);
    }
    return rest.substr(0, rest.find('\0'));
}

std::optional<std::string_view> headerField(std::string_view header, std::string_view name) {
    std::size_t line = 0;
    while (line < header.size()) {
        std::size_t end = header.find('\n', line);
        std::string_view text =
            header.substr(line, end == std::string_view::npos ? end : end - line);
        if (text.size() > name.size() && text.substr(0, name.size()) == name &&
            text[name.size()] == ':') {
            return text.substr(name.size() + 1);
        }
        if (end == std::string_view::npos) {
            break;
        }
        line = end + 1;
    }
    return std::nullopt;
}

}  // namespace kel::detail

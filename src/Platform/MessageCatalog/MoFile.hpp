// Reading compiled gettext catalogues (.mo files): the header, the two string tables, the
// NUL-separated plural forms of a translation and the "Name: value" fields of the header entry.
// Nothing here trusts the file: every offset and length is checked against the bytes.
//
// Thread rules: a MoReader is a view used by one thread; the functions are pure.
// Ownership: MoReader and the returned views refer into bytes the caller keeps alive.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kel::detail {

// Catalogues are small; anything larger than this is not one of ours.
inline constexpr std::uintmax_t maximumCatalogueSize = 16 * 1024 * 1024;

class MoReader {
  public:
    explicit MoReader(std::string_view bytes) : bytes_(bytes) {}

    // Reads the magic number (either byte order), the revision and the table positions; false
    // when the bytes are not a catalogue of a revision this reader knows or its tables do not
    // fit in them.
    bool readHeader();

    std::uint32_t count() const { return count_; }

    // The string of table entry i; nothing when its bounds fall outside the file.
    std::optional<std::string_view> original(std::uint32_t i) const {
        return string(originals_ + std::uint64_t{i} * 8);
    }
    std::optional<std::string_view> translated(std::uint32_t i) const {
        return string(translations_ + std::uint64_t{i} * 8);
    }

  private:
    std::uint32_t rawWord(std::uint64_t offset) const;
    std::uint32_t word(std::uint64_t offset) const;
    std::optional<std::string_view> string(std::uint64_t descriptor) const;

    std::string_view bytes_;
    bool swapped_ = false;
    std::uint32_t count_ = 0;
    std::uint64_t originals_ = 0;
    std::uint64_t translations_ = 0;
};

// Form `index` of a translation whose forms are separated by NUL bytes; the first form when
// there are fewer.
std::string_view nthForm(std::string_view forms, unsigned long index);

// The value of one "Name: value" line of a catalogue's header entry.
std::optional<std::string_view> headerField(std::string_view header, std::string_view name);

}  // namespace kel::detail

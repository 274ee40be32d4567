// kel::UniqueCollection — an ordered collection of identifiable elements in which no identifier
// occurs twice, with constant-time lookup by identifier.
//
// The elements keep the order in which they were put in. Every mutator that adds an element
// checks its identifier first: adding an identifier that is already present, naming a position
// outside the collection, or replacing or moving an element that is not contained is a
// programming error and stops the process (kel::fatalError); nothing is reported as an error
// value. Reading is a read-only random-access range over the elements (range-for, <algorithm>,
// std::ranges), plus lookup by identifier.
//
// "Contained" means: the collection has an element with the given element's identifier, and
// that element is equal to it. Equality is expected to be consistent with identifiers (equal
// elements have equal identifiers); two unequal elements may share an identifier, and then they
// cannot both be in the collection.
//
// Cost: append and lookup are O(1) (amortised); insert, prepend, remove, replace and move are
// O(n): the elements after the change shift, and their positions are rewritten in the table
// through stored slots (no identifier is hashed again).
//
// Exception safety: strong when Element's move constructor does not throw (memory is reserved
// before the identifier table changes).
//
// Value type: copies are independent; a moved-from collection is empty. Thread rules: like
// std::vector — const members may be called concurrently, anything else needs exclusive access.
#pragma once

#include "kel/Collections/Identifiable.hpp"
#include "kel/Platform/FatalError.hpp"

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <ostream>
#include <ranges>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kel {

namespace detail {

// A range whose items convert to T.
template <class R, class T>
concept RangeOf =
    std::ranges::input_range<R> && std::convertible_to<std::ranges::range_reference_t<R>, T>;

template <class T>
concept Streamable = requires(std::ostream& stream, const T& value) {
    stream << value;
};

// Writes a list the way the collections describe themselves: ["a", "b"] for text, [1, 2] for
// anything else that can be streamed.
template <std::ranges::input_range R>
void describeList(std::ostream& stream, const R& elements) {
    stream << '[';
    bool first = true;
    for (const auto& element : elements) {
        if (!first) {
            stream << ", ";
        }
        first = false;
        if constexpr (IsText<std::ranges::range_value_t<R>>) {
            stream << '"' << std::string_view(element) << '"';
        } else {
            stream << element;
        }
    }
    stream << ']';
}

// Stops the process: an identifier was added to a collection that already holds it.
[[noreturn]] inline void duplicateIdentifier(std::string_view identifier) {
    fatalError("UniqueCollection: an element with identifier \"" + std::string(identifier) +
               "\" is already in the collection");
}

// Lets applyChanges take the elements out once it has replayed a change list.
struct UniqueCollectionAccess;

}  // namespace detail

template <Identifiable Element>
class UniqueCollection {
  public:
    using value_type = Element;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using const_reference = const Element&;
    using reference = const Element&;
    using const_iterator = typename std::vector<Element>::const_iterator;
    using iterator = const_iterator;

    UniqueCollection() = default;

    // Appends every element in order; a repeated identifier stops the process.
    explicit UniqueCollection(std::vector<Element> array) {
        reserve(array.size());
        for (Element& element : array) {
            append(std::move(element));
        }
    }

    UniqueCollection(std::initializer_list<Element> elements)
        : UniqueCollection(std::vector<Element>(elements)) {}

    UniqueCollection(const UniqueCollection& other)
        : elements_(other.elements_), table_(other.table_) {
        positions_.reserve(elements_.size());
        for (const Element& element : elements_) {
            positions_.push_back(&table_.find(identifierOf(element))->second);
        }
    }

    // The table's nodes move with it, so the position slots stay valid.
    UniqueCollection(UniqueCollection&& other) noexcept
        : elements_(std::move(other.elements_)),
          table_(std::move(other.table_)),
          positions_(std::move(other.positions_)) {
        other.clear();
    }

    UniqueCollection& operator=(const UniqueCollection& other) {
        if (this != &other) {
            UniqueCollection copy(other);
            *this = std::move(copy);
        }
        return *this;
    }

    UniqueCollection& operator=(UniqueCollection&& other) noexcept {
        if (this != &other) {
            elements_ = std::move(other.elements_);
            table_ = std::move(other.table_);
            positions_ = std::move(other.positions_);
            other.clear();
        }
        return *this;
    }

    ~UniqueCollection() = default;

    // Walks the list in order and appends each element unless an equal element is already in
    // the collection. Elements are compared by equality, not by identifier: an element whose
    // identifier is taken by an unequal element stops the process.
    template <detail::RangeOf<Element> R>
    requires std::equality_comparable<Element>
    static UniqueCollection keepingFirstUniqueFrom(R&& elements) {
        UniqueCollection collection;
        for (auto&& element : elements) {
            const Element* existing = collection.find(identifierOf(element));
            if (existing == nullptr || !(*existing == element)) {
                collection.append(std::forward<decltype(element)>(element));
            }
        }
        return collection;
    }

    static UniqueCollection keepingFirstUniqueFrom(
        std::initializer_list<Element> elements) requires std::equality_comparable<Element> {
        return keepingFirstUniqueFrom(std::vector<Element>(elements));
    }

    // The elements, in order.
    const std::vector<Element>& array() const noexcept { return elements_; }

    void append(const Element& element) { insertChecked(element, elements_.size()); }
    void append(Element&& element) { insertChecked(std::move(element), elements_.size()); }

    template <detail::RangeOf<Element> R>
    void appendContentsOf(R&& elements) {
        insertContentsOf(std::forward<R>(elements), elements_.size());
    }

    void prepend(Element element) { insert(std::move(element), 0); }

    // Adds an element at a position, 0 <= position <= count.
    void insert(Element element, std::size_t position) {
        KEL_PRECONDITION(position <= elements_.size(),
                         "UniqueCollection: insertion position out of range");
        insertChecked(std::move(element), position);
    }

    // Adds a list at a position, keeping its order; each identifier is checked in list order.
    template <detail::RangeOf<Element> R>
    void insertContentsOf(R&& elements, std::size_t position) {
        KEL_PRECONDITION(position <= elements_.size(),
                         "UniqueCollection: insertion position out of range");
        std::vector<Element> incoming;
        if constexpr (std::ranges::sized_range<R>) {
            incoming.reserve(std::ranges::size(elements));
        }
        for (auto&& element : elements) {
            incoming.emplace_back(std::forward<decltype(element)>(element));
        }
        // Record every identifier first (stopping at the first repeat), then move the whole
        // list in with one shift of the tail.
        ensureCapacity(incoming.size());
        std::vector<std::size_t*> slots;
        slots.reserve(incoming.size());
        try {
            for (const Element& element : incoming) {
                slots.push_back(claimIdentifier(element, position + slots.size()));
            }
        } catch (...) {
            for (std::size_t undo = 0; undo < slots.size(); ++undo) {
                table_.erase(table_.find(identifierOf(incoming[undo])));
            }
            throw;
        }
        const auto at = static_cast<difference_type>(position);
        elements_.insert(elements_.begin() + at, std::make_move_iterator(incoming.begin()),
                         std::make_move_iterator(incoming.end()));
        positions_.insert(positions_.begin() + at, slots.begin(), slots.end());
        renumber(position + incoming.size(), elements_.size());
    }

    // Removes and returns the element at a position, 0 <= position < count.
    Element remove(std::size_t position) {
        KEL_PRECONDITION(position < elements_.size(),
                         "UniqueCollection: removal position out of range");
        table_.erase(table_.find(identifierOf(elements_[position])));
        const auto at = static_cast<difference_type>(position);
        Element removed = std::move(elements_[position]);
        elements_.erase(elements_.begin() + at);
        positions_.erase(positions_.begin() + at);
        renumber(position, elements_.size());
        return removed;
    }

    // Removes the element with this identifier; no effect when there is none.
    void removeFor(std::string_view identifier) {
        if (auto position = indexOf(identifier)) {
            remove(*position);
        }
    }

    // The element with this identifier, or none. find() gives the same without a copy.
    std::optional<Element> operator[](std::string_view identifier) const {
        const Element* element = find(identifier);
        return element != nullptr ? std::optional<Element>(*element) : std::nullopt;
    }

    // The element with this identifier, or null; valid until the collection changes.
    const Element* find(std::string_view identifier) const noexcept {
        auto entry = table_.find(identifier);
        return entry != table_.end() ? &elements_[entry->second] : nullptr;
    }

    // The position of the element with this identifier, or none.
    std::optional<std::size_t> indexOf(std::string_view identifier) const noexcept {
        auto entry = table_.find(identifier);
        return entry != table_.end() ? std::optional<std::size_t>(entry->second) : std::nullopt;
    }

    bool contains(std::string_view identifier) const noexcept {
        return table_.contains(identifier);
    }

    // Puts `replacement` in the place of `old`, which must be contained.
    void replace(const Element& old,
                 Element replacement) requires std::equality_comparable<Element> {
        const std::size_t position = positionOfContained(old, "replace");
        remove(position);
        insertChecked(std::move(replacement), position);
    }

    // Puts a list in the place of `old`, which must be contained.
    template <detail::RangeOf<Element> R>
    requires std::equality_comparable<Element>
    void replaceWithContentsOf(const Element& old, R&& elements) {
        const std::size_t position = positionOfContained(old, "replace");
        remove(position);
        insertContentsOf(std::forward<R>(elements), position);
    }

    // Moves a contained element to a position counted in the collection without it.
    void move(const Element& element,
              std::size_t position) requires std::equality_comparable<Element> {
        moveFrom(positionOfContained(element, "move"), position);
    }

    // Moves the element at `from` to `to`, counted in the collection without it; both
    // positions must lie inside the collection.
    void moveFrom(std::size_t from, std::size_t to) {
        KEL_PRECONDITION(from < elements_.size(), "UniqueCollection: move position out of range");
        KEL_PRECONDITION(to < elements_.size(), "UniqueCollection: move position out of range");
        if (from < to) {
            rotate(from, from + 1, to + 1);
            renumber(from, to + 1);
        } else if (to < from) {
            rotate(to, from, from + 1);
            renumber(to, from + 1);
        }
    }

    // The element at a position, 0 <= position < count.
    const Element& operator[](std::size_t position) const {
        KEL_PRECONDITION(position < elements_.size(), "UniqueCollection: position out of range");
        return elements_[position];
    }

    const_iterator begin() const noexcept { return elements_.begin(); }
    const_iterator end() const noexcept { return elements_.end(); }
    std::size_t size() const noexcept { return elements_.size(); }
    bool empty() const noexcept { return elements_.empty(); }

    void reserve(std::size_t capacity) {
        elements_.reserve(capacity);
        positions_.reserve(capacity);
        table_.reserve(capacity);
    }

    // Equal when the element lists are equal, element by element, in order.
    friend bool operator==(const UniqueCollection& lhs,
                           const UniqueCollection& rhs) requires std::equality_comparable<Element> {
        return lhs.elements_ == rhs.elements_;
    }

    // The text form of the element list, e.g. ["a", "b"].
    std::string description() const {
        std::ostringstream stream;
        detail::describeList(stream, elements_);
        return std::move(stream).str();
    }

    friend std::ostream& operator<<(std::ostream& stream, const UniqueCollection& collection) {
        detail::describeList(stream, collection.elements_);
        return stream;
    }

  private:
    friend struct detail::UniqueCollectionAccess;

    // Records an element's identifier at a position and returns the slot holding that
    // position; a repeated identifier stops the process.
    std::size_t* claimIdentifier(const Element& element, std::size_t position) {
        auto [entry, inserted] = table_.try_emplace(std::string(identifierOf(element)), position);
        if (!inserted) [[unlikely]] {
            detail::duplicateIdentifier(entry->first);
        }
        return &entry->second;
    }

    // Grows the element and slot lists geometrically before the table is touched, so that the
    // insertion that follows cannot fail for want of memory and leave the table ahead.
    void ensureCapacity(std::size_t extra) {
        const std::size_t needed = elements_.size() + extra;
        if (needed > elements_.capacity()) {
            elements_.reserve(std::max(needed, 2 * elements_.capacity()));
        }
        if (needed > positions_.capacity()) {
            positions_.reserve(std::max(needed, 2 * positions_.capacity()));
        }
    }

    template <class E>
    void insertChecked(E&& element, std::size_t position) {
        ensureCapacity(1);
        std::size_t* slot = claimIdentifier(element, position);
        const auto at = static_cast<difference_type>(position);
        elements_.insert(elements_.begin() + at, std::forward<E>(element));
        positions_.insert(positions_.begin() + at, slot);
        renumber(position + 1, elements_.size());
    }

    std::size_t positionOfContained(const Element& element, std::string_view operation) const {
        auto position = indexOf(identifierOf(element));
        if (!position || !(elements_[*position] == element)) [[unlikely]] {
            fatalError("UniqueCollection: cannot " + std::string(operation) +
                       " an element that is not in the collection");
        }
        return *position;
    }

    void rotate(std::size_t first, std::size_t middle, std::size_t last) {
        const auto f = static_cast<difference_type>(first);
        const auto m = static_cast<difference_type>(middle);
        const auto l = static_cast<difference_type>(last);
        std::rotate(elements_.begin() + f, elements_.begin() + m, elements_.begin() + l);
        std::rotate(positions_.begin() + f, positions_.begin() + m, positions_.begin() + l);
    }

    // Writes the current positions of elements [first, last) into their table entries.
    void renumber(std::size_t first, std::size_t last) noexcept {
        for (std::size_t position = first; position < last; ++position) {
            *positions_[position] = position;
        }
    }

    void clear() noexcept {
        elements_.clear();
        table_.clear();
        positions_.clear();
    }

    std::vector<Element> elements_;
    // Identifier of every element -> its position in elements_.
    std::unordered_map<std::string, std::size_t, detail::IdentifierHash, std::equal_to<>> table_;
    // Parallel to elements_: the table entry that holds each element's position. Table nodes
    // never move, so shifting elements renumbers them without hashing any identifier.
    std::vector<std::size_t*> positions_;
};

}  // namespace kel

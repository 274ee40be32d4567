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
// O(n), because the positions of the elements after the change are renumbered.
//
// Exception safety: strong when Element's move constructor does not throw (memory is reserved
// before the identifier table changes). Value type: copies are independent. Thread rules: like
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
        elements_.reserve(array.size());
        table_.reserve(array.size());
        for (Element& element : array) {
            append(std::move(element));
        }
    }

    UniqueCollection(std::initializer_list<Element> elements)
        : UniqueCollection(std::vector<Element>(elements)) {}

    // Walks the list in order and appends each element unless an equal element is already in
    // the collection. Elements are compared by equality, not by identifier: an element whose
    // identifier is taken by an unequal element stops the process.
    template <std::ranges::input_range R>
    requires std::equality_comparable<Element> &&
        std::convertible_to<std::ranges::range_reference_t<R>, Element>
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

    void append(Element element) { insertChecked(std::move(element), elements_.size()); }

    template <std::ranges::input_range R>
    requires std::convertible_to<std::ranges::range_reference_t<R>, Element>
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
    template <std::ranges::input_range R>
    requires std::convertible_to<std::ranges::range_reference_t<R>, Element>
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
        std::size_t claimed = 0;
        try {
            for (; claimed < incoming.size(); ++claimed) {
                claimIdentifier(incoming[claimed], position + claimed);
            }
        } catch (...) {
            for (std::size_t undo = 0; undo < claimed; ++undo) {
                table_.erase(table_.find(identifierOf(incoming[undo])));
            }
            throw;
        }
        elements_.insert(elements_.begin() + static_cast<difference_type>(position),
                         std::make_move_iterator(incoming.begin()),
                         std::make_move_iterator(incoming.end()));
        renumberFrom(position + incoming.size());
    }

    // Removes and returns the element at a position, 0 <= position < count.
    Element remove(std::size_t position) {
        KEL_PRECONDITION(position < elements_.size(),
                         "UniqueCollection: removal position out of range");
        table_.erase(table_.find(identifierOf(elements_[position])));
        auto at = elements_.begin() + static_cast<difference_type>(position);
        Element removed = std::move(*at);
        elements_.erase(at);
        renumberFrom(position);
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
    template <std::ranges::input_range R>
    requires std::equality_comparable<Element> &&
        std::convertible_to<std::ranges::range_reference_t<R>, Element>
    void replaceWithContentsOf(const Element& old, R&& elements) {
        const std::size_t position = positionOfContained(old, "replace");
        remove(position);
        insertContentsOf(std::forward<R>(elements), position);
    }

    // Moves a contained element to a position counted in the collection without it.
    void move(const Element& element,
              std::size_t position) requires std::equality_comparable<Element> {
        const std::size_t from = positionOfContained(element, "move");
        KEL_PRECONDITION(position < elements_.size(),
                         "UniqueCollection: move position out of range");
        auto base = elements_.begin();
        if (from < position) {
            std::rotate(base + static_cast<difference_type>(from),
                        base + static_cast<difference_type>(from + 1),
                        base + static_cast<difference_type>(position + 1));
            renumber(from, position + 1);
        } else if (position < from) {
            std::rotate(base + static_cast<difference_type>(position),
                        base + static_cast<difference_type>(from),
                        base + static_cast<difference_type>(from + 1));
            renumber(position, from + 1);
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
        table_.reserve(capacity);
    }

    // Equal when the element lists are equal, element by element, in order.
    friend bool operator==(const UniqueCollection& lhs,
                           const UniqueCollection& rhs) requires std::equality_comparable<Element> {
        return lhs.elements_ == rhs.elements_;
    }

    // The text form of the element list, e.g. ["a", "b"].
    std::string description()
        const requires detail::Streamable<Element> || detail::IsText<Element> {
        std::ostringstream stream;
        detail::describeList(stream, elements_);
        return std::move(stream).str();
    }

    friend std::ostream& operator<<(std::ostream& stream,
                                    const UniqueCollection& collection) requires
        detail::Streamable<Element> || detail::IsText<Element> {
        detail::describeList(stream, collection.elements_);
        return stream;
    }

  private:
    // Records an element's identifier at a position; a repeat stops the process.
    void claimIdentifier(const Element& element, std::size_t position) {
        auto [entry, inserted] = table_.try_emplace(std::string(identifierOf(element)), position);
        if (!inserted) [[unlikely]] {
            fatalError("UniqueCollection: an element with identifier \"" + entry->first +
                       "\" is already in the collection");
        }
    }

    // Grows elements_ geometrically before the table is touched, so that the insertion that
    // follows cannot fail for want of memory and leave the table ahead of the elements.
    void ensureCapacity(std::size_t extra) {
        const std::size_t needed = elements_.size() + extra;
        if (needed > elements_.capacity()) {
            elements_.reserve(std::max(needed, 2 * elements_.capacity()));
        }
    }

    void insertChecked(Element element, std::size_t position) {
        ensureCapacity(1);
        claimIdentifier(element, position);
        elements_.insert(elements_.begin() + static_cast<difference_type>(position),
                         std::move(element));
        renumberFrom(position + 1);
    }

    std::size_t positionOfContained(const Element& element, std::string_view operation) const {
        auto position = indexOf(identifierOf(element));
        if (!position || !(elements_[*position] == element)) [[unlikely]] {
            fatalError("UniqueCollection: cannot " + std::string(operation) +
                       " an element that is not in the collection");
        }
        return *position;
    }

    void renumberFrom(std::size_t first) { renumber(first, elements_.size()); }

    void renumber(std::size_t first, std::size_t last) {
        for (std::size_t position = first; position < last; ++position) {
            table_.find(identifierOf(elements_[position]))->second = position;
        }
    }

    std::vector<Element> elements_;
    // Identifier of every element -> its position in elements_.
    std::unordered_map<std::string, std::size_t, detail::IdentifierHash, std::equal_to<>> table_;
};

}  // namespace kel

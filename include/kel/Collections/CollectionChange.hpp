// kel::CollectionChange and kel::applyChanges — replaying a list of additions, removals and
// moves onto an index-addressed collection of identifiable elements.
//
// applyChanges works on std::vector, std::deque and any other sequence container with
// insert(iterator, value)/erase(iterator)/push_back, and on kel::UniqueCollection. Elements
// are matched by identifier (kel::identifierOf); the changes may carry another identifiable
// type than the collection holds, turned into elements by the given constructor.
//
// The changes are worked through first to last:
//   adding(x)               appends elementConstructor(x);
//   removing(x)             removes the first element with x's identifier (skipped if none);
//                           every later reordering whose target lies after the removed
//                           position moves its target down by one;
//   reordering(x, toIndex)  takes the first element with x's identifier out (skipped if none)
//                           and puts it back at toIndex; every later reordering's target u
//                           becomes u + (toIndex < u) - (from < u).
// Targets are not clamped: a toIndex outside 0...count (counted without the moved element)
// stops the process.
//
// Cost: each change costs one search by identifier and one insertion or removal (O(n) for a
// contiguous container; the search is O(1) for UniqueCollection), plus O(log^2 r) to correct
// the targets of the r reorderings: each correction maps targets monotonically, so the
// targets keep their sorted order and a correction is an addition over a range of that order
// (a Fenwick tree), found by binary search.
//
// CollectionChange is a value type. applyChanges needs exclusive access to the collection.
#pragma once

#include "kel/Collections/Identifiable.hpp"
#include "kel/Collections/UniqueCollection.hpp"
#include "kel/Platform/FatalError.hpp"

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <ranges>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace kel {

template <class Element>
class CollectionChange {
  public:
    enum class Kind { adding, removing, reordering };

    static CollectionChange adding(Element element) {
        return CollectionChange(Kind::adding, std::move(element), 0);
    }
    static CollectionChange removing(Element element) {
        return CollectionChange(Kind::removing, std::move(element), 0);
    }
    static CollectionChange reordering(Element element, std::ptrdiff_t toIndex) {
        return CollectionChange(Kind::reordering, std::move(element), toIndex);
    }

    Kind kind() const noexcept { return kind_; }
    const Element& element() const noexcept { return element_; }
    // The position a reordering moves its element to; 0 for the other kinds.
    std::ptrdiff_t toIndex() const noexcept { return toIndex_; }

    friend bool operator==(const CollectionChange&, const CollectionChange&) = default;

  private:
    CollectionChange(Kind kind, Element element, std::ptrdiff_t toIndex)
        : kind_(kind), element_(std::move(element)), toIndex_(toIndex) {}

    Kind kind_;
    Element element_;
    std::ptrdiff_t toIndex_;
};

namespace detail {

template <class T>
struct IsUniqueCollection : std::false_type {};
template <class Element>
struct IsUniqueCollection<UniqueCollection<Element>> : std::true_type {};

template <class T>
struct ChangeElement {};
template <class Element>
struct ChangeElement<CollectionChange<Element>> {
    using type = Element;
};

template <class C>
concept EditableSequence = std::ranges::random_access_range<C> && std::ranges::sized_range<C> &&
    requires(C& collection, std::ranges::range_value_t<C> element) {
    collection.push_back(std::move(element));
    collection.erase(collection.begin());
    collection.insert(collection.begin(), std::move(element));
};

// A list of CollectionChange values that can be walked twice.
template <class Changes>
concept ChangeList = std::ranges::forward_range<const Changes> && requires {
    typename ChangeElement<std::ranges::range_value_t<Changes>>::type;
};

}  // namespace detail

// A collection applyChanges can edit: a sequence container or a UniqueCollection whose
// elements are identifiable.
template <class C>
concept ChangeableCollection = (detail::EditableSequence<C> ||
                                detail::IsUniqueCollection<C>::value) &&
                               Identifiable<std::ranges::range_value_t<C>>;

namespace detail {

template <class C>
std::optional<std::size_t> firstPositionOf(const C& collection, std::string_view identifier) {
    if constexpr (IsUniqueCollection<C>::value) {
        return collection.indexOf(identifier);
    } else {
        std::size_t position = 0;
        for (const auto& element : collection) {
            if (std::string_view(identifierOf(element)) == identifier) {
                return position;
            }
            ++position;
        }
        return std::nullopt;
    }
}

template <class C>
void removeAt(C& collection, std::size_t position) {
    if constexpr (IsUniqueCollection<C>::value) {
        collection.remove(position);
    } else {
        collection.erase(collection.begin() + static_cast<std::ptrdiff_t>(position));
    }
}

// Takes the element at `from` out and puts it back at `to`, counted without it.
template <class C>
void moveAt(C& collection, std::size_t from, std::ptrdiff_t to) {
    const auto remaining = static_cast<std::ptrdiff_t>(std::ranges::size(collection)) - 1;
    KEL_PRECONDITION(to >= 0 && to <= remaining, "applyChanges: reordering target out of range");
    if constexpr (IsUniqueCollection<C>::value) {
        collection.moveFrom(from, static_cast<std::size_t>(to));
    } else {
        const auto first = collection.begin();
        const auto source = static_cast<std::ptrdiff_t>(from);
        if (source < to) {
            std::rotate(first + source, first + source + 1, first + to + 1);
        } else if (to < source) {
            std::rotate(first + to, first + source, first + source + 1);
        }
    }
}

template <class C, class E>
void appendTo(C& collection, E&& element) {
    if constexpr (IsUniqueCollection<C>::value) {
        collection.append(std::forward<E>(element));
    } else {
        collection.push_back(std::forward<E>(element));
    }
}

// The targets of the reorderings of one change list, corrected as earlier changes shift
// positions. Every correction maps targets by a non-decreasing function, so the targets kept in
// ascending order stay in that order; a correction adds +1 or -1 to every target above a
// position, which is a suffix of that order, kept as differences in a Fenwick tree.
class ReorderTargets {
  public:
    explicit ReorderTargets(std::vector<std::ptrdiff_t> targets)
        : original_(std::move(targets)),
          rankOf_(original_.size()),
          sorted_(original_.size()),
          deltas_(original_.size() + 1, 0) {
        std::vector<std::size_t> order(original_.size());
        for (std::size_t i = 0; i < order.size(); ++i) {
            order[i] = i;
        }
        std::stable_sort(order.begin(), order.end(),
                         [&](std::size_t a, std::size_t b) { return original_[a] < original_[b]; });
        for (std::size_t rank = 0; rank < order.size(); ++rank) {
            rankOf_[order[rank]] = rank;
            sorted_[rank] = original_[order[rank]];
        }
    }

    // The current target of the reordering with this index (in list order).
    std::ptrdiff_t target(std::size_t reordering) const { return valueAt(rankOf_[reordering]); }

    // Adds `delta` to every target greater than `position`.
    void addAbove(std::ptrdiff_t position, std::ptrdiff_t delta) {
        addFrom(firstAbove(position), delta);
    }

    // Moves every target as a reordering from `from` to `to` does: u + (to < u) - (from < u).
    void reorder(std::ptrdiff_t from, std::ptrdiff_t to) {
        // Both boundaries are found before either addition, on the targets as they stand.
        std::size_t aboveTo = firstAbove(to);
        std::size_t aboveFrom = firstAbove(from);
        addFrom(aboveTo, 1);
        addFrom(aboveFrom, -1);
    }

  private:
    std::ptrdiff_t valueAt(std::size_t rank) const {
        std::ptrdiff_t value = sorted_[rank];
        for (std::size_t i = rank + 1; i > 0; i -= i & (~i + 1)) {
            value += deltas_[i];
        }
        return value;
    }
    void addFrom(std::size_t rank, std::ptrdiff_t delta) {
        for (std::size_t i = rank + 1; i < deltas_.size(); i += i & (~i + 1)) {
            deltas_[i] += delta;
        }
    }
    // The first rank whose target is greater than position (the count if none).
    std::size_t firstAbove(std::ptrdiff_t position) const {
        std::size_t low = 0;
        std::size_t high = sorted_.size();
        while (low < high) {
            std::size_t middle = low + (high - low) / 2;
            if (valueAt(middle) > position) {
                high = middle;
            } else {
                low = middle + 1;
            }
        }
        return low;
    }

    std::vector<std::ptrdiff_t> original_;
    std::vector<std::size_t> rankOf_;     // list index -> rank in ascending order
    std::vector<std::ptrdiff_t> sorted_;  // the original targets by rank
    std::vector<std::ptrdiff_t> deltas_;  // Fenwick tree of differences, 1-based
};

}  // namespace detail

// Replays `changes` onto `collection`, building added elements with `elementConstructor`.
template <ChangeableCollection C, detail::ChangeList Changes, class Constructor>
void applyChanges(C& collection, const Changes& changes, Constructor&& elementConstructor) {
    using ChangeType = std::ranges::range_value_t<Changes>;
    using Kind = typename ChangeType::Kind;

    std::vector<std::ptrdiff_t> initialTargets;
    for (const auto& change : changes) {
        if (change.kind() == Kind::reordering) {
            initialTargets.push_back(change.toIndex());
        }
    }
    detail::ReorderTargets targets(std::move(initialTargets));
    std::size_t upcoming = 0;  // the index of the next reordering

    for (const auto& change : changes) {
        switch (change.kind()) {
            case Kind::adding:
                detail::appendTo(collection, std::invoke(elementConstructor, change.element()));
                break;
            case Kind::removing: {
                const auto found =
                    detail::firstPositionOf(collection, identifierOf(change.element()));
                if (!found) {
                    break;
                }
                detail::removeAt(collection, *found);
                targets.addAbove(static_cast<std::ptrdiff_t>(*found), -1);
                break;
            }
            case Kind::reordering: {
                const std::ptrdiff_t to = targets.target(upcoming++);
                const auto found =
                    detail::firstPositionOf(collection, identifierOf(change.element()));
                if (!found) {
                    break;
                }
                detail::moveAt(collection, *found, to);
                targets.reorder(static_cast<std::ptrdiff_t>(*found), to);
                break;
            }
        }
    }
}

// Replays changes whose elements are of the collection's own element type.
template <ChangeableCollection C, std::ranges::forward_range Changes>
requires std::same_as<std::ranges::range_value_t<Changes>,
                      CollectionChange<std::ranges::range_value_t<C>>>
void applyChanges(C& collection, const Changes& changes) {
    applyChanges(collection, changes,
                 [](const std::ranges::range_value_t<C>& element) { return element; });
}

template <ChangeableCollection C>
void applyChanges(C& collection,
                  std::initializer_list<CollectionChange<std::ranges::range_value_t<C>>> changes) {
    applyChanges(collection, std::vector(changes));
}

}  // namespace kel

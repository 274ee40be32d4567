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
// contiguous container; the search is O(1) for UniqueCollection), plus a pass over the later
// reorderings to correct their targets, which makes the corrections O(changes x reorderings).
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

}  // namespace detail

// Replays `changes` onto `collection`, building added elements with `elementConstructor`.
template <ChangeableCollection C, detail::ChangeList Changes, class Constructor>
void applyChanges(C& collection, const Changes& changes, Constructor&& elementConstructor) {
    using ChangeType = std::ranges::range_value_t<Changes>;
    using Kind = typename ChangeType::Kind;

    // The targets of the reorderings, in list order, corrected as earlier changes shift
    // positions. Those from `upcoming` on belong to changes not reached yet.
    std::vector<std::ptrdiff_t> targets;
    for (const auto& change : changes) {
        if (change.kind() == Kind::reordering) {
            targets.push_back(change.toIndex());
        }
    }
    std::size_t upcoming = 0;
    const auto correctUpcomingTargets = [&](auto&& correct) {
        for (std::size_t later = upcoming; later < targets.size(); ++later) {
            targets[later] = correct(targets[later]);
        }
    };

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
                const auto removed = static_cast<std::ptrdiff_t>(*found);
                correctUpcomingTargets([removed](std::ptrdiff_t target) {
                    return target > removed ? target - 1 : target;
                });
                break;
            }
            case Kind::reordering: {
                const std::ptrdiff_t to = targets[upcoming++];
                const auto found =
                    detail::firstPositionOf(collection, identifierOf(change.element()));
                if (!found) {
                    break;
                }
                detail::moveAt(collection, *found, to);
                const auto from = static_cast<std::ptrdiff_t>(*found);
                correctUpcomingTargets([from, to](std::ptrdiff_t target) {
                    return target + (to < target ? 1 : 0) - (from < target ? 1 : 0);
                });
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

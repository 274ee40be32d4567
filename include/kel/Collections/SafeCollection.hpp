// kel::SafeCollection — bounds-checked access to a random-access collection that answers none
// instead of failing when a position or a range falls outside it.
//
//   auto safe = kel::safe(values);                   // a view of `values`, no copy
//   safe[2]                                           // std::optional element
//   safe[std::views::iota(1, 3)]                      // half-open range [1, 3)
//   safe[kel::ClosedRange(1, 3)]                      // closed range [1, 3]
//
// Positions are integers of any type; a negative position or bound is outside. A range is
// inside when lower >= 0 and upper <= count (half-open) or upper < count (closed). A
// sub-sequence is a std::ranges::subrange over the wrapped collection, valid while the
// SafeCollection and what it wraps live.
//
// SafeCollection holds one Base by value: a container (copied or moved in) or a view such as
// std::ranges::ref_view (what kel::safe makes of an lvalue). Value type; no locking: the same
// thread rules as the wrapped collection's const members.
#pragma once

#include "kel/Extensions/ClosedRange.hpp"

#include <concepts>
#include <cstddef>
#include <optional>
#include <ranges>
#include <utility>

namespace kel {

template <class Base>
requires std::ranges::random_access_range<const Base> && std::ranges::sized_range<const Base>
class SafeCollection {
  public:
    using Element = std::ranges::range_value_t<const Base>;
    using SubSequence = std::ranges::subrange<std::ranges::iterator_t<const Base>>;

    explicit SafeCollection(Base base) : base_(std::move(base)) {}

    // The element at a position, or none outside 0 <= index < count.
    template <std::integral Index>
    std::optional<Element> operator[](Index index) const {
        if (!inside(index, count())) {
            return std::nullopt;
        }
        return std::optional<Element>(std::ranges::begin(base_)[static_cast<Offset>(index)]);
    }

    // The elements in [lower, upper), or none unless 0 <= lower and upper <= count.
    template <std::integral Index>
    std::optional<SubSequence> operator[](std::ranges::iota_view<Index, Index> range) const {
        const Index lower = *std::ranges::begin(range);
        const Index upper = *std::ranges::end(range);
        if (!inside(lower, count() + 1) || !inside(upper, count() + 1)) {
            return std::nullopt;
        }
        return slice(static_cast<Offset>(lower), static_cast<Offset>(upper));
    }

    // The elements in [lower, upper], or none unless 0 <= lower and upper < count.
    template <std::integral Index>
    std::optional<SubSequence> operator[](const ClosedRange<Index>& range) const {
        if (!inside(range.lowerBound(), count()) || !inside(range.upperBound(), count())) {
            return std::nullopt;
        }
        return slice(static_cast<Offset>(range.lowerBound()),
                     static_cast<Offset>(range.upperBound()) + 1);
    }

    const Base& base() const& noexcept { return base_; }
    Base base() && { return std::move(base_); }

  private:
    using Offset = std::ranges::range_difference_t<const Base>;

    std::size_t count() const { return static_cast<std::size_t>(std::ranges::size(base_)); }

    // Whether 0 <= value < limit, for any integer type.
    template <std::integral Index>
    static bool inside(Index value, std::size_t limit) noexcept {
        return std::cmp_greater_equal(value, 0) && std::cmp_less(value, limit);
    }

    SubSequence slice(Offset lower, Offset upper) const {
        auto first = std::ranges::begin(base_);
        return SubSequence(first + lower, first + upper);
    }

    Base base_;
};

// A SafeCollection over a range: a view of an lvalue (no copy), or owning an rvalue.
template <std::ranges::viewable_range R>
SafeCollection<std::views::all_t<R>> safe(R&& range) {
    return SafeCollection<std::views::all_t<R>>(std::views::all(std::forward<R>(range)));
}

}  // namespace kel

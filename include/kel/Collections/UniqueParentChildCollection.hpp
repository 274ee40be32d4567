// kel::UniqueParentChildCollection — a reverse index from a child's identifier to the parent
// that contains it.
//
// A Parent is a sequence of Child values (anything range-for can walk), or a pointer-like
// handle to one (std::shared_ptr<Section>, ...), so that large parents can be shared instead
// of copied into the index. Children are identifiable (kel::identifierOf). The index keeps one
// parent per child identifier: mapping a child again replaces its parent.
//
// Value type: copies are independent (a copy holds copies of the parents, or of their
// handles). Thread rules: like std::unordered_map — const members may be called concurrently,
// anything else needs exclusive access.
#pragma once

#include "kel/Collections/Identifiable.hpp"
#include "kel/Collections/UniqueCollection.hpp"

#include <concepts>
#include <optional>
#include <ranges>
#include <string>
#include <string_view>
#include <unordered_map>

namespace kel {

namespace detail {

// The children of a parent: the parent itself when it is a range, else what it points to.
template <class Parent>
decltype(auto) childrenOf(const Parent& parent) {
    if constexpr (std::ranges::input_range<const Parent>) {
        return (parent);
    } else {
        return (*parent);
    }
}

}  // namespace detail

template <class Parent, Identifiable Child>
requires std::copy_constructible<Parent> && std::convertible_to <
    std::ranges::range_reference_t<decltype(detail::childrenOf(std::declval<const Parent&>()))>,
const Child& > class UniqueParentChildCollection {
  public:
    UniqueParentChildCollection() = default;

    // Maps every child of the parent, in iteration order, to the parent (replacing any earlier
    // parent of that child).
    void mapChildren(const Parent& parent) {
        for (const Child& child : detail::childrenOf(parent)) {
            auto&& identifier = identifierOf(child);
            auto entry = childToParentTable_.find(std::string_view(identifier));
            if (entry != childToParentTable_.end()) {
                entry->second = parent;
            } else {
                childToParentTable_.emplace(std::string(identifier), parent);
            }
        }
    }

    // Maps the children of every parent in collection order: a child listed under two parents
    // ends up with the later one.
    template <std::same_as<Parent> Identified>
    void mapChildren(const UniqueCollection<Identified>& parents) {
        for (const Parent& parent : parents) {
            mapChildren(parent);
        }
    }

    // Forgets the parent of every child of this parent.
    void removeChildren(const Parent& parent) {
        for (const Child& child : detail::childrenOf(parent)) {
            auto entry = childToParentTable_.find(std::string_view(identifierOf(child)));
            if (entry != childToParentTable_.end()) {
                childToParentTable_.erase(entry);
            }
        }
    }

    // The parent of a child, given as the child itself or as its identifier; none if unmapped.
    template <Identifiable ChildOrIdentifier>
    std::optional<Parent> operator[](const ChildOrIdentifier& child) const {
        const Parent* parent = find(child);
        return parent != nullptr ? std::optional<Parent>(*parent) : std::nullopt;
    }

    // The same without a copy: the parent, or null; valid until the index changes.
    template <Identifiable ChildOrIdentifier>
    const Parent* find(const ChildOrIdentifier& child) const {
        auto entry = childToParentTable_.find(std::string_view(identifierOf(child)));
        return entry != childToParentTable_.end() ? &entry->second : nullptr;
    }

    std::size_t size() const noexcept { return childToParentTable_.size(); }
    bool empty() const noexcept { return childToParentTable_.empty(); }

  private:
    // Child identifier -> the parent it was last mapped to.
    std::unordered_map<std::string, Parent, detail::IdentifierHash, std::equal_to<>>
        childToParentTable_;
};

}  // namespace kel

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
// Cost: O((n + c) log n) expected for n elements and c changes, plus O(log^2 r) per change
// for the r reorderings. The changes are replayed on a balanced tree ordered by position with a
// table from identifier to tree node, so finding, taking out and putting back an element are
// O(log n); the collection is rebuilt once at the end, moving every element. The targets of
// later reorderings are corrected in a Fenwick tree: each correction maps targets
// monotonically, so the targets keep their sorted order and a correction is an addition over a
// range of that order, found by binary search. When several elements of a sequence container
// share an identifier, finding the first of them costs O(k log n) for k such elements.
//
// Errors: a reordering target out of range, and (for UniqueCollection) adding an identifier
// that is present, stop the process at the change that causes them. If the element
// constructor throws, the collection is left unchanged.
//
// CollectionChange is a value type. applyChanges needs exclusive access to the collection.
#pragma once

#include "kel/Collections/Identifiable.hpp"
#include "kel/Collections/UniqueCollection.hpp"
#include "kel/Platform/FatalError.hpp"

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <optional>
#include <ranges>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
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

// The elements of one replay in their current order, as a randomized balanced binary tree
// ordered by position (an implicit treap). Nodes are numbered: the collection's elements are
// 0...count-1, added elements follow in the order they are added. Each node records the size
// of its subtree and its parent, so a node's position is found by walking up to the root, and
// taking a node out or putting it at a position is a split and a merge: O(log n) expected.
// The priorities come from a fixed-seed generator, so a replay is deterministic.
class PositionTree {
  public:
    static constexpr std::uint32_t none = std::numeric_limits<std::uint32_t>::max();

    // Nodes 0...count-1 in that order, built balanced in O(count); room for `capacity` nodes.
    PositionTree(std::size_t count, std::size_t capacity) {
        KEL_PRECONDITION(capacity < none, "applyChanges: too many elements");
        nodes_.reserve(capacity);
        nodes_.resize(count);
        for (Node& node : nodes_) {
            node.priority = nextPriority();
        }
        root_ = build(0, static_cast<std::uint32_t>(count), none);
    }

    std::size_t size() const noexcept { return sizeOf(root_); }

    // Adds a node after the last one and returns its number.
    std::uint32_t append() {
        const auto node = static_cast<std::uint32_t>(nodes_.size());
        nodes_.push_back(Node{.priority = nextPriority()});
        setRoot(merge(root_, node));
        return node;
    }

    std::size_t positionOf(std::uint32_t node) const noexcept {
        std::size_t position = sizeOf(nodes_[node].left);
        for (std::uint32_t parent = nodes_[node].parent; parent != none;
             node = parent, parent = nodes_[node].parent) {
            if (nodes_[parent].right == node) {
                position += sizeOf(nodes_[parent].left) + 1;
            }
        }
        return position;
    }

    // Takes out the node at `position`; it can be put back with insert.
    void erase(std::size_t position) {
        const auto [before, rest] = split(root_, position);
        const auto [node, after] = split(rest, 1);
        nodes_[node] = Node{.priority = nodes_[node].priority};
        setRoot(merge(before, after));
    }

    // Puts a node that is not in the tree at `position`, 0 <= position <= size().
    void insert(std::uint32_t node, std::size_t position) {
        const auto [before, after] = split(root_, position);
        setRoot(merge(merge(before, node), after));
    }

    // Calls visit(node) for every node, in order.
    template <class Visit>
    void forEach(Visit&& visit) const {
        std::vector<std::uint32_t> path;
        std::uint32_t node = root_;
        while (node != none || !path.empty()) {
            for (; node != none; node = nodes_[node].left) {
                path.push_back(node);
            }
            node = path.back();
            path.pop_back();
            visit(node);
            node = nodes_[node].right;
        }
    }

  private:
    struct Node {
        std::uint32_t left = none;
        std::uint32_t right = none;
        std::uint32_t parent = none;
        std::uint32_t size = 1;
        std::uint32_t priority = 0;
    };

    std::uint32_t nextPriority() noexcept {
        // xorshift32: cheap, and any fixed sequence without structure keeps the tree balanced.
        seed_ ^= seed_ << 13;
        seed_ ^= seed_ >> 17;
        seed_ ^= seed_ << 5;
        return seed_;
    }

    std::size_t sizeOf(std::uint32_t node) const noexcept {
        return node == none ? 0 : nodes_[node].size;
    }

    void setLeft(std::uint32_t node, std::uint32_t child) noexcept {
        nodes_[node].left = child;
        if (child != none) {
            nodes_[child].parent = node;
        }
    }
    void setRight(std::uint32_t node, std::uint32_t child) noexcept {
        nodes_[node].right = child;
        if (child != none) {
            nodes_[child].parent = node;
        }
    }
    void recount(std::uint32_t node) noexcept {
        nodes_[node].size =
            static_cast<std::uint32_t>(1 + sizeOf(nodes_[node].left) + sizeOf(nodes_[node].right));
    }
    void setRoot(std::uint32_t node) noexcept {
        root_ = node;
        if (node != none) {
            nodes_[node].parent = none;
        }
    }

    // Nodes [first, last) as a balanced subtree; a node's priority is sifted down below its
    // children's, which are heaps already, so the whole is a heap in linear time.
    std::uint32_t build(std::uint32_t first, std::uint32_t last, std::uint32_t parent) {
        if (first == last) {
            return none;
        }
        const std::uint32_t middle = first + (last - first) / 2;
        nodes_[middle].parent = parent;
        nodes_[middle].left = build(first, middle, middle);
        nodes_[middle].right = build(middle + 1, last, middle);
        nodes_[middle].size = last - first;
        for (std::uint32_t node = middle;;) {
            std::uint32_t largest = node;
            for (std::uint32_t child : {nodes_[node].left, nodes_[node].right}) {
                if (child != none && nodes_[child].priority > nodes_[largest].priority) {
                    largest = child;
                }
            }
            if (largest == node) {
                break;
            }
            std::swap(nodes_[node].priority, nodes_[largest].priority);
            node = largest;
        }
        return middle;
    }

    // The first `count` nodes of the subtree and the rest; the parents of the two returned
    // roots are left for the caller to set.
    std::pair<std::uint32_t, std::uint32_t> split(std::uint32_t node, std::size_t count) {
        if (node == none) {
            return {none, none};
        }
        const std::size_t leftSize = sizeOf(nodes_[node].left);
        if (count <= leftSize) {
            const auto [first, rest] = split(nodes_[node].left, count);
            setLeft(node, rest);
            recount(node);
            return {first, node};
        }
        const auto [first, rest] = split(nodes_[node].right, count - leftSize - 1);
        setRight(node, first);
        recount(node);
        return {node, rest};
    }

    // The nodes of `first` followed by those of `second`; the root's parent is left to the
    // caller.
    std::uint32_t merge(std::uint32_t first, std::uint32_t second) {
        if (first == none) {
            return second;
        }
        if (second == none) {
            return first;
        }
        if (nodes_[first].priority > nodes_[second].priority) {
            setRight(first, merge(nodes_[first].right, second));
            recount(first);
            return first;
        }
        setLeft(second, merge(first, nodes_[second].left));
        recount(second);
        return second;
    }

    std::vector<Node> nodes_;
    std::uint32_t root_ = none;
    std::uint32_t seed_ = 2463534242u;
};

// Identifier -> the tree nodes of the elements that carry it. A sequence container may hold
// an identifier more than once: those nodes are chained, and the first in collection order is
// found by comparing positions (O(k log n) for k elements sharing the identifier).
// Identifiers that the element returns by reference or as a view are kept as views into the
// elements, which stay in place for the whole replay; computed ones are copied.
template <class Element>
class IdentifierIndex {
    using Returned = decltype(identifierOf(std::declval<const Element&>()));
    using Key = std::conditional_t<std::is_reference_v<Returned> ||
                                       std::is_same_v<std::decay_t<Returned>, std::string_view> ||
                                       std::is_pointer_v<std::decay_t<Returned>>,
                                   std::string_view, std::string>;

  public:
    explicit IdentifierIndex(std::size_t capacity) {
        table_.reserve(capacity);
        nextSame_.reserve(capacity);
    }

    // Records `node` (numbered in order, from 0) under `identifier`; returns false, recording
    // nothing, when `unique` and the identifier is already present.
    bool add(std::string_view identifier, std::uint32_t node, bool unique) {
        nextSame_.push_back(PositionTree::none);
        auto [entry, inserted] = table_.try_emplace(Key(identifier), node);
        if (!inserted) {
            if (unique) {
                return false;
            }
            nextSame_[node] = nextSame_[entry->second];
            nextSame_[entry->second] = node;
        }
        return true;
    }

    struct Found {
        std::uint32_t node;
        std::size_t position;
    };

    // The first element in collection order with this identifier, or none.
    std::optional<Found> first(std::string_view identifier, const PositionTree& tree) const {
        auto entry = table_.find(identifier);
        if (entry == table_.end()) {
            return std::nullopt;
        }
        Found found{entry->second, tree.positionOf(entry->second)};
        for (std::uint32_t node = nextSame_[found.node]; node != PositionTree::none;
             node = nextSame_[node]) {
            const std::size_t position = tree.positionOf(node);
            if (position < found.position) {
                found = {node, position};
            }
        }
        return found;
    }

    void remove(std::string_view identifier, std::uint32_t node) {
        auto entry = table_.find(identifier);
        if (entry->second == node) {
            if (nextSame_[node] == PositionTree::none) {
                table_.erase(entry);
            } else {
                entry->second = nextSame_[node];
            }
            return;
        }
        std::uint32_t previous = entry->second;
        while (nextSame_[previous] != node) {
            previous = nextSame_[previous];
        }
        nextSame_[previous] = nextSame_[node];
    }

  private:
    std::unordered_map<Key, std::uint32_t, IdentifierHash, std::equal_to<>> table_;
    std::vector<std::uint32_t> nextSame_;  // node -> next node with its identifier, or none
};

// Takes the elements out of a UniqueCollection, leaving it empty.
struct UniqueCollectionAccess {
    template <class Element>
    static std::vector<Element> takeElements(UniqueCollection<Element>& collection) {
        std::vector<Element> elements = std::move(collection.elements_);
        collection.clear();
        return elements;
    }
};

}  // namespace detail

// Replays `changes` onto `collection`, building added elements with `elementConstructor`.
// The changes are replayed on a PositionTree and an IdentifierIndex, and the collection is
// rebuilt once at the end; if the constructor throws, the collection is left as it was.
template <ChangeableCollection C, detail::ChangeList Changes, class Constructor>
void applyChanges(C& collection, const Changes& changes, Constructor&& elementConstructor) {
    using ChangeType = std::ranges::range_value_t<Changes>;
    using Kind = typename ChangeType::Kind;
    using Element = std::ranges::range_value_t<C>;
    constexpr bool unique = detail::IsUniqueCollection<C>::value;

    std::vector<std::ptrdiff_t> initialTargets;
    std::size_t additions = 0;
    for (const auto& change : changes) {
        if (change.kind() == Kind::reordering) {
            initialTargets.push_back(change.toIndex());
        } else if (change.kind() == Kind::adding) {
            ++additions;
        }
    }
    if (std::ranges::begin(changes) == std::ranges::end(changes)) {
        return;
    }
    detail::ReorderTargets targets(std::move(initialTargets));
    std::size_t upcoming = 0;  // the index of the next reordering

    const std::size_t count = std::ranges::size(collection);
    const auto original = std::ranges::begin(collection);
    // Reserved up front: the index may keep views into the added elements.
    std::vector<Element> added;
    added.reserve(additions);
    detail::PositionTree tree(count, count + additions);
    detail::IdentifierIndex<Element> index(count + additions);
    for (std::size_t node = 0; node < count; ++node) {
        index.add(identifierOf(original[static_cast<std::ptrdiff_t>(node)]),
                  static_cast<std::uint32_t>(node), false);
    }

    for (const auto& change : changes) {
        switch (change.kind()) {
            case Kind::adding: {
                added.push_back(std::invoke(elementConstructor, change.element()));
                const std::uint32_t node = tree.append();
                if (!index.add(identifierOf(added.back()), node, unique)) [[unlikely]] {
                    detail::duplicateIdentifier(identifierOf(added.back()));
                }
                break;
            }
            case Kind::removing: {
                const auto identifier = identifierOf(change.element());
                const auto found = index.first(identifier, tree);
                if (!found) {
                    break;
                }
                tree.erase(found->position);
                index.remove(identifier, found->node);
                targets.addAbove(static_cast<std::ptrdiff_t>(found->position), -1);
                break;
            }
            case Kind::reordering: {
                const std::ptrdiff_t to = targets.target(upcoming++);
                const auto found = index.first(identifierOf(change.element()), tree);
                if (!found) {
                    break;
                }
                // Counted without the moved element.
                const auto remaining = static_cast<std::ptrdiff_t>(tree.size()) - 1;
                KEL_PRECONDITION(to >= 0 && to <= remaining,
                                 "applyChanges: reordering target out of range");
                const auto from = static_cast<std::ptrdiff_t>(found->position);
                if (from != to) {
                    tree.erase(found->position);
                    tree.insert(found->node, static_cast<std::size_t>(to));
                }
                targets.reorder(from, to);
                break;
            }
        }
    }

    if constexpr (unique) {
        std::vector<Element> originals = detail::UniqueCollectionAccess::takeElements(collection);
        std::vector<Element> result;
        result.reserve(tree.size());
        tree.forEach([&](std::uint32_t node) {
            result.push_back(std::move(node < count ? originals[node] : added[node - count]));
        });
        collection = C(std::move(result));
    } else {
        C result;
        if constexpr (requires { result.reserve(tree.size()); }) {
            result.reserve(tree.size());
        }
        tree.forEach([&](std::uint32_t node) {
            result.push_back(std::move(node < count ? original[static_cast<std::ptrdiff_t>(node)]
                                                    : added[node - count]));
        });
        collection = std::move(result);
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

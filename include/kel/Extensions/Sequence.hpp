// Sequence helpers: uniqueness and zipped maps.
//
//   kel::unique(range)            the elements without repeats, first occurrence kept, in order;
//   kel::unique(range, key)       the same, two elements being repeats when their keys are equal
//                                 (key is any callable or member pointer, as with std::invoke);
//   kel::zippedMap(keys, values)  a map from the i-th key to the i-th value.
//
// unique needs hashable elements (or keys) and gives a std::vector of copies of the kept
// elements. While it runs it refers to keys in place where it can (an lvalue range and a key
// that gives a reference), so it copies neither elements nor keys into its seen-set.
//
// zippedMap pairs the two ranges up to the shorter one's length; when a key occurs more than
// once, the value paired with its last occurrence wins. It gives a std::unordered_map unless the
// caller names another map type: kel::zippedMap<std::map<std::string, int>>(keys, values).
//
// Thread rules: plain functions over the caller's ranges; no shared state.
#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <iterator>
#include <ranges>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace kel {

namespace detail {

template <class T>
concept Hashable = std::equality_comparable<T> && requires(const T& value) {
    { std::hash<T>{}(value) } -> std::convertible_to<std::size_t>;
};

template <class T>
struct PointeeHash {
    std::size_t operator()(const T* value) const noexcept(noexcept(std::hash<T>{}(*value))) {
        return std::hash<T>{}(*value);
    }
};

template <class T>
struct PointeeEqual {
    bool operator()(const T* a, const T* b) const { return *a == *b; }
};

}  // namespace detail

template <std::ranges::input_range R, class Key = std::identity>
requires std::invocable<Key&, std::ranges::range_reference_t<R>> && detail::Hashable<
    std::remove_cvref_t<std::invoke_result_t<Key&, std::ranges::range_reference_t<R>>>>
    std::vector<std::ranges::range_value_t<R>> unique(R&& range, Key key = {}) {
    using KeyResult = std::invoke_result_t<Key&, std::ranges::range_reference_t<R>>;
    using KeyValue = std::remove_cvref_t<KeyResult>;

    std::vector<std::ranges::range_value_t<R>> kept;
    if constexpr (std::ranges::sized_range<R>) {
        kept.reserve(std::ranges::size(range));
    }
    if constexpr (std::ranges::forward_range<R> && std::is_lvalue_reference_v<KeyResult>) {
        // Keys stay where they are for the whole call: remember their addresses only.
        std::unordered_set<const KeyValue*, detail::PointeeHash<KeyValue>,
                           detail::PointeeEqual<KeyValue>>
            seen;
        for (auto&& element : range) {
            if (seen.insert(std::addressof(std::invoke(key, element))).second) {
                kept.push_back(element);
            }
        }
    } else {
        std::unordered_set<KeyValue> seen;
        for (auto&& element : range) {
            if (seen.insert(std::invoke(key, element)).second) {
                kept.push_back(std::forward<decltype(element)>(element));
            }
        }
    }
    return kept;
}

template <class Map = void, std::ranges::input_range Keys, std::ranges::input_range Values>
auto zippedMap(Keys&& keys, Values&& values) {
    using Result = std::conditional_t<
        std::is_void_v<Map>,
        std::unordered_map<std::ranges::range_value_t<Keys>, std::ranges::range_value_t<Values>>,
        Map>;
    Result map;
    auto key = std::ranges::begin(keys);
    auto value = std::ranges::begin(values);
    for (; key != std::ranges::end(keys) && value != std::ranges::end(values); ++key, ++value) {
        map.insert_or_assign(*key, *value);
    }
    return map;
}

}  // namespace kel

// Dictionary merging: combining two maps where the right-hand side wins.
//
// - kel::merging(left, right): a new map with every entry of both; for a key in both, right's
//   value.
// - kel::merge(target, source): the same, in place: source's entries are written into target.
//
// Works with any map that has insert_or_assign (std::map, std::unordered_map and the like).
// Passing right (or source) as an rvalue moves its values instead of copying them (keys are
// copied: a map's keys are const).
//
// Thread rules: plain functions over the caller's maps; no shared state.
#pragma once

#include <concepts>
#include <type_traits>
#include <utility>

namespace kel {

template <class Map>
concept AssignableMap = requires(Map map, typename Map::key_type key,
                                 typename Map::mapped_type value) {
    map.insert_or_assign(std::move(key), std::move(value));
};

template <AssignableMap Map, class Source>
requires std::same_as<std::remove_cvref_t<Source>, Map>
void merge(Map& target, Source&& source) {
    if constexpr (std::is_rvalue_reference_v<Source&&>) {
        for (auto& [key, value] : source) {
            target.insert_or_assign(key, std::move(value));
        }
    } else {
        for (const auto& [key, value] : source) {
            target.insert_or_assign(key, value);
        }
    }
}

template <AssignableMap Map, class Right>
requires std::same_as<std::remove_cvref_t<Right>, Map> Map merging(Map left, Right&& right) {
    merge(left, std::forward<Right>(right));
    return left;
}

}  // namespace kel

// Array helpers: random elements and numeric summaries.
//
//   kel::randomElement(range)         a uniformly chosen copy of an element; none if empty;
//   kel::randomElement(range, engine) the same with the caller's random engine (for
//                                     reproducible choices);
//   kel::sum(range)                   the sum of the elements, starting from a value-initialised
//                                     zero (so an empty range sums to 0); for numbers, durations
//                                     and any type with + and a zero;
//   kel::average(range)               the arithmetic mean of numbers as a double; none if empty.
//
// Thread rules: the functions share no state. The default engine of randomElement is one per
// thread, seeded from std::random_device on first use, so threads never contend for it.
#pragma once

#include <concepts>
#include <cstdint>
#include <iterator>
#include <optional>
#include <random>
#include <ranges>
#include <type_traits>

#include "kel/Export.hpp"

namespace kel {

namespace runtime {
// The calling thread's random engine.
KEL_EXPORT std::mt19937_64& threadRandomEngine();
}  // namespace runtime

template <std::ranges::forward_range R, std::uniform_random_bit_generator Engine>
std::optional<std::ranges::range_value_t<R>> randomElement(R&& range, Engine& engine) {
    const auto count = std::ranges::distance(range);
    if (count == 0) {
        return std::nullopt;
    }
    using Distance = decltype(count);
    std::uniform_int_distribution<Distance> pick(0, count - 1);
    return *std::ranges::next(std::ranges::begin(range), pick(engine));
}

template <std::ranges::forward_range R>
std::optional<std::ranges::range_value_t<R>> randomElement(R&& range) {
    return randomElement(std::forward<R>(range), runtime::threadRandomEngine());
}

template <std::ranges::input_range R>
requires requires(std::ranges::range_value_t<R> total, std::ranges::range_reference_t<R> element) {
    std::ranges::range_value_t<R>{};
    total = total + element;
}
std::ranges::range_value_t<R> sum(R&& range) {
    std::ranges::range_value_t<R> total{};
    for (auto&& element : range) {
        total = total + element;
    }
    return total;
}

template <std::ranges::input_range R>
requires std::is_arithmetic_v<std::ranges::range_value_t<R>> std::optional<double> average(
    R&& range) {
    double total = 0;
    std::uint64_t count = 0;
    for (auto&& element : range) {
        total += static_cast<double>(element);
        ++count;
    }
    if (count == 0) {
        return std::nullopt;
    }
    return total / static_cast<double>(count);
}

}  // namespace kel

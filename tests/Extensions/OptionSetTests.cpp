#include "kel/Extensions/OptionSet.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <ranges>
#include <vector>

namespace {

struct Shipping : kel::OptionSet<Shipping> {
    using OptionSet::OptionSet;
};
constexpr Shipping nextDay{1}, secondDay{2}, priority{4}, standard{8};

TEST(OptionSetAlgebra, CombinesComparesAndReportsChanges) {
    const Shipping fast{nextDay, secondDay};
    const Shipping premium{secondDay, priority};
    EXPECT_EQ(fast | premium, Shipping(7));
    EXPECT_EQ(fast & premium, secondDay);
    EXPECT_EQ(fast - premium, nextDay);
    EXPECT_FALSE(fast.contains(Shipping{nextDay, priority}));  // needs every bit
    EXPECT_TRUE(nextDay.isSubset(fast) && !fast.isSubset(premium));
    EXPECT_TRUE(fast.isDisjoint(standard) && !fast.isDisjoint(premium));

    Shipping set;
    EXPECT_TRUE(set.insert(priority));
    EXPECT_TRUE(set.insert(Shipping{priority, nextDay}));  // partly new
    EXPECT_EQ(set.remove(standard), std::nullopt);
    EXPECT_EQ(set.remove(Shipping{priority, standard}), priority);
    EXPECT_EQ(set, nextDay);
}

// The raw values of a set's elements, read after the set itself is gone: the view keeps the
// bits, not a reference to the set.
template <class Set>
std::vector<typename Set::RawValue> rawElements(typename Set::RawValue raw) {
    auto elements = Set(raw).elements();
    std::vector<typename Set::RawValue> raws;
    for (Set element : elements) {
        raws.push_back(element.rawValue());
    }
    return raws;
}

TEST(OptionSetElements, SingleBitsLowestFirstThroughALazyView) {
    static_assert(std::ranges::view<decltype(Shipping{}.elements())>);
    static_assert(std::ranges::forward_range<decltype(Shipping{}.elements())>);
    using Raws = std::vector<long long>;
    EXPECT_EQ(rawElements<Shipping>(0b1011'0000'0101), (Raws{1, 4, 0x100, 0x200, 0x800}));
    // The sign bit is a member like any other.
    constexpr long long signBit = std::numeric_limits<long long>::min();
    EXPECT_EQ(rawElements<Shipping>(signBit | 2), (Raws{2, signBit}));
}

}  // namespace

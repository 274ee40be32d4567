#include "kel/Extensions/OptionSet.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <limits>
#include <ranges>
#include <vector>

namespace {

struct Shipping : kel::OptionSet<Shipping> {
    using OptionSet::OptionSet;
    static const Shipping nextDay;
    static const Shipping secondDay;
    static const Shipping priority;
    static const Shipping standard;
};
inline constexpr Shipping Shipping::nextDay{1};
inline constexpr Shipping Shipping::secondDay{2};
inline constexpr Shipping Shipping::priority{4};
inline constexpr Shipping Shipping::standard{8};

// A set over a narrow unsigned raw value, to see that the template is not tied to one width.
struct Flags8 : kel::OptionSet<Flags8, std::uint8_t> {
    using OptionSet::OptionSet;
};

template <class Set>
std::vector<typename Set::RawValue> rawElements(Set set) {
    std::vector<typename Set::RawValue> raws;
    std::ranges::transform(set.elements(), std::back_inserter(raws),
                           [](Set element) { return element.rawValue(); });
    return raws;
}

using Raws = std::vector<long long>;

TEST(OptionSetAlgebra, CombinesAndComparesSets) {
    const Shipping fast{Shipping::nextDay, Shipping::secondDay};
    const Shipping premium{Shipping::secondDay, Shipping::priority};
    EXPECT_EQ((Shipping{Shipping::nextDay, Shipping::nextDay}), Shipping(1));
    EXPECT_TRUE(Shipping({}).isEmpty());

    EXPECT_EQ(fast | premium, Shipping(7));
    EXPECT_EQ(fast & premium, Shipping::secondDay);
    EXPECT_EQ(fast ^ premium, (Shipping{Shipping::nextDay, Shipping::priority}));
    EXPECT_EQ(fast - premium, Shipping::nextDay);
    Shipping set = fast;
    set |= Shipping::standard;
    set -= Shipping::nextDay;
    EXPECT_EQ(set, Shipping(10));

    EXPECT_FALSE(fast.contains(Shipping{Shipping::nextDay, Shipping::priority}));  // every bit
    EXPECT_TRUE(fast.contains(Shipping{}));
    EXPECT_TRUE(Shipping::nextDay.isSubset(fast));
    EXPECT_FALSE(fast.isSubset(premium));
    EXPECT_TRUE(fast.isDisjoint(Shipping::standard));
    EXPECT_FALSE(fast.isDisjoint(premium));
}

TEST(OptionSetAlgebra, InsertAndRemoveReportWhatChanged) {
    Shipping set;
    EXPECT_TRUE(set.insert(Shipping::priority));
    EXPECT_FALSE(set.insert(Shipping::priority));
    EXPECT_TRUE(set.insert(Shipping{Shipping::priority, Shipping::nextDay}));  // partly new
    EXPECT_EQ(set, Shipping(5));

    EXPECT_EQ(set.remove(Shipping::standard), std::nullopt);
    EXPECT_EQ(set.remove(Shipping{Shipping::priority, Shipping::standard}), Shipping::priority);
    EXPECT_EQ(set, Shipping::nextDay);
}

TEST(OptionSetElements, SingleBitsLowestFirst) {
    EXPECT_EQ(rawElements(Shipping(5)), (Raws{1, 4}));
    EXPECT_EQ(rawElements(Shipping{}), Raws{});
    EXPECT_EQ(rawElements(Shipping(0b1011'0000'0001)), (Raws{1, 0x100, 0x200, 0x800}));
    EXPECT_EQ(rawElements(Flags8(0x81)), (std::vector<std::uint8_t>{1, 128}));
    // The sign bit is a member like any other.
    constexpr long long signBit = std::numeric_limits<long long>::min();
    EXPECT_EQ(rawElements(Shipping(signBit | 2)), (Raws{2, signBit}));
    EXPECT_EQ(rawElements(Shipping(-1)).size(), 64u);
}

TEST(OptionSetElements, IsALazyViewThatOutlivesItsSet) {
    static_assert(std::ranges::view<decltype(Shipping{}.elements())>);
    static_assert(std::ranges::forward_range<decltype(Shipping{}.elements())>);

    auto elements = [] { return Shipping(12).elements(); }();  // the set is gone
    auto doubled = elements | std::views::transform([](Shipping s) { return s.rawValue() * 2; });
    Raws values;
    std::ranges::copy(doubled, std::back_inserter(values));
    EXPECT_EQ(values, (Raws{8, 16}));
}

}  // namespace

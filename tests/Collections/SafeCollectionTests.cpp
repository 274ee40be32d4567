#include "kel/Collections/SafeCollection.hpp"

#include <gtest/gtest.h>

#include <deque>
#include <ranges>
#include <vector>

namespace {

template <class Sub>
std::vector<int> values(const std::optional<Sub>& sub) {
    EXPECT_TRUE(sub.has_value());
    return sub ? std::vector<int>(sub->begin(), sub->end()) : std::vector<int>{};
}

TEST(SafeCollectionBounds, PositionsAndRangesOutsideTheCollectionAnswerNoneAndViewsFollowChanges) {
    const std::vector<int> base{10, 20, 30};
    const auto safe = kel::safe(base);
    EXPECT_EQ(safe[2], 30);
    EXPECT_EQ(safe[3], std::nullopt);
    EXPECT_EQ(safe[-1], std::nullopt);
    EXPECT_EQ(kel::safe(std::vector<int>{})[0], std::nullopt);

    // Half-open ranges may end at the end.
    EXPECT_EQ(values(safe[std::views::iota(1, 3)]), (std::vector<int>{20, 30}));
    EXPECT_EQ(values(safe[std::views::iota(3, 3)]), std::vector<int>{});
    EXPECT_EQ(safe[std::views::iota(2, 4)], std::nullopt);
    EXPECT_EQ(safe[std::views::iota(-1, 2)], std::nullopt);

    // Closed ranges must end before the end.
    EXPECT_EQ(values(safe[kel::ClosedRange(0, 2)]), base);
    EXPECT_EQ(values(safe[kel::ClosedRange(1, 1)]), (std::vector<int>{20}));
    EXPECT_EQ(safe[kel::ClosedRange(1, 3)], std::nullopt);
    EXPECT_EQ(safe[kel::ClosedRange(-1, 1)], std::nullopt);
    EXPECT_EQ(kel::safe(std::vector<int>{})[kel::ClosedRange(0, 0)], std::nullopt);

    std::deque<int> numbers{1, 2, 3};
    auto view = kel::safe(numbers);  // a view: later changes are seen
    numbers.push_back(4);
    EXPECT_EQ(view[3], 4);
    EXPECT_EQ(values(view[std::views::iota(2, 4)]), (std::vector<int>{3, 4}));
}

}  // namespace

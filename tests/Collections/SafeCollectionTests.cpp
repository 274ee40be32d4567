#include "kel/Collections/SafeCollection.hpp"

#include <gtest/gtest.h>

#include <deque>
#include <ranges>
#include <string>
#include <vector>

namespace {

template <class Sub>
std::vector<int> values(const std::optional<Sub>& sub) {
    EXPECT_TRUE(sub.has_value());
    return sub ? std::vector<int>(sub->begin(), sub->end()) : std::vector<int>{};
}

TEST(SafeCollectionBounds, IndexAnswersNoneOutsideTheCollection) {
    const kel::SafeCollection<std::vector<int>> safe(std::vector<int>{10, 20, 30});
    EXPECT_EQ(safe[0], 10);
    EXPECT_EQ(safe[2], 30);
    EXPECT_EQ(safe[3], std::nullopt);
    EXPECT_EQ(safe[-1], std::nullopt);
    EXPECT_EQ(safe[std::size_t{1} << 40], std::nullopt);
    EXPECT_EQ(kel::safe(std::vector<int>{})[0], std::nullopt);
}

TEST(SafeCollectionBounds, HalfOpenRangesMayEndAtTheEnd) {
    const std::vector<int> base{10, 20, 30};
    const auto safe = kel::safe(base);
    EXPECT_EQ(values(safe[std::views::iota(1, 3)]), (std::vector<int>{20, 30}));
    EXPECT_EQ(values(safe[std::views::iota(0, 3)]), base);
    EXPECT_EQ(values(safe[std::views::iota(3, 3)]), std::vector<int>{});
    EXPECT_EQ(safe[std::views::iota(2, 4)], std::nullopt);
    EXPECT_EQ(safe[std::views::iota(4, 4)], std::nullopt);
    EXPECT_EQ(safe[std::views::iota(-1, 2)], std::nullopt);
}

TEST(SafeCollectionBounds, ClosedRangesMustEndBeforeTheEnd) {
    const std::vector<int> base{10, 20, 30};
    const auto safe = kel::safe(base);
    EXPECT_EQ(values(safe[kel::ClosedRange(0, 2)]), base);
    EXPECT_EQ(values(safe[kel::ClosedRange(1, 1)]), (std::vector<int>{20}));
    EXPECT_EQ(safe[kel::ClosedRange(1, 3)], std::nullopt);
    EXPECT_EQ(safe[kel::ClosedRange(-1, 1)], std::nullopt);
    EXPECT_EQ(safe[kel::ClosedRange<std::size_t>(2, 2)]->front(), 30);
    EXPECT_EQ(kel::safe(std::vector<int>{})[kel::ClosedRange(0, 0)], std::nullopt);
}

TEST(SafeCollectionBounds, WrapsAnyRandomAccessCollection) {
    std::deque<int> numbers{1, 2, 3};
    auto safe = kel::safe(numbers);  // a view: later changes are seen
    numbers.push_back(4);
    EXPECT_EQ(safe[3], 4);

    const auto text = kel::safe(std::string("hello"));
    EXPECT_EQ(text[1], 'e');
    auto slice = text[std::views::iota(1, 4)];
    ASSERT_TRUE(slice);
    EXPECT_EQ(std::string(slice->begin(), slice->end()), "ell");
}

}  // namespace

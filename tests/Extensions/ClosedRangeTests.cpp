#include "kel/Extensions/ClosedRange.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <string>
#include <utility>

namespace {

using kel::ClosedRange;
using kel::ClosedRangeDecodingError;
using nlohmann::json;

TEST(ClosedRangeBounds, BothEndsBelongToTheRange) {
    const ClosedRange<int> range(-2, 5);
    EXPECT_TRUE(range.contains(-2) && range.contains(5) && ClosedRange(4, 4).contains(4));
    EXPECT_FALSE(range.contains(-3) || range.contains(6));
    EXPECT_TRUE(range.overlaps({5, 12}) && range.overlaps({-5, -2}));
    EXPECT_FALSE(range.overlaps({6, 12}));
    EXPECT_EQ(range.clamped(-10), -2);
    EXPECT_EQ(range.clamped(10), 5);
}

TEST(ClosedRangeDeathTest, BoundsTheWrongWayRoundStopTheProcess) {
    EXPECT_DEATH(ClosedRange<int>(3, 2), "ClosedRange requires lowerBound <= upperBound");
}

TEST(ClosedRangeCoding, RoundTripsAsATwoElementArray) {
    const json encoded = ClosedRange<int>(1, 9);
    EXPECT_EQ(encoded.dump(), "[1,9]");
    EXPECT_EQ(encoded.get<ClosedRange<int>>(), ClosedRange(1, 9));
}

TEST(ClosedRangeCoding, BadInputThrowsAnErrorThatSaysWhatWasWrong) {
    for (auto [text, complaint] : {
             std::pair{R"({"lower":1,"upper":2})", "expected a two-element array, got object"},
             std::pair{"[1,2,3]", "got 3 elements"},
             std::pair{R"(["one",2])", R"(lower bound "one" has the wrong type)"},
             std::pair{"[5,1]", "lower bound 5 is above upper bound 1"},
         }) {
        try {
            (void)json::parse(text).get<ClosedRange<int>>();
            ADD_FAILURE() << text << " decoded";
        } catch (const ClosedRangeDecodingError& error) {
            EXPECT_THAT(error.what(), ::testing::HasSubstr("Cannot decode a closed range"));
            EXPECT_THAT(error.what(), ::testing::HasSubstr(complaint)) << text;
        }
    }
}

}  // namespace

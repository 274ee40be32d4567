#include "kel/Extensions/ClosedRange.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <string>

namespace {

using kel::ClosedRange;
using kel::ClosedRangeDecodingError;
using nlohmann::json;
using ::testing::HasSubstr;

TEST(ClosedRangeBounds, ContainsBothEndsAndNothingOutside) {
    const ClosedRange<int> range(-2, 5);
    EXPECT_TRUE(range.contains(-2));
    EXPECT_TRUE(range.contains(5));
    EXPECT_FALSE(range.contains(-3));
    EXPECT_FALSE(range.contains(6));

    const ClosedRange<int> single(4, 4);
    EXPECT_TRUE(single.contains(4));
    EXPECT_FALSE(single.contains(3));

    EXPECT_EQ(range.clamped(-10), -2);
    EXPECT_EQ(range.clamped(10), 5);
    EXPECT_EQ(range.clamped(1), 1);
}

TEST(ClosedRangeBounds, OverlapIncludesTouchingEnds) {
    const ClosedRange<int> range(0, 10);
    EXPECT_TRUE(range.overlaps({10, 12}));
    EXPECT_TRUE(range.overlaps({-5, 0}));
    EXPECT_TRUE(range.overlaps({3, 4}));
    EXPECT_FALSE(range.overlaps({11, 12}));
    EXPECT_FALSE(range.overlaps({-3, -1}));
}

TEST(ClosedRangeDeathTest, BoundsTheWrongWayRoundStopTheProcess) {
    EXPECT_DEATH(ClosedRange<int>(3, 2), "ClosedRange requires lowerBound <= upperBound");
}

TEST(ClosedRangeCoding, RoundTripsAsATwoElementArray) {
    const ClosedRange<int> range(1, 9);
    const json encoded = range;
    EXPECT_EQ(encoded.dump(), "[1,9]");
    EXPECT_EQ(encoded.get<ClosedRange<int>>(), range);

    const ClosedRange<std::string> words("apple", "pear");
    EXPECT_EQ(json(words).dump(), R"(["apple","pear"])");
    EXPECT_EQ(json::parse(R"(["a","a"])").get<ClosedRange<std::string>>(),
              ClosedRange<std::string>("a", "a"));
    EXPECT_EQ(json::parse("[0.5, 2.5]").get<ClosedRange<double>>(), ClosedRange(0.5, 2.5));
}

TEST(ClosedRangeCoding, BadInputThrowsAnErrorThatSaysWhatWasWrong) {
    struct Case {
        const char* text;
        const char* complaint;
    };
    for (const Case& c : {
             Case{"{\"lower\":1,\"upper\":2}", "expected a two-element array, got object"},
             Case{"7", "expected a two-element array, got number"},
             Case{"null", "expected a two-element array, got null"},
             Case{"[]", "got 0 elements"},
             Case{"[1]", "got 1 elements"},
             Case{"[1,2,3]", "got 3 elements"},
             Case{"[\"one\",2]", "lower bound \"one\" has the wrong type"},
             Case{"[1,null]", "upper bound null has the wrong type"},
             Case{"[5,1]", "lower bound 5 is above upper bound 1"},
         }) {
        try {
            (void)json::parse(c.text).get<ClosedRange<int>>();
            ADD_FAILURE() << c.text << " decoded";
        } catch (const ClosedRangeDecodingError& error) {
            EXPECT_THAT(error.what(), HasSubstr("Cannot decode a closed range"));
            EXPECT_THAT(error.what(), HasSubstr(c.complaint)) << c.text;
        }
    }
}

TEST(ClosedRangeCoding, DecodesInsideLargerDocuments) {
    const json document = json::parse(R"({"visible": [2, 4], "all": [[0, 1], [3, 3]]})");
    EXPECT_EQ(document.at("visible").get<ClosedRange<unsigned>>(), ClosedRange(2u, 4u));
    const auto all = document.at("all").get<std::vector<ClosedRange<int>>>();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[1], ClosedRange(3, 3));
    // An error in a nested range is an error of the whole decode.
    EXPECT_THROW((void)json::parse(R"([[0, 1], [3]])").get<std::vector<ClosedRange<int>>>(),
                 ClosedRangeDecodingError);
}

}  // namespace

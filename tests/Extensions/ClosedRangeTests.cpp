#include "kel/Extensions/ClosedRange.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

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
    const json encoded = range;
    EXPECT_EQ(encoded.dump(), "[-2,5]");
    EXPECT_EQ(encoded.get<ClosedRange<int>>(), range);
}

TEST(ClosedRangeDeathTest, BoundsTheWrongWayRoundStopTheProcess) {
    EXPECT_DEATH(ClosedRange<int>(3, 2), "ClosedRange requires lowerBound <= upperBound");
}

// Bad input throws the library's decoding error saying what was wrong. Decoders of binary formats
// (CBOR, MessagePack) accept text that is not UTF-8 and floats of any size: both must end in
// that error too, never in the JSON library's type_error or an out-of-range cast.
TEST(ClosedRangeCoding, BadInputGivesTheDecodingErrorSayingWhatWasWrong) {
    const json invalidText = json::from_cbor(
        std::vector<std::uint8_t>{0x82, 0x62, 0xff, 0xfe, 0x62, 'z', 'z'});  // ["\xff\xfe", "zz"]
    const json hugeFloat = json::from_msgpack(std::vector<std::uint8_t>{
        0x92, 0x00, 0xcb, 0x7e, 0x37, 0xe4, 0x3c, 0x88, 0x00, 0x75, 0x9c});  // [0, 1e300]
    const std::pair<json, std::string> cases[] = {
        {json::parse(R"({"lower":1,"upper":2})"), "expected a two-element array, got object"},
        {json::parse("[1,2,3]"), "got 3 elements"},
        {json::parse(R"(["one",2])"), R"(lower bound "one" has the wrong type)"},
        {json::parse("[5,1]"), "lower bound 5 is above upper bound 1"},
        {invalidText, "is above upper bound"},
        {hugeFloat, "upper bound 1e+300 is out of range"},
        {json::parse("[-3000000000, 0]"), "lower bound -3000000000 is out of range"},
        {json::parse("[0, 2147483648.0]"), "out of range"},
    };
    for (const auto& [input, complaint] : cases) {
        try {
            if (input.is_array() && input.size() == 2 && input[1].is_string()) {
                (void)input.get<ClosedRange<std::string>>();
            } else {
                (void)input.get<ClosedRange<int>>();
            }
            ADD_FAILURE() << complaint << ": decoded";
        } catch (const ClosedRangeDecodingError& error) {
            EXPECT_THAT(error.what(), ::testing::HasSubstr("Cannot decode a closed range"));
            EXPECT_THAT(error.what(), ::testing::HasSubstr(complaint));
        }
    }
    EXPECT_EQ(json::parse("[-2147483648, 2147483647.5]").get<ClosedRange<int>>(),
              ClosedRange<int>(-2147483647 - 1, 2147483647));
}

}  // namespace

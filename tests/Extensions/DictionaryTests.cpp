#include "kel/Extensions/Dictionary.hpp"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <unordered_map>

namespace {

using Map = std::unordered_map<std::string, int>;

TEST(DictionaryMerging, TheRightSideWinsOnSharedKeys) {
    const Map left{{"a", 1}, {"b", 2}};
    const Map right{{"b", 20}, {"c", 30}};
    EXPECT_EQ(kel::merging(left, right), (Map{{"a", 1}, {"b", 20}, {"c", 30}}));
    EXPECT_EQ(kel::merging(right, left), (Map{{"a", 1}, {"b", 2}, {"c", 30}}));
    EXPECT_EQ(left, (Map{{"a", 1}, {"b", 2}}));  // inputs untouched

    EXPECT_EQ(kel::merging(Map{}, right), right);
    EXPECT_EQ(kel::merging(left, Map{}), left);
    EXPECT_TRUE(kel::merging(Map{}, Map{}).empty());
}

TEST(DictionaryMerging, InPlaceMergeMovesValuesOutOfAnExpiringSource) {
    std::map<int, std::unique_ptr<std::string>> target;
    target[1] = std::make_unique<std::string>("old");
    std::map<int, std::unique_ptr<std::string>> source;
    source[1] = std::make_unique<std::string>("new");
    source[2] = std::make_unique<std::string>("two");

    kel::merge(target, std::move(source));
    ASSERT_EQ(target.size(), 2u);
    EXPECT_EQ(*target.at(1), "new");
    EXPECT_EQ(*target.at(2), "two");
}

}  // namespace

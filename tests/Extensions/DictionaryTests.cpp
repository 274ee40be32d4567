#include "kel/Extensions/Dictionary.hpp"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <unordered_map>

namespace {

TEST(DictionaryMerging, TheRightSideWinsOnSharedKeys) {
    using Map = std::unordered_map<std::string, int>;
    const Map left{{"a", 1}, {"b", 2}};
    const Map right{{"b", 20}, {"c", 30}};
    EXPECT_EQ(kel::merging(left, right), (Map{{"a", 1}, {"b", 20}, {"c", 30}}));

    // In place, from an expiring source, values are moved: move-only ones work.
    std::map<int, std::unique_ptr<std::string>> target, source;
    target[1] = std::make_unique<std::string>("old");
    source[1] = std::make_unique<std::string>("new");
    source[2] = std::make_unique<std::string>("two");
    kel::merge(target, std::move(source));
    ASSERT_EQ(target.size(), 2u);
    EXPECT_EQ(*target.at(1), "new");
    EXPECT_EQ(*target.at(2), "two");
}

}  // namespace

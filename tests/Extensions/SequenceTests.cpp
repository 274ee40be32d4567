#include "kel/Extensions/Sequence.hpp"

#include <gtest/gtest.h>

#include <forward_list>
#include <map>
#include <memory>
#include <ranges>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Person {
    std::string name;
    int age;
    friend bool operator==(const Person&, const Person&) = default;
};

TEST(SequenceUnique, KeepsFirstOccurrencesInOrder) {
    EXPECT_EQ(kel::unique(std::vector{3, 1, 3, 2, 1, 3}), (std::vector{3, 1, 2}));
    EXPECT_EQ(kel::unique(std::vector<int>{}), std::vector<int>{});
    EXPECT_EQ(kel::unique(std::vector{7, 7, 7}), std::vector{7});
    EXPECT_EQ(kel::unique(std::vector{1, 2, 3}), (std::vector{1, 2, 3}));

    const std::forward_list<std::string> words{"b", "a", "b", "", "a", ""};
    EXPECT_EQ(kel::unique(words), (std::vector<std::string>{"b", "a", ""}));
}

TEST(SequenceUnique, ByKeyKeepsTheFirstElementOfEachKey) {
    const std::vector<Person> people{{"ann", 30}, {"bob", 30}, {"cid", 41}, {"ann", 52}};
    EXPECT_EQ(kel::unique(people, &Person::age),
              (std::vector<Person>{{"ann", 30}, {"cid", 41}, {"ann", 52}}));
    EXPECT_EQ(kel::unique(people, &Person::name),
              (std::vector<Person>{{"ann", 30}, {"bob", 30}, {"cid", 41}}));
    // A key computed on the fly (a value, not a reference into the element).
    EXPECT_EQ(kel::unique(people, [](const Person& p) { return p.age / 10; }),
              (std::vector<Person>{{"ann", 30}, {"cid", 41}, {"ann", 52}}));
}

TEST(SequenceUnique, WorksOnSinglePassAndGeneratedRanges) {
    std::istringstream input("4 4 5 4 6 5");
    EXPECT_EQ(kel::unique(std::views::istream<int>(input)), (std::vector{4, 5, 6}));

    auto squares = std::views::iota(-3, 4) | std::views::transform([](int i) { return i * i; });
    EXPECT_EQ(kel::unique(squares), (std::vector{9, 4, 1, 0}));

    // Elements produced as temporaries are moved into the result, so move-only ones work.
    auto boxes = std::views::iota(0, 4) |
                 std::views::transform([](int i) { return std::make_unique<int>(i % 2); });
    EXPECT_EQ(kel::unique(boxes, [](const std::unique_ptr<int>& box) { return *box; }).size(), 2u);
}

TEST(ZippedMap, PairsKeysWithValuesUpToTheShorterSequence) {
    const std::vector<std::string> keys{"a", "b", "c"};
    const std::vector<int> values{1, 2};
    const auto map = kel::zippedMap(keys, values);
    EXPECT_EQ(map.size(), 2u);
    EXPECT_EQ(map.at("a"), 1);
    EXPECT_EQ(map.at("b"), 2);
    EXPECT_FALSE(map.contains("c"));

    EXPECT_TRUE(kel::zippedMap(std::vector<int>{}, values).empty());
    EXPECT_TRUE(kel::zippedMap(keys, std::vector<int>{}).empty());
}

TEST(ZippedMap, LaterDuplicateKeysWinAndTheMapTypeCanBeChosen) {
    const auto map =
        kel::zippedMap<std::map<char, int>>(std::string("abca"), std::vector{1, 2, 3, 4});
    EXPECT_EQ(map, (std::map<char, int>{{'a', 4}, {'b', 2}, {'c', 3}}));
}

}  // namespace

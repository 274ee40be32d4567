#include "kel/Extensions/Sequence.hpp"

#include <gtest/gtest.h>

#include <forward_list>
#include <map>
#include <memory>
#include <ranges>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

struct Person {
    std::string name;
    int age;
    friend bool operator==(const Person&, const Person&) = default;
};

// The first occurrence of each element or key is kept, in order, also from single-pass and
// generated ranges.
TEST(SequenceUnique, KeepsTheFirstOccurrenceOfEachElementOrKeyFromAnyRange) {
    EXPECT_EQ(kel::unique(std::vector{3, 1, 3, 2, 1, 3}), (std::vector{3, 1, 2}));
    const std::forward_list<std::string> words{"b", "a", "b", "", "a", ""};
    EXPECT_EQ(kel::unique(words), (std::vector<std::string>{"b", "a", ""}));

    const std::vector<Person> people{{"ann", 30}, {"bob", 30}, {"cid", 41}, {"ann", 52}};
    const std::vector<Person> byAge{{"ann", 30}, {"cid", 41}, {"ann", 52}};
    EXPECT_EQ(kel::unique(people, &Person::age), byAge);
    // A key computed on the fly (a value, not a reference into the element).
    EXPECT_EQ(kel::unique(people, [](const Person& p) { return p.age / 10; }), byAge);

    std::istringstream input("4 4 5 4 6 5");
    EXPECT_EQ(kel::unique(std::views::istream<int>(input)), (std::vector{4, 5, 6}));

    // Elements produced as temporaries are moved into the result, so move-only ones work.
    auto boxes = std::views::iota(0, 4) |
                 std::views::transform([](int i) { return std::make_unique<int>(i % 2); });
    EXPECT_EQ(kel::unique(boxes, [](const std::unique_ptr<int>& box) { return *box; }).size(), 2u);
}

TEST(ZippedMap, PairsUpToTheShorterSequenceAndLaterDuplicateKeysWin) {
    const std::vector<std::string> keys{"a", "b", "c"};
    EXPECT_EQ(kel::zippedMap(keys, std::vector{1, 2}),
              (std::unordered_map<std::string, int>{{"a", 1}, {"b", 2}}));
    const auto chosen =
        kel::zippedMap<std::map<char, int>>(std::string("abca"), std::vector{1, 2, 3, 4});
    EXPECT_EQ(chosen, (std::map<char, int>{{'a', 4}, {'b', 2}, {'c', 3}}));
}

}  // namespace

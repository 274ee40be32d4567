#include "kel/Extensions/Array.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <list>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

TEST(ArrayRandomElement, EmptyGivesNoneAndEveryElementCanBeChosen) {
    EXPECT_EQ(kel::randomElement(std::vector<int>{}), std::nullopt);
    // A fixed seed keeps this reproducible; 200 draws from three reach every element.
    const std::list<std::string> colours{"red", "green", "blue"};
    std::set<std::string> seen;
    std::mt19937 engine(7);
    for (int i = 0; i < 200; ++i) {
        seen.insert(*kel::randomElement(colours, engine));
    }
    EXPECT_EQ(seen, (std::set<std::string>{"red", "green", "blue"}));
}

TEST(ArrayNumbers, SumsInTheElementTypeAndAveragesAsDoubles) {
    EXPECT_EQ(kel::sum(std::vector<int>{}), 0);
    EXPECT_EQ(kel::sum(std::vector{1, -2, 3}), 2);
    using std::chrono::seconds;
    EXPECT_EQ(kel::sum(std::vector{seconds(3), seconds(4)}), seconds(7));

    EXPECT_EQ(kel::average(std::vector<double>{}), std::nullopt);
    EXPECT_DOUBLE_EQ(*kel::average(std::vector{1, 2}), 1.5);  // integers average as doubles
    // Integers too large to add up in their own type still average correctly.
    EXPECT_DOUBLE_EQ(*kel::average(std::vector{2'000'000'000, 2'000'000'000}), 2e9);
}

}  // namespace

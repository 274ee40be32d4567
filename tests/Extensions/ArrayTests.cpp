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
    EXPECT_EQ(kel::randomElement(std::vector{42}), 42);

    const std::list<std::string> colours{"red", "green", "blue"};
    std::set<std::string> seen;
    // A fixed seed makes the draw reproducible; 200 draws from 3 reach every element.
    std::mt19937 engine(7);
    for (int i = 0; i < 200; ++i) {
        seen.insert(*kel::randomElement(colours, engine));
    }
    EXPECT_EQ(seen, (std::set<std::string>{"red", "green", "blue"}));

    // The same seed gives the same choices.
    std::mt19937 first(11);
    std::mt19937 second(11);
    const std::vector<int> numbers{1, 2, 3, 4, 5, 6, 7, 8};
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(kel::randomElement(numbers, first), kel::randomElement(numbers, second));
    }
}

TEST(ArrayNumbers, SumAndAverage) {
    EXPECT_EQ(kel::sum(std::vector<int>{}), 0);
    EXPECT_EQ(kel::sum(std::vector{1, -2, 3}), 2);
    EXPECT_DOUBLE_EQ(kel::sum(std::vector{0.5, 0.25}), 0.75);
    using std::chrono::seconds;
    EXPECT_EQ(kel::sum(std::vector{seconds(3), seconds(4)}), seconds(7));

    EXPECT_EQ(kel::average(std::vector<double>{}), std::nullopt);
    EXPECT_DOUBLE_EQ(*kel::average(std::vector{1, 2}), 1.5);  // integers average as doubles
    EXPECT_DOUBLE_EQ(*kel::average(std::vector{-4.0}), -4.0);
    // Integers too large to add up in their own type still average correctly.
    const std::vector<int> large{2'000'000'000, 2'000'000'000};
    EXPECT_DOUBLE_EQ(*kel::average(large), 2e9);
}

}  // namespace

#include "kel/Collections/Stack.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <ranges>
#include <string>
#include <vector>

namespace {

static_assert(std::ranges::random_access_range<kel::Stack<int>>);

TEST(Stack, PopsAndPeeksTheNewestAndIteratesFromTheOldest) {
    kel::Stack<int> stack;
    EXPECT_TRUE(stack.isEmpty());
    EXPECT_EQ(stack.pop(), std::nullopt);
    EXPECT_EQ(stack.peek(), std::nullopt);

    stack.push(1);
    stack.push(2);
    stack.push(3);
    EXPECT_EQ(std::vector<int>(stack.begin(), stack.end()), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(stack[0], 1);
    EXPECT_EQ(stack.peek(), 3);
    EXPECT_EQ(stack.pop(), 3);
    EXPECT_EQ(stack.size(), 2u);
    EXPECT_EQ(std::ranges::find(stack, 2) - stack.begin(), 1);
}

TEST(Stack, RemovesByPositionFromTheBottom) {
    kel::Stack<std::string> stack;
    for (const char* value : {"bottom", "middle", "top"}) {
        stack.push(value);
    }
    EXPECT_EQ(stack.remove(1), "middle");
    EXPECT_EQ(stack.remove(0), "bottom");
    EXPECT_EQ(stack.pop(), "top");
    EXPECT_TRUE(stack.isEmpty());
}

TEST(StackDeathTest, PositionsOutsideTheStackStopTheProcess) {
    kel::Stack<int> stack;
    EXPECT_DEATH(stack.remove(0), "Stack: position out of range");
    stack.push(1);
    EXPECT_DEATH((void)stack[1], "Stack: position out of range");
}

}  // namespace

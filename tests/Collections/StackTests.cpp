#include "kel/Collections/Stack.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(Stack, PopsAndPeeksTheNewestIteratesFromTheOldestAndRemovesByPositionFromTheBottom) {
    kel::Stack<std::string> stack;
    EXPECT_EQ(stack.pop(), std::nullopt);
    EXPECT_EQ(stack.peek(), std::nullopt);

    for (const char* value : {"bottom", "middle", "top", "new"}) {
        stack.push(value);
    }
    EXPECT_EQ(std::vector<std::string>(stack.begin(), stack.end()),
              (std::vector<std::string>{"bottom", "middle", "top", "new"}));
    EXPECT_EQ(stack.peek(), "new");
    EXPECT_EQ(stack.pop(), "new");
    EXPECT_EQ(stack.remove(1), "middle");
    EXPECT_EQ(stack.remove(0), "bottom");
    EXPECT_EQ(stack[0], "top");
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

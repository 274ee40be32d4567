#include "kel/Platform/FatalError.hpp"

#include <gtest/gtest.h>

namespace {

TEST(FatalErrorDeathTest, WritesTheMessageOrTheFailedConditionThenAborts) {
    EXPECT_DEATH(kel::fatalError("the sky fell"),
                 "Fatal error: the sky fell: file .*FatalErrorTests\\.cpp, line [0-9]+");
    int items = 0;
    EXPECT_DEATH(KEL_PRECONDITION(items > 0), "Fatal error: Precondition failed: items > 0");
    EXPECT_DEATH(KEL_PRECONDITION(items > 0, "need at least one item"),
                 "Fatal error: need at least one item");
}

TEST(FatalError, PreconditionThatHoldsDoesNothing) {
    int calls = 0;
    KEL_PRECONDITION(++calls == 1);
    EXPECT_EQ(calls, 1);  // the condition is evaluated exactly once
}

}  // namespace

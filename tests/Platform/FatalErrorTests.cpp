#include "kel/Platform/FatalError.hpp"

#include <gtest/gtest.h>

namespace {

TEST(FatalErrorDeathTest, WritesTheMessageOrTheFailedConditionThenAbortsAndAHeldOneDoesNothing) {
    EXPECT_DEATH(kel::fatalError("the sky fell"),
                 "Fatal error: the sky fell: file .*FatalErrorTests\\.cpp, line [0-9]+");
    int items = 0;
    EXPECT_DEATH(KEL_PRECONDITION(items > 0), "Fatal error: Precondition failed: items > 0");
    EXPECT_DEATH(KEL_PRECONDITION(items > 0, "need at least one item"),
                 "Fatal error: need at least one item");
    // A precondition that holds does nothing, and its condition is evaluated exactly once.
    KEL_PRECONDITION(++items == 1);
    EXPECT_EQ(items, 1);
}

}  // namespace

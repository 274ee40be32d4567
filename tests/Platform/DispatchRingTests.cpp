#include <gtest/gtest.h>

#include <memory>

#include "Dispatch/Ring.hpp"

namespace {

using kel::detail::Ring;

TEST(DispatchRingTests, KeepsFifoOrderAcrossWrapAroundAndGrowth) {
    Ring<std::unique_ptr<int>> ring;
    int pushed = 0;
    int popped = 0;
    auto push = [&](int count) {
        for (int i = 0; i < count; ++i) {
            ring.push(std::make_unique<int>(pushed++));
        }
    };
    auto pop = [&](int count) {
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(*ring.front(), popped);
            ASSERT_EQ(*ring.pop(), popped++);
        }
    };
    // Fill, then take from the front, so that the next pushes wrap around the buffer's end.
    const int capacity = static_cast<int>(Ring<int>::initialCapacity);
    push(capacity);
    pop(capacity - 6);
    push(capacity - 6);
    EXPECT_EQ(ring.size(), static_cast<std::size_t>(capacity));
    EXPECT_EQ(ring.capacity(), static_cast<std::size_t>(capacity));
    // Growing while wrapped must keep the oldest element first.
    push(3);
    EXPECT_EQ(ring.capacity(), static_cast<std::size_t>(2 * capacity));
    pop(static_cast<int>(ring.size()));
    EXPECT_TRUE(ring.empty());
    EXPECT_EQ(popped, pushed);
}

TEST(DispatchRingTests, DestroysWhatItStillHolds) {
    auto shared = std::make_shared<int>(0);
    {
        Ring<std::shared_ptr<int>> ring;
        for (int i = 0; i < 40; ++i) {
            ring.push(std::shared_ptr<int>(shared));
        }
        ring.pop();  // the popped copy dies here
        EXPECT_EQ(shared.use_count(), 40);
    }
    EXPECT_EQ(shared.use_count(), 1);
}

}  // namespace

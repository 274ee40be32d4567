#include "kel/Extensions/KFCapabilities.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

TEST(KFCapabilities, EveryThreadSeesTheSameAnswerAndLinuxIsNotInternal) {
    std::atomic<int> internal{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 8; ++i) {
        callers.emplace_back([&] { internal += kel::KFCapabilities::isInternalBuild() ? 1 : 0; });
    }
    for (auto& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(internal.load(), 0);
    EXPECT_FALSE(kel::KFCapabilities::isInternalBuild());
}

}  // namespace
